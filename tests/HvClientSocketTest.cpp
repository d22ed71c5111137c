#include <HvUtil/HvClientSocket.h>

#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvBufferedOutputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvSocketError.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvSocketInputStream.h>
#include <HvUtil/HvSocketOutputStream.h>

#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

HvInetAddress none()
{
    return HvInetAddress();
}

int bytesWaiting(int descriptor)
{
    int count = 0;
    if (ioctl(descriptor, FIONREAD, &count) != 0)
        return -1;
    return count;
}

// Closes the socket and takes its entry out of the registry, so that the
// object goes with its last handle.
void closeAndForget(HvSocketImpl* socket)
{
    int descriptor = socket->getDescriptor();
    socket->close();
    if (descriptor != -1 && HvSocketFactory::sFromHandle(descriptor).get() == socket)
        HvSocketFactory::sRemoveHandle(descriptor);
}

std::string connectFailure(int error)
{
    return "HvSocketImpl::connect : failed to connect socket : errno=" + std::to_string(error) +
           " errmsg=" + std::strerror(error);
}

// A client socket connected to a raw peer.
struct Connection {
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> socket;
    hvtest::Descriptor peer;

    Connection()
    {
        socket = new HvClientSocket(hvtest::loopback(), listener.port(), none());
        peer = listener.accept();
        EXPECT_TRUE(peer.valid());
    }
    ~Connection()
    {
        if (!socket.isNull())
            closeAndForget(socket.get());
    }
};

} // namespace

// ---- construction ----

TEST(HvClientSocket, ConnectsToThePeerAndStampsTheActivityTime)
{
    hvtest::RawListener listener;
    double before = HvTime::sGetCurrentTime();
    HvHandle<HvClientSocket> socket(new HvClientSocket(hvtest::loopback(), listener.port(), none()));
    double after = HvTime::sGetCurrentTime();
    hvtest::Descriptor peer = listener.accept();
    ASSERT_TRUE(peer.valid());
    EXPECT_EQ(hvtest::peerPortOf(peer.get()), socket->getLocalPort());
    EXPECT_EQ(listener.port(), socket->getRemotePort());
    EXPECT_LE(before, static_cast<double>(socket->getLastActivityTime()));
    EXPECT_LE(static_cast<double>(socket->getLastActivityTime()), after);
    EXPECT_EQ(socket.get(), HvSocketFactory::sFromHandle(socket->getDescriptor()).get());
    closeAndForget(socket.get());
}

TEST(HvClientSocket, AllocatedUnderItsClassTag)
{
    long before = hvtest::liveCount("HvClientSocket");
    long baseBefore = hvtest::liveCount("HvSocketImpl");
    {
        Connection connection;
        EXPECT_EQ(before + 1, hvtest::liveCount("HvClientSocket"));
        EXPECT_EQ(baseBefore, hvtest::liveCount("HvSocketImpl"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvClientSocket"));
}

TEST(HvClientSocket, ZeroLocalAddressDoesNotBindBeforeConnecting)
{
    hvtest::RawListener listener;
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    HvHandle<HvClientSocket> unbound(new HvClientSocket(hvtest::loopback(), listener.port(), none()));
    EXPECT_EQ("", capture.text());

    HvHandle<HvClientSocket> bound(new HvClientSocket(hvtest::loopback(), listener.port(), hvtest::loopback()));
    EXPECT_EQ("Binding socket to port 0\n", capture.text());
    // Binding to port 0 lets the system choose; connect reads the choice back.
    EXPECT_NE(0u, bound->getLocalPort());
    EXPECT_EQ(hvtest::localPortOf(bound->getDescriptor()), bound->getLocalPort());
    capture.stream().setLevel(3);
    closeAndForget(unbound.get());
    closeAndForget(bound.get());
}

TEST(HvClientSocket, RefusedConnectThrowsTheTextWithItsErrnoAndLogsIt)
{
    unsigned int port = hvtest::closedPort();
    int descriptors = hvtest::openDescriptorCount();
    long live = hvtest::liveCount("HvClientSocket");
    Velmora::LogCapture log("ferrowind.hv.HvSocketImpl");
    HvHandle<HvException> thrown =
        hvtest::thrownBy([&] { HvHandle<HvClientSocket> never(new HvClientSocket(hvtest::loopback(), port, none())); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSocketError", thrown->getClassName());
    EXPECT_EQ(connectFailure(ECONNREFUSED), thrown->getMessage().c_str());
    EXPECT_EQ(ECONNREFUSED, HvHandle<HvSocketError>(thrown)->getErrorNumber());
    std::vector<Velmora::LogRecord> records = log.records();
    bool logged = false;
    for (const Velmora::LogRecord& record : records) {
        if (record.message == connectFailure(ECONNREFUSED)) {
            logged = true;
            EXPECT_EQ(int{Velmora::Logger::ERROR}, record.level);
            EXPECT_EQ("HvSocketImpl", record.file);
            EXPECT_EQ(284, record.line);
        }
    }
    EXPECT_TRUE(logged);
    EXPECT_EQ(live, hvtest::liveCount("HvClientSocket"));
    EXPECT_EQ(descriptors, hvtest::openDescriptorCount());
}

TEST(HvClientSocket, RefusedConnectAfterBindingLeavesNoRegistryEntryNorDescriptor)
{
    unsigned int port = hvtest::closedPort();
    int descriptors = hvtest::openDescriptorCount();
    long live = hvtest::liveCount("HvClientSocket");
    unsigned int entries = HvSocketFactory::sSocketNum();
    HvHandle<HvException> thrown = hvtest::thrownBy(
        [&] { HvHandle<HvClientSocket> never(new HvClientSocket(hvtest::loopback(), port, hvtest::loopback())); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_EQ(connectFailure(ECONNREFUSED), thrown->getMessage().c_str());
    // bind() had registered the descriptor; the failed construction took it back.
    EXPECT_EQ(entries, HvSocketFactory::sSocketNum());
    EXPECT_EQ(live, hvtest::liveCount("HvClientSocket"));
    EXPECT_EQ(descriptors, hvtest::openDescriptorCount());
}

TEST(HvClientSocket, ConnectingAConnectedSocketAgainIsRefusedByTheSystem)
{
    hvtest::RawListener other;
    Connection connection;
    // A connected socket cannot connect again: the system refuses.
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { connection.socket->connect(hvtest::loopback(), other.port()); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_EQ(connectFailure(EISCONN), thrown->getMessage().c_str());
    EXPECT_EQ(EISCONN, HvHandle<HvSocketError>(thrown)->getErrorNumber());
}

// ---- transfers ----

TEST(HvClientSocket, RawBufferTransfersUseTheOffset)
{
    Connection connection;
    EXPECT_EQ(4, connection.socket->send("xxabcdyy", 4, 2));
    EXPECT_EQ("abcd", hvtest::readExactly(connection.peer.get(), 4));
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "wxyz"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(connection.socket->getDescriptor()) >= 4; }));
    char buffer[8];
    std::memset(buffer, '.', sizeof buffer);
    EXPECT_EQ(4, connection.socket->receive(buffer, 4, 3));
    EXPECT_EQ("...wxyz.", std::string(buffer, 8));
}

TEST(HvClientSocket, ByteArraySendWindowIsClippedToTheArray)
{
    Connection connection;
    HvHandle<HvByteArray> array = HvByteArray::sCreate("0123456789");
    // Offset 3, length 0: the rest of the array.
    EXPECT_EQ(7, connection.socket->send(array.get(), 3, 0));
    EXPECT_EQ("3456789", hvtest::readExactly(connection.peer.get(), 7));
    // Offset 3, too long a length: the rest of the array.
    EXPECT_EQ(7, connection.socket->send(array.get(), 3, 100));
    EXPECT_EQ("3456789", hvtest::readExactly(connection.peer.get(), 7));
    EXPECT_EQ(2, connection.socket->send(array.get(), 1, 2));
    EXPECT_EQ("12", hvtest::readExactly(connection.peer.get(), 2));
    // An offset beyond the array sends nothing rather than what lies behind it.
    EXPECT_EQ(0, connection.socket->send(array.get(), 50, 4));
    EXPECT_EQ(0, connection.socket->send(static_cast<HvByteArray*>(nullptr), 0, 4));
    EXPECT_EQ(1, connection.socket->send(array.get(), 9, 0));
    EXPECT_EQ("9", hvtest::readExactly(connection.peer.get(), 1));
}

TEST(HvClientSocket, ByteArrayReceiveWindowIsClippedToTheArray)
{
    Connection connection;
    HvHandle<HvByteArray> array = HvByteArray::sCreate("..........");
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "ABCDEFGHIJKLMNOP"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(connection.socket->getDescriptor()) >= 16; }));
    EXPECT_EQ(7, connection.socket->receive(array, 3, 0));
    EXPECT_EQ("...ABCDEFG", std::string(reinterpret_cast<const char*>(array->getData()), 10));
    EXPECT_EQ(7, connection.socket->receive(array, 3, 1000));
    EXPECT_EQ("...HIJKLMN", std::string(reinterpret_cast<const char*>(array->getData()), 10));
    EXPECT_EQ(0, connection.socket->receive(array, 11, 5));
    EXPECT_EQ(0, connection.socket->receive(HvHandle<HvByteArray>(), 0, 5));
    EXPECT_EQ("...HIJKLMN", std::string(reinterpret_cast<const char*>(array->getData()), 10));
}

TEST(HvClientSocket, EveryTransferStampsTheActivityTimeWhateverItsResult)
{
    Connection connection;
    double created = connection.socket->getLastActivityTime();
    ASSERT_TRUE(hvtest::waitUntil([&] { return static_cast<double>(HvTime::sGetCurrentTime()) > created; }));
    EXPECT_EQ(2, connection.socket->send("ok", 2, 0));
    double afterSend = connection.socket->getLastActivityTime();
    EXPECT_LT(created, afterSend);

    closeAndForget(connection.socket.get());
    ASSERT_TRUE(hvtest::waitUntil([&] { return static_cast<double>(HvTime::sGetCurrentTime()) > afterSend; }));
    char buffer[4];
    EXPECT_EQ(-1, connection.socket->receive(buffer, 4, 0));
    double afterFailedReceive = connection.socket->getLastActivityTime();
    EXPECT_LT(afterSend, afterFailedReceive);
    ASSERT_TRUE(
        hvtest::waitUntil([&] { return static_cast<double>(HvTime::sGetCurrentTime()) > afterFailedReceive; }));
    EXPECT_EQ(-1, connection.socket->send("no", 2, 0));
    EXPECT_LT(afterFailedReceive, static_cast<double>(connection.socket->getLastActivityTime()));
}

TEST(HvClientSocket, TrafficBannerShowsTheBytesFromTheOffset)
{
    Connection connection;
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    EXPECT_EQ(3, connection.socket->send("--abc--", 3, 2));
    capture.stream().setLevel(3);
    EXPECT_EQ("\n================TCP Sent 3 bytes Host: 127.0.0.1:" + std::to_string(connection.listener.port()) +
                  "================\n\nabc================================================\n\n",
              capture.text());
}

TEST(HvClientSocket, APeerResetInTheMiddleOfATransferClosesOnlyThatSocket)
{
    Connection victim;
    Connection bystander;
    ASSERT_TRUE(hvtest::sendAll(victim.peer.get(), "part"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(victim.socket->getDescriptor()) >= 4; }));
    char buffer[16];
    EXPECT_EQ(4, victim.socket->receive(buffer, sizeof buffer, 0));
    // Something the peer never reads, so that its close is a reset.
    EXPECT_EQ(3, victim.socket->send("ack", 3, 0));
    hvtest::resetConnection(victim.peer);
    int result = 0;
    for (int i = 0; i < 100 && result != -1; ++i) {
        result = victim.socket->receive(buffer, sizeof buffer, 0);
        if (result == 0)
            break;
    }
    EXPECT_EQ(-1, result);
    EXPECT_EQ(-1, victim.socket->getDescriptor());

    EXPECT_EQ(5, bystander.socket->send("still", 5, 0));
    EXPECT_EQ("still", hvtest::readExactly(bystander.peer.get(), 5));
    ASSERT_TRUE(hvtest::sendAll(bystander.peer.get(), "here"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(bystander.socket->getDescriptor()) >= 4; }));
    EXPECT_EQ(4, bystander.socket->receive(buffer, sizeof buffer, 0));
    EXPECT_EQ("here", std::string(buffer, 4));
}

// ---- streams ----

TEST(HvClientSocket, StreamsAreMadeOnceAndKept)
{
    Connection connection;
    HvHandle<HvInputStream> input = connection.socket->getInputStream();
    HvHandle<HvOutputStream> output = connection.socket->getOutputStream();
    ASSERT_FALSE(input.isNull());
    ASSERT_FALSE(output.isNull());
    // Buffered input over the socket input stream, 512 bytes of buffered
    // output over the socket output stream.
    HvBufferedInputStream* bufferedInput = dynamic_cast<HvBufferedInputStream*>(input.get());
    HvBufferedOutputStream* bufferedOutput = dynamic_cast<HvBufferedOutputStream*>(output.get());
    ASSERT_NE(nullptr, bufferedInput);
    ASSERT_NE(nullptr, bufferedOutput);
    EXPECT_NE(nullptr, dynamic_cast<HvSocketInputStream*>(bufferedInput->getSourceStream().get()));
    EXPECT_NE(nullptr, dynamic_cast<HvSocketOutputStream*>(bufferedOutput->getDestination().get()));
    EXPECT_EQ(0u, bufferedInput->getCapacity());
    EXPECT_EQ(512u, bufferedOutput->getCapacity());
    EXPECT_EQ(input.get(), connection.socket->getInputStream().get());
    EXPECT_EQ(output.get(), connection.socket->getOutputStream().get());
}

TEST(HvClientSocket, ConcurrentFirstRequestsMakeOneStreamOfEachKind)
{
    for (int round = 0; round < 20; ++round) {
        Connection connection;
        std::vector<const HvObject*> inputs(4);
        std::vector<const HvObject*> outputs(4);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                inputs[t] = connection.socket->getInputStream().get();
                outputs[t] = connection.socket->getOutputStream().get();
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        for (int t = 1; t < 4; ++t) {
            EXPECT_EQ(inputs[0], inputs[t]);
            EXPECT_EQ(outputs[0], outputs[t]);
        }
    }
}

TEST(HvClientSocket, StreamsWriteAndReadTheConnection)
{
    Connection connection;
    HvHandle<HvOutputStream> output = connection.socket->getOutputStream();
    output->write("INVITE", 6, 0);
    output->flush();
    EXPECT_EQ("INVITE", hvtest::readExactly(connection.peer.get(), 6));
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "200"));
    HvHandle<HvInputStream> input = connection.socket->getInputStream();
    EXPECT_EQ('2', input->read());
    EXPECT_EQ('0', input->read());
    EXPECT_EQ('0', input->read());
}

TEST(HvClientSocket, StreamsOutlivingTheirSocketNeverReachIt)
{
    long live = hvtest::liveCount("HvClientSocket");
    HvHandle<HvInputStream> input;
    HvHandle<HvOutputStream> output;
    {
        Connection connection;
        input = connection.socket->getInputStream();
        output = connection.socket->getOutputStream();
        // ~Connection closes the socket and takes it out of the registry.
    }
    EXPECT_EQ(live, hvtest::liveCount("HvClientSocket"));
    EXPECT_EQ(-1, input->read());
    char buffer[4];
    EXPECT_EQ(-1, input->read(buffer, 4, 0));
    EXPECT_EQ(0u, input->available());
    EXPECT_FALSE(input->block());
    output->write("lost", 4, 0);
    output->write('x');
}

// ---- block and notifications ----

TEST(HvClientSocket, BlockWaitsForDataThenTicksTheObserver)
{
    Connection connection;
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    connection.socket->attachObserver(observer);
    ASSERT_TRUE(hvtest::sendAll(connection.peer.get(), "x"));
    EXPECT_TRUE(connection.socket->block());
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, connection.socket.get(), nullptr);
    HvHandle<HvInputStream> input = connection.socket->getInputStream();
    EXPECT_EQ('x', input->read());
    connection.socket->detachObserver(observer);
}

TEST(HvClientSocket, BlockAfterThePeerClosedTicksAndReturnsFalse)
{
    Connection connection;
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    connection.socket->attachObserver(observer);
    connection.peer.reset();
    EXPECT_FALSE(connection.socket->block());
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, connection.socket.get(), nullptr);
    EXPECT_EQ(-1, connection.socket->getDescriptor());
    connection.socket->detachObserver(observer);
}

TEST(HvClientSocket, NotificationsAreRelayedAsByAnyObservable)
{
    Connection connection;
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    connection.socket->attachObserver(observer);
    HvHandle<HvObject> argument(new HvObject);
    connection.socket->onNotification(HvHandle<HvObservable>(), argument);
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, connection.socket.get(), argument.get());
    connection.socket->detachObserver(observer);
}

TEST(HvClientSocket, DestructorClosesTheDescriptor)
{
    int descriptors = hvtest::openDescriptorCount();
    hvtest::RawListener listener;
    int withListener = hvtest::openDescriptorCount();
    {
        HvHandle<HvClientSocket> socket(new HvClientSocket(hvtest::loopback(), listener.port(), none()));
        int descriptor = socket->getDescriptor();
        // Only the registry would keep it after this handle.
        HvSocketFactory::sRemoveHandle(descriptor);
        EXPECT_TRUE(hvtest::isOpenDescriptor(descriptor));
    }
    hvtest::Descriptor peer = listener.accept();
    ASSERT_TRUE(peer.valid());
    bool closed = false;
    hvtest::readAll(peer.get(), &closed);
    EXPECT_TRUE(closed);
    peer.reset();
    EXPECT_EQ(withListener, hvtest::openDescriptorCount());
    EXPECT_LT(descriptors, withListener);
}
