#include <HvUtil/HvUDPODispatcher.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDatagramPacket.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvUDPEvent.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

HvHandle<HvDatagramPacket> packetTo(unsigned int port, const std::string& text)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    return HvHandle<HvDatagramPacket>(
        new HvDatagramPacket(bytes.get(), 0, static_cast<unsigned int>(text.size()), hvtest::loopback(), port));
}

void post(HvObject* object)
{
    HvUDPODispatcher::sAddEvent(new HvUDPEvent(nullptr, object));
}

// True once the dispatcher has let go of the object (the caller holding the
// only other reference): its event has been processed and deleted.
bool released(HvObject* object)
{
    return hvtest::waitUntil([&] { return object->getRefCount() == 1; });
}

HvThread::ShutdownHookFunction installedHook()
{
    HvThread::ShutdownHookFunction hook = HvThread::sSetShutdownHook(HvThread::WAKE_UDP_OUTPUT_DISPATCHER_QUEUE, nullptr);
    HvThread::sSetShutdownHook(HvThread::WAKE_UDP_OUTPUT_DISPATCHER_QUEUE, hook);
    return hook;
}

// Must stay the first test: no instance exists yet.
TEST(HvUDPODispatcherTest, NoQueueBeforeTheFirstGetInstanceAndTheHookThenDoesNothing)
{
    EXPECT_EQ(nullptr, HvUDPODispatcher::getUDPEventQueue());
    HvThread::ShutdownHookFunction hook = installedHook();
    ASSERT_NE(nullptr, hook);
    hook();
    EXPECT_EQ(nullptr, HvUDPODispatcher::getUDPEventQueue());
    EXPECT_EQ(0, hvtest::liveCount("HvUDPODispatcher"));
}

TEST(HvUDPODispatcherTest, GetInstanceMakesAndStartsOneDispatcherWithoutASocketYet)
{
    HvUDPODispatcher* instance = HvUDPODispatcher::getInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, HvUDPODispatcher::getInstance());
    EXPECT_EQ(instance->getEventQueue(), HvUDPODispatcher::getUDPEventQueue());
    ASSERT_TRUE(hvtest::waitUntil([&] { return instance->getState() == HvThread::RUNNING; }));
    EXPECT_EQ(0, instance->getThreadPool().getMaxThreads());
    EXPECT_EQ(instance, instance->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::LOCKED, instance->getEventQueue()->getPolicy());
    EXPECT_EQ(1, hvtest::liveCount("HvUDPODispatcher"));
    EXPECT_TRUE(instance->getDatagramSocket().isNull());
}

TEST(HvUDPODispatcherTest, FirstPacketMakesTheSharedSocketAndLaterPacketsReuseIt)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramPacket> first = packetTo(peer.port(), "first");
    post(first.get());
    std::string text;
    unsigned int firstPort = 0;
    ASSERT_TRUE(peer.receive(text, &firstPort));
    EXPECT_EQ("first", text);
    ASSERT_TRUE(released(first.get()));

    HvHandle<HvDatagramSocket> shared = HvUDPODispatcher::getInstance()->getDatagramSocket();
    ASSERT_FALSE(shared.isNull());
    EXPECT_NE(-1, shared->getDescriptor());
    EXPECT_EQ(0u, shared->getLocalPort());
    EXPECT_EQ(0u, shared->getLocalAddress().getAddress());
    EXPECT_EQ(49152u, shared->getBufferSize());
    EXPECT_FALSE(shared->isConnected());
    EXPECT_EQ(firstPort, hvtest::localPortOf(shared->getDescriptor()));

    HvHandle<HvDatagramPacket> second = packetTo(peer.port(), "second");
    post(second.get());
    unsigned int secondPort = 0;
    ASSERT_TRUE(peer.receive(text, &secondPort));
    EXPECT_EQ("second", text);
    EXPECT_EQ(firstPort, secondPort);
    ASSERT_TRUE(released(second.get()));
    EXPECT_EQ(shared.get(), HvUDPODispatcher::getInstance()->getDatagramSocket().get());
}

TEST(HvUDPODispatcherTest, SetDatagramSocketReplacesTheSharedSocketAndClosesTheOldOne)
{
    hvtest::RawUdpSocket peer;
    HvUDPODispatcher* instance = HvUDPODispatcher::getInstance();
    HvHandle<HvDatagramPacket> before = packetTo(peer.port(), "before");
    post(before.get());
    std::string text;
    ASSERT_TRUE(peer.receive(text));
    ASSERT_TRUE(released(before.get()));
    HvHandle<HvDatagramSocket> old = instance->getDatagramSocket();
    ASSERT_FALSE(old.isNull());

    const unsigned int port = hvtest::freeUdpPort();
    HvHandle<HvDatagramSocket> replacement(new HvDatagramSocket(port, hvtest::loopback(), false, 1024));
    instance->setDatagramSocket(replacement.get());
    EXPECT_EQ(replacement.get(), instance->getDatagramSocket().get());
    EXPECT_EQ(-1, old->getDescriptor());

    // Null is ignored.
    instance->setDatagramSocket(nullptr);
    EXPECT_EQ(replacement.get(), instance->getDatagramSocket().get());
    // The socket it holds, given again, stays open.
    instance->setDatagramSocket(replacement.get());
    EXPECT_NE(-1, replacement->getDescriptor());

    HvHandle<HvDatagramPacket> after = packetTo(peer.port(), "after");
    post(after.get());
    unsigned int senderPort = 0;
    ASSERT_TRUE(peer.receive(text, &senderPort));
    EXPECT_EQ("after", text);
    EXPECT_EQ(port, senderPort);
    ASSERT_TRUE(released(after.get()));
}

TEST(HvUDPODispatcherTest, ZeroLengthAndLargestDatagramsAreSent)
{
    hvtest::RawUdpSocket peer;
    int size = 1 << 20;
    setsockopt(peer.descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    HvHandle<HvDatagramPacket> empty = packetTo(peer.port(), "");
    std::string large(65507, 'L');
    for (std::size_t index = 0; index < large.size(); index += 97)
        large[index] = static_cast<char>('0' + index % 10);
    HvHandle<HvDatagramPacket> largest = packetTo(peer.port(), large);
    post(empty.get());
    post(largest.get());
    std::string text = "not received";
    ASSERT_TRUE(peer.receive(text));
    EXPECT_EQ("", text);
    ASSERT_TRUE(peer.receive(text));
    EXPECT_EQ(65507u, text.size());
    EXPECT_TRUE(text == large);
}

TEST(HvUDPODispatcherTest, EventsWithoutAPacketSendNothing)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvObject> notAPacket(new HvObject);
    post(notAPacket.get());
    post(nullptr);
    HvHandle<HvDatagramPacket> viaStreamEvent = packetTo(peer.port(), "wrong event");
    HvUDPODispatcher::sAddEvent(new HvTCPEvent(nullptr, viaStreamEvent.get()));
    HvUDPODispatcher::getInstance()->process(nullptr);
    HvHandle<HvDatagramPacket> marker = packetTo(peer.port(), "marker");
    post(marker.get());
    std::string text;
    ASSERT_TRUE(peer.receive(text));
    EXPECT_EQ("marker", text);
    ASSERT_TRUE(released(marker.get()));
    EXPECT_TRUE(released(viaStreamEvent.get()));
    EXPECT_FALSE(hvtest::waitReady(peer.descriptor(), POLLIN, 0));
}

TEST(HvUDPODispatcherTest, PacketsFromManyProducersAllGoOut)
{
    hvtest::RawUdpSocket peer;
    int size = 1 << 20;
    setsockopt(peer.descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    const int producers = 4;
    const int perProducer = 50;
    std::set<std::string> received;
    std::thread reader([&] {
        std::string text;
        while (received.size() < static_cast<std::size_t>(producers * perProducer) &&
               peer.receive(text))
            received.insert(text);
    });
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            for (int number = 0; number < perProducer; ++number) {
                HvHandle<HvDatagramPacket> packet =
                    packetTo(peer.port(), std::to_string(producer) + ":" + std::to_string(number));
                HvUDPODispatcher::getInstance()->getEventQueue()->addItem(new HvUDPEvent(nullptr, packet.get()));
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    reader.join();
    EXPECT_EQ(static_cast<std::size_t>(producers * perProducer), received.size());
}

TEST(HvUDPODispatcherTest, EndedInstanceClosesItsSocketAndForgetsItself)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramPacket> packet = packetTo(peer.port(), "last");
    post(packet.get());
    std::string text;
    ASSERT_TRUE(peer.receive(text));
    ASSERT_TRUE(released(packet.get()));
    HvHandle<HvDatagramSocket> shared = HvUDPODispatcher::getInstance()->getDatagramSocket();
    ASSERT_FALSE(shared.isNull());

    HvUDPODispatcher::getInstance()->terminate();
    installedHook()();
    ASSERT_TRUE(hvtest::waitUntil([] { return hvtest::liveCount("HvUDPODispatcher") == 0; }));
    EXPECT_EQ(nullptr, HvUDPODispatcher::getUDPEventQueue());
    EXPECT_EQ(-1, shared->getDescriptor());

    // A later packet makes a new dispatcher, with a socket of its own.
    HvHandle<HvDatagramPacket> again = packetTo(peer.port(), "again");
    post(again.get());
    ASSERT_TRUE(peer.receive(text));
    EXPECT_EQ("again", text);
    ASSERT_TRUE(released(again.get()));
    EXPECT_NE(shared.get(), HvUDPODispatcher::getInstance()->getDatagramSocket().get());
}

} // namespace
