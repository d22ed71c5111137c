#include <HvUtil/HvTCPODispatcher.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvTCPEvent.h>
#include <HvUtil/HvUDPEvent.h>

#include <Velmora/Singleton.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// A library client socket connected to a raw peer on the loopback.
struct Connection {
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> socket;
    hvtest::Descriptor peer;

    Connection()
    {
        socket = HvHandle<HvClientSocket>(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
        peer = listener.accept();
        EXPECT_TRUE(peer.valid());
    }
    ~Connection()
    {
        if (!socket.isNull())
            socket->close();
    }
};

HvHandle<HvByteArray> arrayOf(const std::string& text)
{
    return HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
}

std::string pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t index = 0; index < size; ++index)
        text[index] = static_cast<char>('a' + (index * 7 + index / 251) % 26);
    return text;
}

void post(HvObject* socket, HvObject* argument)
{
    HvTCPODispatcher::getInstance()->getEventQueue()->addItem(new HvTCPEvent(socket, argument));
}

// True once the dispatcher has let go of the array (the caller holding the
// only other reference): its event has been processed and deleted. Taking
// the count synchronises with the dispatcher's release of it.
bool released(const HvHandle<HvByteArray>& array)
{
    return hvtest::waitUntil([&] { return array->getRefCount() == 1; });
}

// Reads `count` bytes in pieces of at most `piece`, pausing between pieces.
std::string readSlowly(int descriptor, std::size_t count, std::size_t piece)
{
    std::string result;
    std::vector<char> buffer(piece);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (result.size() < count && std::chrono::steady_clock::now() < deadline) {
        if (!hvtest::waitReady(descriptor, POLLIN, 1000))
            continue;
        ssize_t got = ::recv(descriptor, buffer.data(), std::min(piece, count - result.size()), 0);
        if (got <= 0)
            break;
        result.append(buffer.data(), static_cast<std::size_t>(got));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return result;
}

// Must stay the first test: no instance exists yet.
TEST(HvTCPODispatcherTest, ShutdownHookIsInstalledAndDoesNothingWithoutAnInstance)
{
    ASSERT_EQ(nullptr, HvTCPODispatcher::sFind());
    HvThread::ShutdownHookFunction hook =
        HvThread::sSetShutdownHook(HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE, nullptr);
    HvThread::sSetShutdownHook(HvThread::WAKE_TCP_OUTPUT_DISPATCHER_QUEUE, hook);
    ASSERT_NE(nullptr, hook);
    hook();
    EXPECT_EQ(nullptr, HvTCPODispatcher::sFind());
    EXPECT_EQ(nullptr, Velmora::SingletonRegistry::instance().find("HvTCPODispatcher"));
}

TEST(HvTCPODispatcherTest, GetInstanceMakesOneStartedDispatcherForEveryThread)
{
    HvTCPODispatcher* instance = HvTCPODispatcher::getInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, HvTCPODispatcher::getInstance());
    EXPECT_EQ(instance, HvTCPODispatcher::sFind());
    EXPECT_EQ(static_cast<HvDispatcherThread*>(instance),
              Velmora::SingletonRegistry::instance().find("HvTCPODispatcher"));
    std::vector<HvTCPODispatcher*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < seen.size(); ++index)
        threads.emplace_back([&seen, index] { seen[index] = HvTCPODispatcher::getInstance(); });
    for (std::thread& thread : threads)
        thread.join();
    for (HvTCPODispatcher* other : seen)
        EXPECT_EQ(instance, other);

    ASSERT_TRUE(hvtest::waitUntil([&] { return instance->getState() == HvThread::RUNNING; }));
    EXPECT_EQ(instance, HvThread::sGetByToken(instance->getToken()));
    EXPECT_EQ(0, instance->getThreadPool().getMaxThreads());
    EXPECT_EQ(instance, instance->getThreadPool().getThread());
    EXPECT_EQ(HvEventQueue::LOCKED, instance->getEventQueue()->getPolicy());
    EXPECT_EQ(1, hvtest::liveCount("HvTCPODispatcher"));
    // Its own reference, its thread's and the thread table's.
    EXPECT_EQ(3, instance->getRefCount());
}

TEST(HvTCPODispatcherTest, ThreadThatHasAskedOnceNoLongerTakesTheNamedMutex)
{
    HvTCPODispatcher* instance = HvTCPODispatcher::getInstance();
    std::atomic<int> step{0};
    std::atomic<HvTCPODispatcher*> cached{nullptr};
    std::thread asker([&] {
        HvTCPODispatcher::getInstance();
        step = 1;
        while (step.load() != 2)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        cached = HvTCPODispatcher::getInstance();
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return step.load() == 1; }));

    std::atomic<HvTCPODispatcher*> fresh{nullptr};
    std::recursive_mutex& named = Velmora::OnDemandSingletonNoT::sGetMutex("HvTCPODispatcher");
    std::thread newcomer;
    {
        std::lock_guard<std::recursive_mutex> hold(named);
        step = 2;
        EXPECT_TRUE(hvtest::waitUntil([&] { return cached.load() != nullptr; }));
        newcomer = std::thread([&] { fresh = HvTCPODispatcher::getInstance(); });
        // A thread without a cached pointer goes to the registry under the mutex.
        EXPECT_FALSE(hvtest::waitUntil([&] { return fresh.load() != nullptr; }, hvtest::kHoldWindow));
    }
    asker.join();
    newcomer.join();
    EXPECT_EQ(instance, cached.load());
    EXPECT_EQ(instance, fresh.load());
}

TEST(HvTCPODispatcherTest, WritesA4MBArrayCompletelyAndInOrderToASlowReader)
{
    Connection connection;
    const std::string text = pattern(4 * 1024 * 1024);
    HvHandle<HvByteArray> array = arrayOf(text);
    post(connection.socket.get(), array.get());
    const std::string received = readSlowly(connection.peer.get(), text.size(), 4096);
    ASSERT_EQ(text.size(), received.size());
    EXPECT_TRUE(received == text);
    EXPECT_TRUE(released(array));
    EXPECT_NE(-1, connection.socket->getDescriptor());
}

TEST(HvTCPODispatcherTest, PartialSendsAreFollowedBySendsOfTheRestFromTheNewOffset)
{
    Connection connection;
    // A send that cannot place everything within the time-out returns what
    // it placed: the dispatcher sees partial sends.
    timeval limit{0, 100 * 1000};
    ASSERT_EQ(0, setsockopt(connection.socket->getDescriptor(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit));
    const std::string text = pattern(4 * 1024 * 1024);
    HvHandle<HvByteArray> array = arrayOf(text);
    std::string traffic;
    {
        hvtest::DebugOutputCapture capture;
        capture.stream().setLevel(6);
        post(connection.socket.get(), array.get());
        const std::string received = readSlowly(connection.peer.get(), text.size(), 4096);
        ASSERT_TRUE(released(array));
        ASSERT_EQ(text.size(), received.size());
        EXPECT_TRUE(received == text);
        traffic = capture.text();
    }
    std::regex banner("================TCP Sent ([0-9]+) bytes Host: 127\\.0\\.0\\.1:" +
                      std::to_string(connection.listener.port()) + "================");
    std::size_t sends = 0;
    std::size_t total = 0;
    for (std::sregex_iterator it(traffic.begin(), traffic.end(), banner), end; it != end; ++it) {
        ++sends;
        total += std::stoul((*it)[1].str());
    }
    EXPECT_LT(1u, sends) << "no partial send happened";
    EXPECT_EQ(text.size(), total);
}

TEST(HvTCPODispatcherTest, EmptyArraySendsNothing)
{
    Connection connection;
    // A send on a reset connection fails and closes the socket, even for
    // zero bytes: a socket that stays open was never sent to.
    hvtest::resetConnection(connection.peer);
    HvHandle<HvByteArray> empty = HvByteArray::sCreate(0, nullptr);
    post(connection.socket.get(), empty.get());
    ASSERT_TRUE(released(empty));
    EXPECT_NE(-1, connection.socket->getDescriptor());

    HvHandle<HvByteArray> some = arrayOf("x");
    post(connection.socket.get(), some.get());
    ASSERT_TRUE(released(some));
    EXPECT_EQ(-1, connection.socket->getDescriptor());
}

TEST(HvTCPODispatcherTest, FailedSendAbandonsTheRestWhileOtherSocketsGoOn)
{
    Connection failing;
    Connection other;
    hvtest::resetConnection(failing.peer);
    HvHandle<HvByteArray> big = arrayOf(pattern(1024 * 1024));
    HvHandle<HvByteArray> after = arrayOf("still delivered");
    post(failing.socket.get(), big.get());
    post(other.socket.get(), after.get());
    EXPECT_EQ("still delivered", hvtest::readExactly(other.peer.get(), 15));
    ASSERT_TRUE(released(big));
    ASSERT_TRUE(released(after));
    // The failed send closed its socket.
    EXPECT_EQ(-1, failing.socket->getDescriptor());
    EXPECT_NE(-1, other.socket->getDescriptor());
}

TEST(HvTCPODispatcherTest, PeerThatResetsInTheMiddleEndsTheWriteOfThatArrayOnly)
{
    Connection failing;
    Connection other;
    const std::string text = pattern(4 * 1024 * 1024);
    HvHandle<HvByteArray> big = arrayOf(text);
    HvHandle<HvByteArray> after = arrayOf("next in line");
    post(failing.socket.get(), big.get());
    post(other.socket.get(), after.get());
    // Part of the array arrives, in order; then the peer goes away.
    const std::string start = hvtest::readExactly(failing.peer.get(), 65536);
    ASSERT_EQ(65536u, start.size());
    EXPECT_TRUE(start == text.substr(0, 65536));
    hvtest::resetConnection(failing.peer);
    EXPECT_EQ("next in line", hvtest::readExactly(other.peer.get(), 12));
    ASSERT_TRUE(released(big));
    EXPECT_EQ(-1, failing.socket->getDescriptor());
}

TEST(HvTCPODispatcherTest, EventOfAnotherTypeRaisesTheDownCastAssertionAndIsDropped)
{
    hvtest::AssertionScope assertions;
    Connection connection;
    HvHandle<HvByteArray> array = arrayOf("not through a datagram event");
    HvTCPODispatcher::getInstance()->getEventQueue()->addItem(new HvUDPEvent(nullptr, array.get()));
    ASSERT_TRUE(released(array));
    ASSERT_EQ(1u, hvtest::assertionCount());
    hvtest::expectAssertion(hvtest::lastAssertion(), "VELMORA_DYNCAST_ASSERT(HvTCPEvent, pEvent) != 0",
                            "HvTCPODispatcher", 70);
    // The dispatcher goes on.
    HvHandle<HvByteArray> next = arrayOf("next");
    post(connection.socket.get(), next.get());
    EXPECT_EQ("next", hvtest::readExactly(connection.peer.get(), 4));
}

TEST(HvTCPODispatcherTest, NullEventRaisesTheDownCastAssertion)
{
    hvtest::AssertionScope assertions;
    HvTCPODispatcher::getInstance()->process(nullptr);
    ASSERT_EQ(1u, hvtest::assertionCount());
    hvtest::expectAssertion(hvtest::lastAssertion(), "VELMORA_DYNCAST_ASSERT(HvTCPEvent, pEvent) != 0",
                            "HvTCPODispatcher", 70);
}

TEST(HvTCPODispatcherTest, EventWithoutAClientSocketOrWithoutAnArraySendsNothing)
{
    hvtest::AssertionScope assertions;
    Connection connection;
    HvHandle<HvByteArray> array = arrayOf("lost");
    HvHandle<HvObject> notASocket(new HvObject);
    HvHandle<HvObject> notAnArray(new HvObject);
    post(notASocket.get(), array.get());
    post(connection.socket.get(), notAnArray.get());
    post(nullptr, array.get());
    post(connection.socket.get(), nullptr);
    HvHandle<HvByteArray> marker = arrayOf("marker");
    post(connection.socket.get(), marker.get());
    EXPECT_EQ("marker", hvtest::readExactly(connection.peer.get(), 6));
    ASSERT_TRUE(released(array));
    EXPECT_EQ(0u, hvtest::assertionCount());
}

TEST(HvTCPODispatcherTest, ArraysFromManyProducersArriveWholeAndInEachProducersOrder)
{
    Connection connection;
    const int producers = 4;
    const int perProducer = 100;
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&, producer] {
            for (int number = 0; number < perProducer; ++number) {
                HvHandle<HvByteArray> array =
                    arrayOf("<" + std::to_string(producer) + ":" + std::to_string(number) + ">");
                post(connection.socket.get(), array.get());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::string all;
    std::regex item("<([0-9]+):([0-9]+)>");
    std::vector<int> next(producers, 0);
    int items = 0;
    while (items < producers * perProducer) {
        std::string piece = hvtest::readExactly(connection.peer.get(), 1);
        ASSERT_EQ(1u, piece.size());
        all += piece;
        if (piece == ">") {
            std::smatch match;
            const std::string last = all.substr(all.rfind('<'));
            ASSERT_TRUE(std::regex_match(last, match, item)) << last;
            const int producer = std::stoi(match[1].str());
            EXPECT_EQ(next[static_cast<std::size_t>(producer)], std::stoi(match[2].str()));
            next[static_cast<std::size_t>(producer)] = std::stoi(match[2].str()) + 1;
            ++items;
        }
    }
    for (int count : next)
        EXPECT_EQ(perProducer, count);
}

} // namespace
