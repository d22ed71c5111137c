#include <HvUtil/HvDatagramSocket.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvUDPIDispatcher.h>

#include <Velmora/LogCapture.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

const char kLogger[] = "ferrowind.hv.HvDatagramSocket";

// What a socket's observer is handed, from whatever thread hands it.
class Collector : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sources.push_back(source.get());
        m_objects.push_back(object);
        m_threads.push_back(pthread_self());
    }

    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_objects.size();
    }
    HvHandle<HvObject> object(std::size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return index < m_objects.size() ? m_objects[index] : HvHandle<HvObject>();
    }
    const HvObservable* source(std::size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return index < m_sources.size() ? m_sources[index] : nullptr;
    }
    pthread_t thread(std::size_t index)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_threads.at(index);
    }

private:
    std::mutex m_mutex;
    std::vector<const HvObservable*> m_sources;
    std::vector<HvHandle<HvObject>> m_objects;
    std::vector<pthread_t> m_threads;
};

// A socket bound to 127.0.0.1 on a port of its own.
HvHandle<HvDatagramSocket> boundSocket(unsigned int bufferSize = 65536)
{
    return HvHandle<HvDatagramSocket>(new HvDatagramSocket(hvtest::freeUdpPort(), hvtest::loopback(), false, bufferSize));
}

HvHandle<HvDatagramPacket> packetTo(unsigned int port, const std::string& text)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    return HvHandle<HvDatagramPacket>(
        new HvDatagramPacket(bytes.get(), 0, static_cast<unsigned int>(text.size()), hvtest::loopback(), port));
}

std::string bytesOf(const HvDatagramPacket& packet)
{
    HvHandle<HvByteArray> data = packet.getData();
    if (data.isNull())
        return std::string();
    return std::string(reinterpret_cast<const char*>(data->getData()) + packet.getOffset(), packet.getLength());
}

std::string pattern(std::size_t size)
{
    std::string text(size, '\0');
    for (std::size_t index = 0; index < size; ++index)
        text[index] = static_cast<char>('a' + index % 26 + (index / 26) % 7);
    return text;
}

// Writes refuse the first byte handed to them (an HvException), then accept
// and drop everything.
class RefusingOutput : public HvOutputStream {
public:
    void write(int) override { refuseOnce(); }
    void write(const void*, unsigned int, unsigned int) override { refuseOnce(); }

private:
    void refuseOnce()
    {
        if (!m_refused.exchange(true))
            HvException::sThrow("output refused");
    }
    std::atomic<bool> m_refused{false};
};

// Installs, for its lifetime, a default error stream over `target` that
// writes traffic (level 6).
class TrafficStreamScope {
public:
    explicit TrafficStreamScope(HvOutputStream* target) : m_stream(new HvErrorStream(target))
    {
        m_stream->setLevel(6);
        m_previous = HvErrorStream::sSetDefault(m_stream.get());
    }
    ~TrafficStreamScope() { HvErrorStream::sSetDefault(m_previous); }
    TrafficStreamScope(const TrafficStreamScope&) = delete;
    TrafficStreamScope& operator=(const TrafficStreamScope&) = delete;

private:
    HvHandle<HvErrorStream> m_stream;
    HvErrorStream* m_previous = nullptr;
};

// Bound first; then its descriptor is connected to the peer by connect(),
// which throws on Linux after the system connect; it then counts itself
// connected, as a platform that accepts the call would leave it.
class PeerConnectedSocket : public HvDatagramSocket {
public:
    PeerConnectedSocket(unsigned int port, unsigned int peerPort)
        : HvDatagramSocket(port, hvtest::loopback(), false, 1024)
    {
        connectFailure = hvtest::messageOf([&] { connect(hvtest::loopback(), peerPort); });
        setConnected(true);
    }
    std::string connectFailure;
};

const Velmora::LogRecord* findRecord(const std::vector<Velmora::LogRecord>& records, const std::string& message)
{
    for (const Velmora::LogRecord& record : records) {
        if (record.message == message)
            return &record;
    }
    return nullptr;
}

// Checks that `socket` queued nothing for `collector`: a datagram received
// by another socket goes through the input dispatcher after anything
// `socket` queued, and once it has arrived, every event has been taken and
// every pool worker is idle, `collector` holds all that was queued for it.
void expectNothingQueuedFor(HvDatagramSocket* socket, Collector& collector)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> fence = boundSocket(64);
    HvHandle<Collector> fenceCollector(new Collector);
    fence->attachObserver(fenceCollector.get());
    ASSERT_TRUE(peer.sendTo(fence->getLocalPort(), "fence"));
    EXPECT_TRUE(fence->block());
    ASSERT_TRUE(hvtest::waitUntil([&] {
        return fenceCollector->count() == 1 && hvtest::liveCount("HvUDPEvent") == 0 &&
               HvUDPIDispatcher::getInstance()->getThreadPool().getBusyCount() == 0;
    }));
    EXPECT_EQ(0u, collector.count()) << "queued for " << socket;
    fence->close();
    fenceCollector->detach();
}

TEST(HvDatagramSocketTest, BindsToTheGivenPortAndAddressAndRegistersItself)
{
    const unsigned int port = hvtest::freeUdpPort();
    HvHandle<HvDatagramSocket> socket(new HvDatagramSocket(port, hvtest::loopback(), false, 2048));
    ASSERT_NE(-1, socket->getDescriptor());
    EXPECT_EQ(port, socket->getLocalPort());
    EXPECT_EQ(port, hvtest::localPortOf(socket->getDescriptor()));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), socket->getLocalAddress().getAddress());
    EXPECT_FALSE(socket->isConnected());
    EXPECT_EQ(2048u, socket->getBufferSize());
    EXPECT_EQ(socket.get(), HvSocketFactory::sFromHandle(socket->getDescriptor()).get());
    int type = 0;
    socklen_t length = sizeof type;
    ASSERT_EQ(0, getsockopt(socket->getDescriptor(), SOL_SOCKET, SO_TYPE, &type, &length));
    EXPECT_EQ(SOCK_DGRAM, type);
    socket->close();
}

TEST(HvDatagramSocketTest, BindingToPortZeroLeavesTheLocalPortZero)
{
    HvHandle<HvDatagramSocket> socket(new HvDatagramSocket(0, HvInetAddress(), false, 512));
    EXPECT_EQ(0u, socket->getLocalPort());
    EXPECT_NE(0u, hvtest::localPortOf(socket->getDescriptor()));
    socket->close();
}

TEST(HvDatagramSocketTest, BindingAPortInUseThrowsBind)
{
    hvtest::RawUdpSocket taken;
    HvHandle<HvException> e =
        hvtest::thrownBy([&] { HvHandle<HvDatagramSocket>(new HvDatagramSocket(taken.port(), hvtest::loopback(), false, 512)); });
    ASSERT_FALSE(e.isNull());
    EXPECT_STREQ("HvSocketError", e->getClassName());
    EXPECT_STREQ("bind", e->getMessage().c_str());
}

TEST(HvDatagramSocketTest, ConnectFlagThrowsBecauseLinuxRefusesTcpNoDelayOnDatagramSockets)
{
    hvtest::RawUdpSocket peer;
    const int descriptors = hvtest::openDescriptorCount();
    HvHandle<HvException> e = hvtest::thrownBy([&] { new HvDatagramSocket(peer.port(), hvtest::loopback(), true, 512); });
    ASSERT_FALSE(e.isNull());
    EXPECT_STREQ("HvSocketError", e->getClassName());
    EXPECT_STREQ("HvSocketImpl::setsockopt(...)", e->getMessage().c_str());
    // The half-made socket is freed with its descriptor.
    EXPECT_EQ(descriptors, hvtest::openDescriptorCount());
}

TEST(HvDatagramSocketTest, ConnectMakesTheSystemConnectionButLeavesTheSocketUnconnected)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket();
    EXPECT_EQ("HvSocketImpl::setsockopt(...)", hvtest::messageOf([&] { socket->connect(hvtest::loopback(), peer.port()); }));
    EXPECT_FALSE(socket->isConnected());
    EXPECT_EQ(peer.port(), hvtest::peerPortOf(socket->getDescriptor()));
    // Not connected here, so a packet to the peer goes through sendTo.
    hvtest::DebugOutputCapture traffic;
    traffic.stream().setLevel(6);
    EXPECT_EQ(0, socket->send(packetTo(peer.port(), "to peer").get()));
    EXPECT_EQ("to peer", peer.receive());
    EXPECT_EQ("UDP Sending 7 bytes to 127.0.0.1:" + std::to_string(peer.port()) + "to peer", traffic.text());
    socket->close();
}

TEST(HvDatagramSocketTest, UnconnectedSendGoesThroughSendToAndReturnsZero)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket();
    hvtest::DebugOutputCapture traffic;
    traffic.stream().setLevel(6);
    EXPECT_EQ(0, socket->send(packetTo(peer.port(), "hello").get()));
    unsigned int senderPort = 0;
    EXPECT_EQ("hello", peer.receive(&senderPort));
    EXPECT_EQ(socket->getLocalPort(), senderPort);
    EXPECT_EQ("UDP Sending 5 bytes to 127.0.0.1:" + std::to_string(peer.port()) + "hello", traffic.text());
    socket->close();
}

TEST(HvDatagramSocketTest, SendTakesTheLengthBytesFromTheOffset)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket();
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate("abcdefg");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(bytes.get(), 2, 3, hvtest::loopback(), peer.port()));
    socket->send(packet.get());
    EXPECT_EQ("cde", peer.receive());
    socket->close();
}

TEST(HvDatagramSocketTest, ConnectedSocketSendingToItsPeerUsesSend)
{
    hvtest::RawUdpSocket peer;
    HvHandle<PeerConnectedSocket> socket(new PeerConnectedSocket(hvtest::freeUdpPort(), peer.port()));
    EXPECT_EQ("HvSocketImpl::setsockopt(...)", socket->connectFailure);
    ASSERT_TRUE(socket->isConnected());
    hvtest::DebugOutputCapture traffic;
    traffic.stream().setLevel(6);
    EXPECT_EQ(5, socket->send(packetTo(peer.port(), "hello").get()));
    EXPECT_EQ("hello", peer.receive());
    EXPECT_EQ("\n================TCP Sent 5 bytes Host: 127.0.0.1:" + std::to_string(peer.port()) +
                  "================\n\nhello================================================\n\n",
              traffic.text());
    socket->close();
}

TEST(HvDatagramSocketTest, ConnectedSocketSendsAPacketAddressedElsewhereThroughSendTo)
{
    hvtest::RawUdpSocket peer;
    hvtest::RawUdpSocket elsewhere;
    HvHandle<PeerConnectedSocket> socket(new PeerConnectedSocket(hvtest::freeUdpPort(), peer.port()));
    ASSERT_TRUE(socket->isConnected());
    hvtest::DebugOutputCapture traffic;
    traffic.stream().setLevel(6);
    EXPECT_EQ(0, socket->send(packetTo(elsewhere.port(), "other").get()));
    EXPECT_EQ("other", elsewhere.receive());
    EXPECT_EQ("UDP Sending 5 bytes to 127.0.0.1:" + std::to_string(elsewhere.port()) + "other", traffic.text());
    socket->close();
}

TEST(HvDatagramSocketTest, ZeroLengthDatagramIsSent)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket();
    HvHandle<HvDatagramPacket> empty(new HvDatagramPacket(HvByteArray::sCreate(0, nullptr).get(), 0, 0,
                                                          hvtest::loopback(), peer.port()));
    EXPECT_EQ(0u, empty->getLength());
    socket->send(empty.get());
    std::string text = "not received";
    ASSERT_TRUE(peer.receive(text));
    EXPECT_EQ("", text);
    socket->close();
}

TEST(HvDatagramSocketTest, LargestDatagramIsSentWhole)
{
    hvtest::RawUdpSocket peer;
    int size = 1 << 20;
    setsockopt(peer.descriptor(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    HvHandle<HvDatagramSocket> socket = boundSocket();
    const std::string text = pattern(65507);
    socket->send(packetTo(peer.port(), text).get());
    std::string received;
    ASSERT_TRUE(peer.receive(received));
    EXPECT_EQ(65507u, received.size());
    EXPECT_TRUE(received == text);
    socket->close();
}

TEST(HvDatagramSocketTest, NullPacketIsNeitherSentNorReceived)
{
    HvHandle<HvDatagramSocket> socket = boundSocket();
    EXPECT_EQ(-1, socket->send(nullptr));
    EXPECT_EQ(-1, socket->receive(nullptr));
    socket->close();
}

TEST(HvDatagramSocketTest, ReceiveStoresTheSenderAndTheLength)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket();
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "datagram"));
    HvHandle<HvByteArray> buffer = HvByteArray::sCreate(64, nullptr);
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(buffer.get(), 4, 0));
    EXPECT_EQ(8, socket->receive(packet.get()));
    EXPECT_EQ(8u, packet->getLength());
    EXPECT_EQ(4u, packet->getOffset());
    EXPECT_EQ("datagram", bytesOf(*packet));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), packet->getAddress().getAddress());
    EXPECT_EQ(peer.port(), packet->getPort());
    socket->close();
}

TEST(HvDatagramSocketTest, ReceiveCutsADatagramLongerThanThePacketLength)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket();
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "0123456789abcdef"));
    HvHandle<HvByteArray> buffer = HvByteArray::sCreate("................");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(buffer.get(), 2, 5));
    EXPECT_EQ(5, socket->receive(packet.get()));
    EXPECT_EQ("01234", bytesOf(*packet));
    EXPECT_EQ("..01234.........", std::string(reinterpret_cast<const char*>(buffer->getData()), buffer->getSize()));
    socket->close();
}

TEST(HvDatagramSocketTest, FailedReceiveLeavesLengthMinusOne)
{
    HvHandle<HvDatagramSocket> socket = boundSocket();
    socket->close();
    HvHandle<HvByteArray> buffer = HvByteArray::sCreate(8, nullptr);
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(buffer.get(), 0, 0, hvtest::loopback(), 9));
    EXPECT_EQ(-1, socket->receive(packet.get()));
    EXPECT_EQ(4294967295u, packet->getLength());
    // The endpoints are left as they were.
    EXPECT_EQ(9u, packet->getPort());
}

TEST(HvDatagramSocketTest, PacketLeftAtMinusOneNeverSendsOrReceivesPastItsBuffer)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> closed = boundSocket();
    closed->close();
    HvHandle<HvByteArray> buffer = HvByteArray::sCreate("wxyz");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(buffer.get(), 1, 0, hvtest::loopback(), peer.port()));
    ASSERT_EQ(-1, closed->receive(packet.get()));
    ASSERT_EQ(4294967295u, packet->getLength());

    HvHandle<HvDatagramSocket> socket = boundSocket();
    socket->send(packet.get());
    EXPECT_EQ("xyz", peer.receive());

    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "a datagram far longer than the buffer"));
    ASSERT_EQ(-1, closed->receive(packet.get()));
    EXPECT_EQ(3, socket->receive(packet.get()));
    EXPECT_EQ("wa d", std::string(reinterpret_cast<const char*>(buffer->getData()), buffer->getSize()));
    socket->close();
}

TEST(HvDatagramSocketTest, BlockQueuesACopyOfTheDatagramForTheObserverOnAPoolThread)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket(1024);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "INVITE"));
    EXPECT_TRUE(socket->block());
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->count() == 1; }));
    EXPECT_EQ(socket.get(), collector->source(0));
    EXPECT_FALSE(pthread_equal(pthread_self(), collector->thread(0)));
    HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(collector->object(0).get());
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ("INVITE", bytesOf(*packet));
    EXPECT_EQ(0u, packet->getOffset());
    EXPECT_EQ(6u, packet->getData()->getSize());
    EXPECT_EQ(htonl(INADDR_LOOPBACK), packet->getAddress().getAddress());
    EXPECT_EQ(peer.port(), packet->getPort());
    EXPECT_EQ(socket->getLocalAddress().getAddress(), packet->getLocalAddress().getAddress());
    EXPECT_EQ(socket->getLocalPort(), packet->getLocalPort());

    // The next datagram reuses the receive buffer; the first packet keeps its bytes.
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "BYE"));
    EXPECT_TRUE(socket->block());
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->count() == 2; }));
    EXPECT_EQ("INVITE", bytesOf(*packet));
    HvDatagramPacket* second = dynamic_cast<HvDatagramPacket*>(collector->object(1).get());
    ASSERT_NE(nullptr, second);
    EXPECT_EQ("BYE", bytesOf(*second));
    EXPECT_NE(packet->getData().get(), second->getData().get());
    socket->close();
    collector->detach();
}

TEST(HvDatagramSocketTest, BlockQueuesAZeroLengthDatagram)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket(1024);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), ""));
    EXPECT_TRUE(socket->block());
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->count() == 1; }));
    HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(collector->object(0).get());
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ(0u, packet->getLength());
    ASSERT_FALSE(packet->getData().isNull());
    EXPECT_EQ(0u, packet->getData()->getSize());
    EXPECT_EQ(peer.port(), packet->getPort());
    socket->close();
    collector->detach();
}

TEST(HvDatagramSocketTest, BlockCutsADatagramLongerThanTheBufferSize)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket(16);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    const std::string text = pattern(100);
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), text));
    EXPECT_TRUE(socket->block());
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->count() == 1; }));
    HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(collector->object(0).get());
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ(16u, packet->getLength());
    EXPECT_EQ(16u, packet->getData()->getSize());
    EXPECT_EQ(text.substr(0, 16), bytesOf(*packet));
    socket->close();
    collector->detach();
}

TEST(HvDatagramSocketTest, BlockTakesTheLargestDatagramWhole)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket(65507);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    const std::string text = pattern(65507);
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), text));
    EXPECT_TRUE(socket->block());
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->count() == 1; }));
    HvDatagramPacket* packet = dynamic_cast<HvDatagramPacket*>(collector->object(0).get());
    ASSERT_NE(nullptr, packet);
    EXPECT_EQ(65507u, packet->getLength());
    EXPECT_TRUE(bytesOf(*packet) == text);
    socket->close();
    collector->detach();
}

TEST(HvDatagramSocketTest, BlockLogsTheSocketAndItsLocalEndpoint)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket(64);
    Velmora::LogCapture log(kLogger);
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "x"));
    EXPECT_TRUE(socket->block());
    const std::string expected = "HvDatagramSocket::block : this=0x" + hvtest::hexAddress(socket.get()) +
                                 ", local_addr=127.0.0.1, local_port=" + std::to_string(socket->getLocalPort());
    std::vector<Velmora::LogRecord> records = log.records();
    const Velmora::LogRecord* record = findRecord(records, expected);
    ASSERT_NE(nullptr, record) << "missing: " << expected;
    EXPECT_EQ(10000, record->level);
    EXPECT_EQ("HvDatagramSocket", record->file);
    EXPECT_EQ(86, record->line);
    EXPECT_TRUE(log.contains("ENTER: HvDatagramSocket::block"));
    EXPECT_TRUE(log.contains("EXIT:  HvDatagramSocket::block"));
    socket->close();
}

TEST(HvDatagramSocketTest, BlockOnAClosedSocketLogsRecvfromFailureQueuesNothingAndReturnsFalse)
{
    HvHandle<HvDatagramSocket> socket = boundSocket(64);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    socket->close();
    Velmora::LogCapture log(kLogger);
    EXPECT_FALSE(socket->block());
    std::vector<Velmora::LogRecord> records = log.records();
    const Velmora::LogRecord* record = findRecord(records, "HvDatagramSocket::block : recvfrom failure");
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(10000, record->level);
    EXPECT_EQ("HvDatagramSocket", record->file);
    EXPECT_EQ(103, record->line);
    expectNothingQueuedFor(socket.get(), *collector);
    collector->detach();
}

TEST(HvDatagramSocketTest, FailedReceiveOnAnOpenSocketReturnsTrue)
{
    // A connected datagram socket whose peer port is closed: the system
    // reports the refusal on the next receive, and the socket stays open.
    const unsigned int closedPort = hvtest::freeUdpPort();
    HvHandle<PeerConnectedSocket> socket(new PeerConnectedSocket(hvtest::freeUdpPort(), closedPort));
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    socket->send(packetTo(closedPort, "anyone?").get());
    ASSERT_TRUE(hvtest::waitReady(socket->getDescriptor(), POLLERR));
    Velmora::LogCapture log(kLogger);
    EXPECT_TRUE(socket->block());
    EXPECT_TRUE(log.contains("HvDatagramSocket::block : recvfrom failure"));
    EXPECT_NE(-1, socket->getDescriptor());
    expectNothingQueuedFor(socket.get(), *collector);
    socket->close();
    collector->detach();
}

TEST(HvDatagramSocketTest, ExceptionWhileReceivingClosesTheSocketAndIsQueuedInsteadOfAPacket)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvDatagramSocket> socket = boundSocket(64);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    ASSERT_TRUE(peer.sendTo(socket->getLocalPort(), "hello"));
    Velmora::LogCapture log(kLogger);
    {
        // The traffic copy of the receive fails.
        RefusingOutput refusing;
        TrafficStreamScope traffic(&refusing);
        EXPECT_TRUE(socket->block());
    }
    EXPECT_EQ(-1, socket->getDescriptor());
    std::vector<Velmora::LogRecord> records = log.records();
    const Velmora::LogRecord* record = findRecord(records, "HvDatagramSocket::block : output refused");
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(40000, record->level);
    ASSERT_TRUE(hvtest::waitUntil([&] { return collector->count() == 1; }));
    EXPECT_EQ(socket.get(), collector->source(0));
    HvException* e = dynamic_cast<HvException*>(collector->object(0).get());
    ASSERT_NE(nullptr, e);
    EXPECT_STREQ("output refused", e->getMessage().c_str());
    collector->detach();
}

TEST(HvDatagramSocketTest, OnNotificationRelaysToTheObserver)
{
    HvHandle<HvDatagramSocket> socket = boundSocket(64);
    HvHandle<Collector> collector(new Collector);
    socket->attachObserver(collector.get());
    HvHandle<HvObject> object(new HvObject);
    socket->onNotification(HvHandle<HvObservable>(), object);
    ASSERT_EQ(1u, collector->count());
    EXPECT_EQ(socket.get(), collector->source(0));
    EXPECT_EQ(object.get(), collector->object(0).get());
    socket->close();
    collector->detach();
}

} // namespace
