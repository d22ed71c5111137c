#include <HvUtil/HvSocketImpl.h>

#include <HvUtil/HvSocketError.h>
#include <HvUtil/HvSocketFactory.h>

#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/resource.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

const char kRule[] = "================================================\n\n";

// What the traffic log writes for one transfer with the peer at 127.0.0.1:port.
std::string banner(const char* direction, const std::string& payload, unsigned int port)
{
    return "\n================TCP " + std::string(direction) + " " + std::to_string(payload.size()) +
           " bytes Host: 127.0.0.1:" + std::to_string(port) + "================\n\n" + payload + kRule;
}

std::string connectFailure(int error)
{
    return "HvSocketImpl::connect : failed to connect socket : errno=" + std::to_string(error) +
           " errmsg=" + std::strerror(error);
}

// Bytes queued for reading on a descriptor.
int bytesWaiting(int descriptor)
{
    int count = 0;
    if (ioctl(descriptor, FIONREAD, &count) != 0)
        return -1;
    return count;
}

int intOption(int descriptor, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof value;
    if (getsockopt(descriptor, level, name, &value, &length) != 0)
        return -1;
    return value;
}

// A library socket connected to a raw peer that the listener accepted.
struct Connection {
    hvtest::RawListener listener;
    HvHandle<HvSocketImpl> socket;
    hvtest::Descriptor peer;

    Connection() : socket(new HvSocketImpl)
    {
        socket->connect(hvtest::loopback(), listener.port(), true);
        peer = listener.accept();
        EXPECT_TRUE(peer.valid());
    }
};

// Closes the socket and takes its entry out of the registry, so that the
// object goes with its last handle.
void closeAndForget(HvSocketImpl* socket)
{
    int descriptor = socket->getDescriptor();
    socket->close();
    if (HvSocketFactory::sFromHandle(descriptor).get() == socket)
        HvSocketFactory::sRemoveHandle(descriptor);
}

} // namespace

// ---- construction ----

TEST(HvSocketImpl, DefaultConstructedHoldsNothing)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    EXPECT_EQ(-1, socket->getDescriptor());
    EXPECT_EQ(0u, socket->getLocalPort());
    EXPECT_EQ(0u, socket->getLocalAddress().getAddress());
    char buffer[4] = {0};
    EXPECT_EQ(-1, socket->send("abc", 3));
    EXPECT_EQ(-1, socket->receive(buffer, sizeof buffer));
}

TEST(HvSocketImpl, LocalEndConstructorStoresItAndCreatesNothing)
{
    int before = hvtest::openDescriptorCount();
    HvHandle<HvSocketImpl> socket(new HvSocketImpl(5060, hvtest::loopback()));
    EXPECT_EQ(-1, socket->getDescriptor());
    EXPECT_EQ(5060u, socket->getLocalPort());
    EXPECT_EQ(hvtest::loopback().getAddress(), socket->getLocalAddress().getAddress());
    EXPECT_EQ(before, hvtest::openDescriptorCount());
}

TEST(HvSocketImpl, AllocatedUnderItsClassTag)
{
    long before = hvtest::liveCount("HvSocketImpl");
    {
        HvHandle<HvSocketImpl> socket(new HvSocketImpl);
        EXPECT_EQ(before + 1, hvtest::liveCount("HvSocketImpl"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvSocketImpl"));
}

TEST(HvSocketImpl, BufferSizesDefaultTo245760)
{
    EXPECT_EQ(245760, HvSocketImpl::sm_SO_SNDBUF.load());
    EXPECT_EQ(245760, HvSocketImpl::sm_SO_RCVBUF.load());
}

TEST(HvSocketImpl, ConvertTransportMapsTheTwoKindsAndNothingElse)
{
    std::optional<HvSocketImpl::NetTransport> tcp = HvSocketImpl::convertTransport(HvSocketImpl::TCP);
    std::optional<HvSocketImpl::NetTransport> udp = HvSocketImpl::convertTransport(HvSocketImpl::UDP);
    ASSERT_TRUE(tcp.has_value());
    ASSERT_TRUE(udp.has_value());
    EXPECT_EQ(0, static_cast<int>(*tcp));
    EXPECT_EQ(1, static_cast<int>(*udp));
    EXPECT_FALSE(HvSocketImpl::convertTransport(static_cast<HvSocketImpl::Transport>(2)).has_value());
    EXPECT_FALSE(HvSocketImpl::convertTransport(static_cast<HvSocketImpl::Transport>(-1)).has_value());
}

// ---- bind and listen ----

TEST(HvSocketImpl, BindToPortZeroKeepsLocalPortZeroAndRegisters)
{
    for (bool stream : {true, false}) {
        HvHandle<HvSocketImpl> socket(new HvSocketImpl);
        socket->bind(0, hvtest::loopback(), stream);
        ASSERT_NE(-1, socket->getDescriptor());
        EXPECT_EQ(0u, socket->getLocalPort());
        EXPECT_NE(0u, hvtest::localPortOf(socket->getDescriptor()));
        EXPECT_EQ(hvtest::loopback().getAddress(), socket->getLocalAddress().getAddress());
        EXPECT_EQ(stream ? SOCK_STREAM : SOCK_DGRAM, intOption(socket->getDescriptor(), SOL_SOCKET, SO_TYPE));
        EXPECT_EQ(socket.get(), HvSocketFactory::sFromHandle(socket->getDescriptor()).get());
        closeAndForget(socket.get());
    }
}

TEST(HvSocketImpl, BindAppliesBufferSizesAndAddressReuse)
{
    int savedSend = HvSocketImpl::sm_SO_SNDBUF.load();
    int savedReceive = HvSocketImpl::sm_SO_RCVBUF.load();
    HvSocketImpl::sm_SO_SNDBUF = 8192;
    HvSocketImpl::sm_SO_RCVBUF = 12288;
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), true);
    HvSocketImpl::sm_SO_SNDBUF = savedSend;
    HvSocketImpl::sm_SO_RCVBUF = savedReceive;

    // The kernel reports its own bookkeeping of a size; a raw socket given
    // the same sizes must report the same.
    hvtest::Descriptor raw(::socket(AF_INET, SOCK_STREAM, 0));
    int send = 8192;
    int receive = 12288;
    setsockopt(raw.get(), SOL_SOCKET, SO_SNDBUF, &send, sizeof send);
    setsockopt(raw.get(), SOL_SOCKET, SO_RCVBUF, &receive, sizeof receive);
    EXPECT_EQ(intOption(raw.get(), SOL_SOCKET, SO_SNDBUF), intOption(socket->getDescriptor(), SOL_SOCKET, SO_SNDBUF));
    EXPECT_EQ(intOption(raw.get(), SOL_SOCKET, SO_RCVBUF), intOption(socket->getDescriptor(), SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(1, intOption(socket->getDescriptor(), SOL_SOCKET, SO_REUSEADDR));
    closeAndForget(socket.get());
}

TEST(HvSocketImpl, BindTwiceThrowsTheMisspeltText)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), true);
    int descriptor = socket->getDescriptor();
    hvtest::expectPlainHvException([&] { socket->bind(0, hvtest::loopback(), true); }, "socket alrady created");
    EXPECT_EQ(descriptor, socket->getDescriptor());
    closeAndForget(socket.get());
}

TEST(HvSocketImpl, BindToABusyPortThrowsBindAndKeepsTheDescriptorUnregistered)
{
    hvtest::RawListener busy;
    int before = hvtest::openDescriptorCount();
    {
        HvHandle<HvSocketImpl> socket(new HvSocketImpl);
        HvHandle<HvException> thrown = hvtest::thrownBy([&] { socket->bind(busy.port(), hvtest::loopback(), true); });
        ASSERT_FALSE(thrown.isNull());
        EXPECT_STREQ("HvSocketError", thrown->getClassName());
        EXPECT_STREQ("bind", thrown->getMessage().c_str());
        EXPECT_EQ(EADDRINUSE, HvHandle<HvSocketError>(thrown)->getErrorNumber());
        // The descriptor made before the failure stays with the object...
        ASSERT_NE(-1, socket->getDescriptor());
        EXPECT_TRUE(hvtest::isOpenDescriptor(socket->getDescriptor()));
        EXPECT_NE(socket.get(), HvSocketFactory::sFromHandle(socket->getDescriptor()).get());
        EXPECT_EQ(0u, socket->getLocalPort());
    }
    // ...and goes with it.
    EXPECT_EQ(before, hvtest::openDescriptorCount());
}

TEST(HvSocketImpl, BindingIsAnnouncedOnlyAboveLevelFive)
{
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(5);
    HvHandle<HvSocketImpl> quiet(new HvSocketImpl);
    quiet->bind(0, hvtest::loopback(), true);
    EXPECT_EQ("", capture.text());
    closeAndForget(quiet.get());

    capture.stream().setLevel(6);
    HvHandle<HvSocketImpl> loud(new HvSocketImpl);
    unsigned int port = hvtest::freeUdpPort();
    loud->bind(port, hvtest::loopback(), false);
    // The close is announced too; only the bind part is checked here.
    std::string expected = "Binding socket to port " + std::to_string(port) + "\n";
    EXPECT_EQ(expected, capture.text());
    closeAndForget(loud.get());
}

TEST(HvSocketImpl, ListenWithoutDescriptorThrowsListen)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { socket->listen(5); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSocketError", thrown->getClassName());
    EXPECT_STREQ("listen", thrown->getMessage().c_str());
    EXPECT_EQ(EBADF, HvHandle<HvSocketError>(thrown)->getErrorNumber());
}

TEST(HvSocketImpl, ListenOnADatagramSocketThrowsListen)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), false);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { socket->listen(5); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("listen", thrown->getMessage().c_str());
    EXPECT_EQ(EOPNOTSUPP, HvHandle<HvSocketError>(thrown)->getErrorNumber());
    closeAndForget(socket.get());
}

// Fills every descriptor number below a lowered limit for its lifetime, so
// that the next socket() fails with EMFILE; gives all back afterwards.
class DescriptorExhaustion {
public:
    DescriptorExhaustion()
    {
        getrlimit(RLIMIT_NOFILE, &m_saved);
        rlimit lowered = m_saved;
        lowered.rlim_cur = static_cast<rlim_t>(hvtest::openDescriptorCount() + 16);
        setrlimit(RLIMIT_NOFILE, &lowered);
        for (;;) {
            int copy = dup(0);
            if (copy == -1)
                break;
            m_copies.push_back(copy);
        }
    }
    ~DescriptorExhaustion()
    {
        for (int copy : m_copies)
            ::close(copy);
        setrlimit(RLIMIT_NOFILE, &m_saved);
    }
    DescriptorExhaustion(const DescriptorExhaustion&) = delete;
    DescriptorExhaustion& operator=(const DescriptorExhaustion&) = delete;

private:
    rlimit m_saved;
    std::vector<int> m_copies;
};

TEST(HvSocketImpl, WithoutFreeDescriptorsSocketCreationFailsWithItsText)
{
    HvHandle<HvSocketImpl> bound(new HvSocketImpl);
    HvHandle<HvSocketImpl> connected(new HvSocketImpl);
    HvHandle<HvException> bindFailure;
    HvHandle<HvException> connectFailure;
    {
        DescriptorExhaustion exhaustion;
        bindFailure = hvtest::thrownBy([&] { bound->bind(0, hvtest::loopback(), true); });
        connectFailure = hvtest::thrownBy([&] { connected->connect(hvtest::loopback(), 5060, false); });
    }
    ASSERT_FALSE(bindFailure.isNull());
    EXPECT_STREQ("HvSocketError", bindFailure->getClassName());
    EXPECT_STREQ("socket(AF_INET, aType, 0)", bindFailure->getMessage().c_str());
    EXPECT_EQ(EMFILE, HvHandle<HvSocketError>(bindFailure)->getErrorNumber());
    ASSERT_FALSE(connectFailure.isNull());
    // The same wording for a datagram socket.
    EXPECT_STREQ("socket(AF_INET, SOCK_STREAM, 0)", connectFailure->getMessage().c_str());
    EXPECT_EQ(EMFILE, HvHandle<HvSocketError>(connectFailure)->getErrorNumber());
    EXPECT_EQ(-1, bound->getDescriptor());
    EXPECT_EQ(-1, connected->getDescriptor());
}

// ---- connect ----

TEST(HvSocketImpl, ConnectStoresTheRealLocalEndAndThePeer)
{
    hvtest::RawListener listener;
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    Velmora::LogCapture log("ferrowind.hv.HvSocketImpl");
    socket->connect(hvtest::loopback(), listener.port(), true);
    hvtest::Descriptor peer = listener.accept();
    ASSERT_TRUE(peer.valid());
    int descriptor = socket->getDescriptor();
    ASSERT_NE(-1, descriptor);
    EXPECT_NE(0u, socket->getLocalPort());
    EXPECT_EQ(hvtest::localPortOf(descriptor), socket->getLocalPort());
    EXPECT_EQ(hvtest::peerPortOf(peer.get()), socket->getLocalPort());
    EXPECT_EQ(hvtest::loopback().getAddress(), socket->getLocalAddress().getAddress());
    EXPECT_EQ(listener.port(), socket->getRemotePort());
    EXPECT_EQ(hvtest::loopback().getAddress(), socket->getRemoteAddress().getAddress());
    EXPECT_EQ(1, intOption(descriptor, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(socket.get(), HvSocketFactory::sFromHandle(descriptor).get());
    EXPECT_TRUE(log.contains("ENTER: HvSocketImpl::connect"));
    EXPECT_TRUE(log.contains("EXIT:  HvSocketImpl::connect"));
    closeAndForget(socket.get());
}

TEST(HvSocketImpl, RefusedConnectReportsTheTextWithItsErrnoAndLogsIt)
{
    unsigned int port = hvtest::closedPort();
    int before = hvtest::openDescriptorCount();
    {
        HvHandle<HvSocketImpl> socket(new HvSocketImpl);
        Velmora::LogCapture log("ferrowind.hv.HvSocketImpl");
        HvHandle<HvException> thrown = hvtest::thrownBy([&] { socket->connect(hvtest::loopback(), port, true); });
        ASSERT_FALSE(thrown.isNull());
        EXPECT_STREQ("HvSocketError", thrown->getClassName());
        EXPECT_EQ(connectFailure(ECONNREFUSED), thrown->getMessage().c_str());
        EXPECT_EQ(ECONNREFUSED, HvHandle<HvSocketError>(thrown)->getErrorNumber());

        bool logged = false;
        for (const Velmora::LogRecord& record : log.records()) {
            if (record.message == connectFailure(ECONNREFUSED)) {
                logged = true;
                EXPECT_EQ(int{Velmora::Logger::ERROR}, record.level);
                EXPECT_EQ("HvSocketImpl", record.file);
                EXPECT_EQ(284, record.line);
            }
        }
        EXPECT_TRUE(logged);
        // The descriptor stays with the object, unregistered, until it goes.
        ASSERT_NE(-1, socket->getDescriptor());
        EXPECT_NE(socket.get(), HvSocketFactory::sFromHandle(socket->getDescriptor()).get());
    }
    EXPECT_EQ(before, hvtest::openDescriptorCount());
}

TEST(HvSocketImpl, DatagramConnectFailsOnNoDelayAfterTheSystemConnect)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { socket->connect(hvtest::loopback(), peer.port(), false); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSocketError", thrown->getClassName());
    EXPECT_STREQ("HvSocketImpl::setsockopt(...)", thrown->getMessage().c_str());
    int descriptor = socket->getDescriptor();
    ASSERT_NE(-1, descriptor);
    EXPECT_EQ(SOCK_DGRAM, intOption(descriptor, SOL_SOCKET, SO_TYPE));
    // The system connect had succeeded: the peer is set.
    EXPECT_EQ(peer.port(), hvtest::peerPortOf(descriptor));
    EXPECT_NE(socket.get(), HvSocketFactory::sFromHandle(descriptor).get());
}

TEST(HvSocketImpl, NoDelayOnADatagramSocketThrows)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), false);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { socket->setTcpNoDelay(true); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSocketImpl::setsockopt(...)", thrown->getMessage().c_str());
    closeAndForget(socket.get());
}

TEST(HvSocketImpl, NoDelayCanBeSwitchedOff)
{
    Connection connection;
    connection.socket->setTcpNoDelay(false);
    EXPECT_EQ(0, intOption(connection.socket->getDescriptor(), IPPROTO_TCP, TCP_NODELAY));
    connection.socket->setTcpNoDelay(true);
    EXPECT_EQ(1, intOption(connection.socket->getDescriptor(), IPPROTO_TCP, TCP_NODELAY));
    closeAndForget(connection.socket.get());
}

// ---- accept ----

TEST(HvSocketImpl, AcceptCopiesTheLocalEndFromTheServerAndThePeerFromTheSystem)
{
    HvHandle<HvSocketImpl> server(new HvSocketImpl);
    server->bind(0, hvtest::loopback(), true);
    server->listen(5);
    unsigned int serverPort = hvtest::localPortOf(server->getDescriptor());
    hvtest::Descriptor client = hvtest::rawConnect(serverPort);
    ASSERT_TRUE(client.valid());

    HvHandle<HvSocketImpl> accepted(new HvSocketImpl);
    accepted->accept(server.get());
    int descriptor = accepted->getDescriptor();
    ASSERT_NE(-1, descriptor);
    // The server was bound to port 0 and keeps 0: that is what is copied.
    EXPECT_EQ(0u, accepted->getLocalPort());
    EXPECT_EQ(hvtest::loopback().getAddress(), accepted->getLocalAddress().getAddress());
    EXPECT_EQ(hvtest::localPortOf(client.get()), accepted->getRemotePort());
    EXPECT_EQ(hvtest::loopback().getAddress(), accepted->getRemoteAddress().getAddress());
    EXPECT_EQ(1, intOption(descriptor, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(accepted.get(), HvSocketFactory::sFromHandle(descriptor).get());
    closeAndForget(accepted.get());
    closeAndForget(server.get());
}

TEST(HvSocketImpl, FailedAcceptThrowsNothingAndLeavesNoDescriptor)
{
    HvHandle<HvSocketImpl> notListening(new HvSocketImpl);
    notListening->bind(0, hvtest::loopback(), true);
    HvHandle<HvSocketImpl> accepted(new HvSocketImpl);
    EXPECT_TRUE(hvtest::thrownBy([&] { accepted->accept(notListening.get()); }).isNull());
    EXPECT_EQ(-1, accepted->getDescriptor());
    char buffer[4];
    EXPECT_EQ(-1, accepted->receive(buffer, sizeof buffer));
    EXPECT_EQ(-1, accepted->send("x", 1));
    closeAndForget(notListening.get());
}

// ---- send and receive ----

TEST(HvSocketImpl, SendAndReceiveTalkToARawPeer)
{
    Connection connection;
    EXPECT_EQ(5, connection.socket->send("hello", 5));
    EXPECT_EQ("hello", hvtest::readExactly(connection.peer.get(), 5));
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "world!"));
    char buffer[16] = {0};
    int got = 0;
    std::string received;
    while (received.size() < 6 && (got = connection.socket->receive(buffer, sizeof buffer)) > 0)
        received.append(buffer, static_cast<std::size_t>(got));
    EXPECT_EQ("world!", received);
    closeAndForget(connection.socket.get());
}

TEST(HvSocketImpl, ReceiveOfZeroBytesLeavesTheSocketOpen)
{
    Connection connection;
    int descriptor = connection.socket->getDescriptor();
    connection.peer.reset();
    char buffer[8];
    EXPECT_EQ(0, connection.socket->receive(buffer, sizeof buffer));
    EXPECT_EQ(descriptor, connection.socket->getDescriptor());
    EXPECT_TRUE(hvtest::isOpenDescriptor(descriptor));
    closeAndForget(connection.socket.get());
}

TEST(HvSocketImpl, FailedReceiveClosesTheSocket)
{
    Connection connection;
    int descriptor = connection.socket->getDescriptor();
    hvtest::resetConnection(connection.peer);
    char buffer[8];
    EXPECT_EQ(-1, connection.socket->receive(buffer, sizeof buffer));
    EXPECT_EQ(-1, connection.socket->getDescriptor());
    // Closed by the library, the registry entry left in place.
    EXPECT_EQ(connection.socket.get(), HvSocketFactory::sFromHandle(descriptor).get());
    EXPECT_EQ(-1, connection.socket->receive(buffer, sizeof buffer));
    HvSocketFactory::sRemoveHandle(descriptor);
}

TEST(HvSocketImpl, SendToAResetPeerFailsClosesAndLeavesTheProcessRunning)
{
    Connection connection;
    hvtest::resetConnection(connection.peer);
    int descriptor = connection.socket->getDescriptor();
    int result = 0;
    // The reset may arrive after the first send: a few tries, no more.
    for (int i = 0; i < 100 && result != -1; ++i) {
        result = connection.socket->send("data", 4);
        if (result != -1)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(-1, connection.socket->getDescriptor());
    HvSocketFactory::sRemoveHandle(descriptor);
}

TEST(HvSocketImpl, AvailableGivesAtMostFour)
{
    Connection connection;
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "ab"));
    EXPECT_EQ(2, connection.socket->available());
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "cdefghij"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(connection.socket->getDescriptor()) >= 10; }));
    EXPECT_EQ(4, connection.socket->available());
    // Peeking takes nothing away.
    char buffer[16];
    int total = 0;
    while (total < 10) {
        int got = connection.socket->receive(buffer + total, static_cast<unsigned int>(sizeof buffer) - total);
        ASSERT_GT(got, 0);
        total += got;
    }
    EXPECT_EQ("abcdefghij", std::string(buffer, 10));
    closeAndForget(connection.socket.get());
}

TEST(HvSocketImpl, FailedPeekGivesZeroAndWritesTheReasonAboveLevelFive)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    {
        hvtest::DebugOutputCapture capture(false);
        EXPECT_EQ(0, socket->available());
        EXPECT_EQ("", capture.text());
    }
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    EXPECT_EQ(0, socket->available());
    EXPECT_EQ(std::string("\nHvSocketImpl::available(): ") + std::strerror(EBADF) + "\n", capture.text());
}

// ---- peer look-up ----

TEST(HvSocketImpl, FailedPeerLookUpGivesZerosAndForgetsTheDescriptorWithoutClosingIt)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), true);
    int descriptor = socket->getDescriptor();
    HvInetAddress address;
    address.setAddress(12345);
    unsigned int port = 77;
    socket->getRemoteInfo(address, port);
    EXPECT_EQ(0u, address.getAddress());
    EXPECT_EQ(0u, port);
    EXPECT_EQ(-1, socket->getDescriptor());
    EXPECT_TRUE(hvtest::isOpenDescriptor(descriptor));
    ::close(descriptor);
    HvSocketFactory::sRemoveHandle(descriptor);
}

TEST(HvSocketImpl, RemoteEndIsLookedUpWhileUnknown)
{
    HvHandle<HvSocketImpl> server(new HvSocketImpl);
    server->bind(0, hvtest::loopback(), true);
    server->listen(5);
    hvtest::Descriptor client = hvtest::rawConnect(hvtest::localPortOf(server->getDescriptor()));
    ASSERT_TRUE(client.valid());
    HvHandle<HvSocketImpl> accepted(new HvSocketImpl);
    accepted->accept(server.get());
    HvInetAddress address;
    unsigned int port = 0;
    accepted->getRemoteInfo(address, port);
    EXPECT_EQ(hvtest::localPortOf(client.get()), port);
    EXPECT_EQ(hvtest::loopback().getAddress(), address.getAddress());
    closeAndForget(accepted.get());
    closeAndForget(server.get());
}

// ---- traffic log ----

TEST(HvSocketImpl, TrafficBannersAreWrittenByteForByteAboveLevelFive)
{
    Connection connection;
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    ASSERT_EQ(12, connection.socket->send("hello world!", 12));
    EXPECT_EQ(banner("Sent", "hello world!", connection.listener.port()), capture.text());
    EXPECT_EQ("hello world!", hvtest::readExactly(connection.peer.get(), 12));

    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), std::string("a\0b", 3)));
    ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(connection.socket->getDescriptor()) >= 3; }));
    char buffer[8];
    ASSERT_EQ(3, connection.socket->receive(buffer, sizeof buffer));
    EXPECT_EQ(banner("Sent", "hello world!", connection.listener.port()) +
                  banner("Received", std::string("a\0b", 3), connection.listener.port()),
              capture.text());
    capture.stream().setLevel(3);
    closeAndForget(connection.socket.get());
}

TEST(HvSocketImpl, BannerOfTheExampleSegment)
{
    // One sent segment of 12 bytes to 10.0.0.7 port 5060, as the log shows it.
    std::string expected = "\n================TCP Sent 12 bytes Host: 10.0.0.7:5060================\n\n"
                           "0123456789ab"
                           "================================================\n\n";
    Connection connection;
    // Tests reach only the loopback: the same layout with its address.
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    ASSERT_EQ(12, connection.socket->send("0123456789ab", 12));
    std::string written = capture.text();
    std::string loopbackForm = expected;
    loopbackForm.replace(loopbackForm.find("10.0.0.7:5060"), 13,
                         "127.0.0.1:" + std::to_string(connection.listener.port()));
    EXPECT_EQ(loopbackForm, written);
    EXPECT_EQ(16u, std::string("================").size());
    EXPECT_EQ(std::string(48, '=') + "\n\n", kRule);
    capture.stream().setLevel(3);
    closeAndForget(connection.socket.get());
}

TEST(HvSocketImpl, TrafficLogIsSilentAtLevelFiveForZeroLengthAndWithoutDescriptor)
{
    Connection connection;
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(5);
    ASSERT_EQ(3, connection.socket->send("abc", 3));
    EXPECT_EQ("", capture.text());
    capture.stream().setLevel(6);
    connection.socket->TCPlog("TCP", "Sent", "abc", 0);
    EXPECT_EQ("", capture.text());
    // A zero-byte receive is the peer's close: logged as nothing. The peer
    // takes what was sent first, or its close would be a reset.
    EXPECT_EQ("abc", hvtest::readExactly(connection.peer.get(), 3));
    connection.peer.reset();
    char buffer[8];
    EXPECT_EQ(0, connection.socket->receive(buffer, sizeof buffer));
    EXPECT_EQ("", capture.text());
    HvHandle<HvSocketImpl> closed(new HvSocketImpl);
    closed->TCPlog("TCP", "Sent", "abc", 3);
    EXPECT_EQ("", capture.text());
    capture.stream().setLevel(3);
    closeAndForget(connection.socket.get());
}

TEST(HvSocketImpl, ConcurrentBannersDoNotInterleave)
{
    Connection first;
    Connection second;
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    const int rounds = 50;
    std::string payloadA(100, 'A');
    std::string payloadB(100, 'B');
    std::thread other([&] {
        for (int i = 0; i < rounds; ++i)
            second.socket->send(payloadB.data(), 100);
    });
    for (int i = 0; i < rounds; ++i)
        first.socket->send(payloadA.data(), 100);
    other.join();
    capture.stream().setLevel(3);
    std::string text = capture.text();
    std::string blockA = banner("Sent", payloadA, first.listener.port());
    std::string blockB = banner("Sent", payloadB, second.listener.port());
    // The text must be a sequence of whole banners, nothing else.
    std::size_t at = 0;
    int countA = 0;
    int countB = 0;
    while (at < text.size()) {
        if (text.compare(at, blockA.size(), blockA) == 0) {
            at += blockA.size();
            ++countA;
        } else if (text.compare(at, blockB.size(), blockB) == 0) {
            at += blockB.size();
            ++countB;
        } else {
            ADD_FAILURE() << "interleaved text at " << at;
            break;
        }
    }
    // Loopback takes 100 bytes in one send; each send is one banner.
    EXPECT_EQ(rounds, countA);
    EXPECT_EQ(rounds, countB);
    closeAndForget(first.socket.get());
    closeAndForget(second.socket.get());
}

// ---- datagrams ----

TEST(HvSocketImpl, DatagramsGoBothWaysWithTheirLogs)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    unsigned int port = hvtest::freeUdpPort();
    socket->bind(port, hvtest::loopback(), false);
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);

    socket->sendTo("ping!", 5, hvtest::loopback(), peer.port());
    unsigned int senderPort = 0;
    EXPECT_EQ("ping!", peer.receive(&senderPort));
    EXPECT_EQ(port, senderPort);
    EXPECT_EQ("UDP Sending 5 bytes to 127.0.0.1:" + std::to_string(peer.port()) + "ping!", capture.text());

    ASSERT_TRUE(peer.sendTo(port, "pong"));
    char buffer[16];
    HvInetAddress from;
    unsigned int fromPort = 0;
    ASSERT_EQ(4, socket->receiveFrom(buffer, sizeof buffer, from, fromPort));
    EXPECT_EQ("pong", std::string(buffer, 4));
    EXPECT_EQ(hvtest::loopback().getAddress(), from.getAddress());
    EXPECT_EQ(peer.port(), fromPort);
    EXPECT_EQ("UDP Sending 5 bytes to 127.0.0.1:" + std::to_string(peer.port()) + "ping!" +
                  "UDP Received 4 bytes from 127.0.0.1:" + std::to_string(peer.port()) + "pong",
              capture.text());
    capture.stream().setLevel(3);
    closeAndForget(socket.get());
}

TEST(HvSocketImpl, FailedReceiveFromLeavesTheOutputsUntouched)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    char buffer[8];
    HvInetAddress from;
    from.setAddress(99);
    unsigned int fromPort = 42;
    EXPECT_EQ(-1, socket->receiveFrom(buffer, sizeof buffer, from, fromPort));
    EXPECT_EQ(99u, from.getAddress());
    EXPECT_EQ(42u, fromPort);
}

TEST(HvSocketImpl, UnblockMessageGoesToTheSocketsOwnEnd)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(hvtest::freeUdpPort(), hvtest::loopback(), false);
    std::atomic<int> got{-2};
    std::string received;
    std::thread waiter([&] {
        char buffer[64];
        HvInetAddress from;
        unsigned int fromPort = 0;
        int count = socket->receiveFrom(buffer, sizeof buffer, from, fromPort);
        if (count > 0)
            received.assign(buffer, static_cast<std::size_t>(count));
        got.store(count);
    });
    socket->sendLocalUnblockMessage();
    waiter.join();
    EXPECT_EQ(7, got.load());
    EXPECT_EQ("UNBLOCK", received);
    closeAndForget(socket.get());
}

TEST(HvSocketImpl, UnblockMessageWithoutDescriptorDoesNothing)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl(hvtest::freeUdpPort(), hvtest::loopback()));
    int before = hvtest::openDescriptorCount();
    socket->sendLocalUnblockMessage();
    EXPECT_EQ(-1, socket->getDescriptor());
    EXPECT_EQ(before, hvtest::openDescriptorCount());
}

// ---- close and the registry ----

TEST(HvSocketImpl, CloseIsAnnouncedWithTheLocalPortWhenKnown)
{
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    HvHandle<HvSocketImpl> portless(new HvSocketImpl);
    portless->bind(0, hvtest::loopback(), true);
    int descriptor = portless->getDescriptor();
    portless->close();
    EXPECT_EQ("Binding socket to port 0\nClosing a socket\n", capture.text());
    EXPECT_FALSE(hvtest::isOpenDescriptor(descriptor));
    HvSocketFactory::sRemoveHandle(descriptor);

    HvHandle<HvSocketImpl> withPort(new HvSocketImpl);
    unsigned int port = hvtest::freeUdpPort();
    withPort->bind(port, hvtest::loopback(), false);
    descriptor = withPort->getDescriptor();
    withPort->close();
    std::string p = std::to_string(port);
    EXPECT_EQ("Binding socket to port 0\nClosing a socket\nBinding socket to port " + p +
                  "\nClosing a socket\nClosing socket with local port " + p + "\n",
              capture.text());
    HvSocketFactory::sRemoveHandle(descriptor);

    // Nothing held: nothing done, nothing written.
    std::string before = capture.text();
    withPort->close();
    EXPECT_EQ(before, capture.text());
    capture.stream().setLevel(3);
}

TEST(HvSocketImpl, SuccessfulCloseLeavesTheRegistryEntryUntilTheNumberIsReused)
{
    long before = hvtest::liveCount("HvSocketImpl");
    HvHandle<HvSocketImpl> first(new HvSocketImpl);
    first->bind(0, hvtest::loopback(), true);
    int descriptor = first->getDescriptor();
    HvSocketImpl* firstAddress = first.get();
    first->close();
    EXPECT_EQ(-1, first->getDescriptor());
    EXPECT_FALSE(hvtest::isOpenDescriptor(descriptor));
    EXPECT_EQ(firstAddress, HvSocketFactory::sFromHandle(descriptor).get());

    // The registry alone keeps the closed socket now.
    first = HvHandle<HvSocketImpl>();
    EXPECT_EQ(before + 1, hvtest::liveCount("HvSocketImpl"));

    // The lowest free number is the one just closed: the next socket gets it
    // and replaces the entry, which frees the closed socket.
    HvHandle<HvSocketImpl> second(new HvSocketImpl);
    second->bind(0, hvtest::loopback(), true);
    ASSERT_EQ(descriptor, second->getDescriptor());
    EXPECT_EQ(second.get(), HvSocketFactory::sFromHandle(descriptor).get());
    EXPECT_EQ(before + 1, hvtest::liveCount("HvSocketImpl"));
    closeAndForget(second.get());
}

TEST(HvSocketImpl, FailedCloseRemovesTheRegistryEntry)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), true);
    int descriptor = socket->getDescriptor();
    // Closed behind the object's back: its own close then fails.
    ASSERT_EQ(0, ::close(descriptor));
    socket->close();
    EXPECT_EQ(-1, socket->getDescriptor());
    EXPECT_TRUE(HvSocketFactory::sFromHandle(descriptor).isNull());
}

TEST(HvSocketImpl, DestructorClosesAHeldDescriptor)
{
    int before = hvtest::openDescriptorCount();
    long live = hvtest::liveCount("HvSocketImpl");
    {
        HvHandle<HvSocketImpl> socket(new HvSocketImpl);
        socket->bind(0, hvtest::loopback(), true);
        int descriptor = socket->getDescriptor();
        HvSocketFactory::sRemoveHandle(descriptor);
        EXPECT_EQ(before + 1, hvtest::openDescriptorCount());
    }
    EXPECT_EQ(before, hvtest::openDescriptorCount());
    EXPECT_EQ(live, hvtest::liveCount("HvSocketImpl"));
}

TEST(HvSocketImpl, CloseWakesAThreadWaitingInAReceiveAndTheDescriptorGoesAfterIt)
{
    Connection connection;
    int descriptor = connection.socket->getDescriptor();
    std::atomic<pid_t> waiterId{0};
    std::atomic<int> result{-2};
    std::thread waiter([&] {
        waiterId.store(hvtest::currentThreadId());
        char buffer[8];
        result.store(connection.socket->receive(buffer, sizeof buffer));
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return waiterId.load() != 0; }));
    ASSERT_TRUE(hvtest::waitUntilWaitingIn(waiterId.load(), {SYS_recvfrom}));
    connection.socket->close();
    EXPECT_EQ(-1, connection.socket->getDescriptor());
    ASSERT_TRUE(hvtest::waitUntil([&] { return result.load() != -2; }));
    waiter.join();
    // Woken as by an orderly end; the last one out closed the descriptor.
    EXPECT_EQ(0, result.load());
    EXPECT_FALSE(hvtest::isOpenDescriptor(descriptor));
    bool closed = false;
    hvtest::readAll(connection.peer.get(), &closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(connection.socket.get(), HvSocketFactory::sFromHandle(descriptor).get());
    HvSocketFactory::sRemoveHandle(descriptor);
}

TEST(HvSocketImpl, CloseWakesAThreadWaitingInAccept)
{
    HvHandle<HvSocketImpl> server(new HvSocketImpl);
    server->bind(0, hvtest::loopback(), true);
    server->listen(5);
    int descriptor = server->getDescriptor();
    HvHandle<HvSocketImpl> accepted(new HvSocketImpl);
    std::atomic<pid_t> waiterId{0};
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        waiterId.store(hvtest::currentThreadId());
        accepted->accept(server.get());
        done.store(true);
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return waiterId.load() != 0; }));
    ASSERT_TRUE(hvtest::waitUntilWaitingIn(waiterId.load(), {SYS_accept, SYS_accept4}));
    server->close();
    ASSERT_TRUE(hvtest::waitUntil([&] { return done.load(); }));
    waiter.join();
    EXPECT_EQ(-1, accepted->getDescriptor());
    EXPECT_FALSE(hvtest::isOpenDescriptor(descriptor));
    HvSocketFactory::sRemoveHandle(descriptor);
}

TEST(HvSocketImpl, CloseWakesAThreadWaitingForADatagram)
{
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(hvtest::freeUdpPort(), hvtest::loopback(), false);
    int descriptor = socket->getDescriptor();
    std::atomic<pid_t> waiterId{0};
    std::atomic<int> result{-2};
    std::thread waiter([&] {
        waiterId.store(hvtest::currentThreadId());
        char buffer[8];
        HvInetAddress from;
        unsigned int fromPort = 0;
        result.store(socket->receiveFrom(buffer, sizeof buffer, from, fromPort));
    });
    ASSERT_TRUE(hvtest::waitUntil([&] { return waiterId.load() != 0; }));
    ASSERT_TRUE(hvtest::waitUntilWaitingIn(waiterId.load(), {SYS_recvfrom}));
    socket->close();
    ASSERT_TRUE(hvtest::waitUntil([&] { return result.load() != -2; }));
    waiter.join();
    EXPECT_EQ(0, result.load());
    EXPECT_FALSE(hvtest::isOpenDescriptor(descriptor));
    HvSocketFactory::sRemoveHandle(descriptor);
}
