#include <HvUtil/HvServerSocket.h>

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvSocketError.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvFailingClock.h>
#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <sys/time.h>
#include <time.h>


namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

int intOption(int descriptor, int level, int name)
{
    int value = -1;
    socklen_t length = sizeof value;
    if (getsockopt(descriptor, level, name, &value, &length) != 0)
        return -1;
    return value;
}

void closeAndForget(HvSocketImpl* socket)
{
    int descriptor = socket->getDescriptor();
    socket->close();
    if (descriptor != -1 && HvSocketFactory::sFromHandle(descriptor).get() == socket)
        HvSocketFactory::sRemoveHandle(descriptor);
}

// The port the system gave a server bound to port 0.
unsigned int boundPort(HvServerSocket* server)
{
    return hvtest::localPortOf(server->getDescriptor());
}

} // namespace

TEST(HvServerSocket, ConstructorLeavesABoundListeningRegisteredSocket)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    int descriptor = server->getDescriptor();
    ASSERT_NE(-1, descriptor);
    EXPECT_EQ(SOCK_STREAM, intOption(descriptor, SOL_SOCKET, SO_TYPE));
    EXPECT_EQ(1, intOption(descriptor, SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_EQ(1, intOption(descriptor, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(0u, server->getLocalPort());
    EXPECT_NE(0u, boundPort(server.get()));
    EXPECT_EQ(server.get(), HvSocketFactory::sFromHandle(descriptor).get());
    closeAndForget(server.get());

    unsigned int port = hvtest::closedPort();
    HvHandle<HvServerSocket> fixed(new HvServerSocket(port, hvtest::loopback(), 5));
    EXPECT_EQ(port, fixed->getLocalPort());
    EXPECT_EQ(port, boundPort(fixed.get()));
    closeAndForget(fixed.get());
}

TEST(HvServerSocket, AllocatedUnderItsClassTag)
{
    long before = hvtest::liveCount("HvServerSocket");
    {
        HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
        EXPECT_EQ(before + 1, hvtest::liveCount("HvServerSocket"));
        closeAndForget(server.get());
    }
    EXPECT_EQ(before, hvtest::liveCount("HvServerSocket"));
}

TEST(HvServerSocket, BusyPortThrowsBindAndLeavesNothingBehind)
{
    hvtest::RawListener busy;
    int descriptors = hvtest::openDescriptorCount();
    long live = hvtest::liveCount("HvServerSocket");
    HvHandle<HvException> thrown = hvtest::thrownBy(
        [&] { HvHandle<HvServerSocket> never(new HvServerSocket(busy.port(), hvtest::loopback(), 5)); });
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSocketError", thrown->getClassName());
    EXPECT_STREQ("bind", thrown->getMessage().c_str());
    EXPECT_EQ(EADDRINUSE, HvHandle<HvSocketError>(thrown)->getErrorNumber());
    EXPECT_EQ(live, hvtest::liveCount("HvServerSocket"));
    EXPECT_EQ(descriptors, hvtest::openDescriptorCount());
}

TEST(HvServerSocket, AcceptGivesAConnectedClientSocket)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    hvtest::Descriptor peer = hvtest::rawConnect(boundPort(server.get()));
    ASSERT_TRUE(peer.valid());
    HvHandle<HvClientSocket> accepted = server->accept();
    ASSERT_FALSE(accepted.isNull());
    ASSERT_NE(-1, accepted->getDescriptor());
    EXPECT_EQ(hvtest::localPortOf(peer.get()), accepted->getRemotePort());
    EXPECT_EQ(server->getLocalPort(), accepted->getLocalPort());
    EXPECT_EQ(accepted.get(), HvSocketFactory::sFromHandle(accepted->getDescriptor()).get());
    EXPECT_EQ(4, accepted->send("BYE!", 4, 0));
    EXPECT_EQ("BYE!", hvtest::readExactly(peer.get(), 4));
    closeAndForget(accepted.get());
    closeAndForget(server.get());
}

TEST(HvServerSocket, BlockHandsTheNewConnectionToTheObserver)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    server->attachObserver(observer);
    hvtest::Descriptor peer = hvtest::rawConnect(boundPort(server.get()));
    ASSERT_TRUE(peer.valid());
    EXPECT_TRUE(server->block());
    ASSERT_EQ(1u, observer->notes.size());
    EXPECT_EQ(server.get(), observer->notes[0].sender);
    const HvClientSocket* accepted = dynamic_cast<const HvClientSocket*>(observer->notes[0].object);
    ASSERT_NE(nullptr, accepted);
    HvHandle<HvSocketImpl> registered = HvSocketFactory::sFromHandle(accepted->getDescriptor());
    EXPECT_EQ(accepted, registered.get());
    EXPECT_EQ(hvtest::localPortOf(peer.get()), registered->getRemotePort());
    closeAndForget(registered.get());
    server->detachObserver(observer);
    closeAndForget(server.get());
}

TEST(HvServerSocket, BlockWhenTheSystemAcceptFailsHandsOverASocketWithoutDescriptor)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    server->attachObserver(observer);
    closeAndForget(server.get());
    long live = hvtest::liveCount("HvClientSocket");
    EXPECT_TRUE(server->block());
    ASSERT_EQ(1u, observer->notes.size());
    EXPECT_TRUE(observer->notes[0].message.empty());
    // Only the note's address is kept: the socket is gone with its handle.
    EXPECT_EQ(live, hvtest::liveCount("HvClientSocket"));
    server->detachObserver(observer);
}

// Keeps the client socket it is given, to look at it after block().
class KeepingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable>, HvHandle<HvObject> object) override { received = object; }
    HvHandle<HvObject> received;
};

TEST(HvServerSocket, FailedSystemAcceptGivesASocketWhoseTransfersFail)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    HvHandle<KeepingObserver> observer(new KeepingObserver);
    server->attachObserver(observer);
    closeAndForget(server.get());
    EXPECT_TRUE(server->block());
    HvHandle<HvClientSocket> accepted(observer->received);
    ASSERT_FALSE(accepted.isNull());
    EXPECT_EQ(-1, accepted->getDescriptor());
    char buffer[4];
    EXPECT_EQ(-1, accepted->receive(buffer, 4, 0));
    EXPECT_EQ(-1, accepted->send("x", 1, 0));
    server->detachObserver(observer);
}

TEST(HvServerSocket, BlockHandsTheFailureToTheObserverWhenAcceptThrows)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    server->attachObserver(observer);
    hvtest::Descriptor peer = hvtest::rawConnect(boundPort(server.get()));
    ASSERT_TRUE(peer.valid());
    long live = hvtest::liveCount("HvClientSocket");
    unsigned int entries = HvSocketFactory::sSocketNum();

    // The connection is taken, then stamping its time fails.
    fs_clockFailure.store(EINVAL);
    bool result = server->block();
    fs_clockFailure.store(0);
    EXPECT_TRUE(result);
    ASSERT_EQ(1u, observer->notes.size());
    EXPECT_EQ(server.get(), observer->notes[0].sender);
    EXPECT_EQ("gettimeofday", observer->notes[0].message);
    // The half-made socket is gone: not registered, its descriptor closed.
    EXPECT_EQ(live, hvtest::liveCount("HvClientSocket"));
    EXPECT_EQ(entries, HvSocketFactory::sSocketNum());
    bool closed = false;
    hvtest::readAll(peer.get(), &closed);
    EXPECT_TRUE(closed);
    server->detachObserver(observer);
    closeAndForget(server.get());
}

TEST(HvServerSocket, AcceptThrowsTheClockFailure)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    hvtest::Descriptor peer = hvtest::rawConnect(boundPort(server.get()));
    ASSERT_TRUE(peer.valid());
    fs_clockFailure.store(EINVAL);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { server->accept(); });
    fs_clockFailure.store(0);
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSystemError", thrown->getClassName());
    EXPECT_EQ(EINVAL, HvHandle<HvSystemError>(thrown)->getErrorNumber());
    closeAndForget(server.get());
}

TEST(HvServerSocket, NotificationsAreRelayedAsByAnyObservable)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    server->attachObserver(observer);
    HvHandle<HvObject> argument(new HvObject);
    server->onNotification(HvHandle<HvObservable>(), argument);
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, server.get(), argument.get());
    server->detachObserver(observer);
    closeAndForget(server.get());
}

TEST(HvServerSocket, ManyConnectionsAreAcceptedInOrder)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 16));
    std::vector<hvtest::Descriptor> peers;
    for (int i = 0; i < 8; ++i) {
        peers.push_back(hvtest::rawConnect(boundPort(server.get())));
        ASSERT_TRUE(peers.back().valid());
    }
    for (int i = 0; i < 8; ++i) {
        HvHandle<HvClientSocket> accepted = server->accept();
        ASSERT_NE(-1, accepted->getDescriptor());
        EXPECT_EQ(hvtest::localPortOf(peers[i].get()), accepted->getRemotePort());
        closeAndForget(accepted.get());
    }
    closeAndForget(server.get());
}
