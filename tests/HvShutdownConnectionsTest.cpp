// Process-wide shutdown while threads wait for data on open connections,
// accepted ones and outgoing ones: the socket step of the protocol sends
// each peer "UNBLOCK" and closes the connection, the waiting threads return,
// and the protocol completes in bounded time.
#include <HvUtil/HvClientSocket.h>

#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvThread.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// A thread that serves one connection: waits in block(), then takes what
// arrived through the socket's input stream.
struct Server {
    HvHandle<HvClientSocket> socket;
    hvtest::Descriptor peer;
    HvHandle<hvtest::LambdaThread> thread;
    std::atomic<pid_t> threadId{0};
    std::atomic<int> bytes{0};
    std::atomic<bool> ended{false};

    void start()
    {
        thread = new hvtest::LambdaThread([this](hvtest::LambdaThread& self) {
            threadId.store(hvtest::currentThreadId());
            HvHandle<HvInputStream> input = socket->getInputStream();
            char buffer[64];
            while (self.getState() != HvThread::EXITING && socket->block()) {
                // Only what block() buffered: asking the buffered stream for
                // more would wait in the socket for the rest.
                unsigned int waiting = input->available();
                while (waiting > 0) {
                    unsigned int want = waiting < sizeof buffer ? waiting : static_cast<unsigned int>(sizeof buffer);
                    int got = input->read(buffer, want, 0);
                    if (got <= 0)
                        break;
                    bytes.fetch_add(got);
                    waiting -= static_cast<unsigned int>(got);
                }
            }
            ended.store(true);
        });
        thread->fork();
    }
};

} // namespace

TEST(HvShutdownConnections, ShutdownClosesOpenConnectionsAndWakesTheirThreads)
{
    int descriptors = hvtest::openDescriptorCount();
    HvHandle<HvServerSocket> listener(new HvServerSocket(0, hvtest::loopback(), 8));
    unsigned int port = hvtest::localPortOf(listener->getDescriptor());
    hvtest::RawListener rawListener;

    std::vector<std::unique_ptr<Server>> servers;
    // Three accepted connections...
    for (int i = 0; i < 3; ++i) {
        std::unique_ptr<Server> server(new Server);
        server->peer = hvtest::rawConnect(port);
        ASSERT_TRUE(server->peer.valid());
        server->socket = listener->accept();
        ASSERT_NE(-1, server->socket->getDescriptor());
        servers.push_back(std::move(server));
    }
    // ...and two outgoing ones.
    for (int i = 0; i < 2; ++i) {
        std::unique_ptr<Server> server(new Server);
        server->socket = new HvClientSocket(hvtest::loopback(), rawListener.port(), HvInetAddress());
        server->peer = rawListener.accept();
        ASSERT_TRUE(server->peer.valid());
        servers.push_back(std::move(server));
    }
    for (auto& server : servers)
        server->start();

    // Traffic flows before the shutdown.
    ASSERT_TRUE(hvtest::sendAll(servers[0]->peer.get(), "REGISTER"));
    ASSERT_TRUE(hvtest::sendAll(servers[4]->peer.get(), "OPTIONS"));
    ASSERT_TRUE(hvtest::waitUntil([&] { return servers[0]->bytes.load() == 8 && servers[4]->bytes.load() == 7; }));
    for (auto& server : servers) {
        ASSERT_TRUE(hvtest::waitUntil([&] { return server->threadId.load() != 0; }));
        ASSERT_TRUE(hvtest::waitUntilWaitingIn(server->threadId.load(), {SYS_recvfrom}));
    }
    EXPECT_EQ(6u, HvSocketFactory::sSocketNum());

    auto start = std::chrono::steady_clock::now();
    HvThread::sShutdown();
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::seconds(10));

    EXPECT_EQ(0u, HvThread::sGetThreadCount());
    EXPECT_TRUE(HvThread::sIsShutdownCompleted());
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    EXPECT_EQ(-1, listener->getDescriptor());
    for (auto& server : servers) {
        EXPECT_TRUE(server->ended.load());
        EXPECT_EQ(HvThread::DETACHED, server->thread->getState());
        EXPECT_EQ(-1, server->socket->getDescriptor());
        bool closed = false;
        EXPECT_EQ("UNBLOCK", hvtest::readAll(server->peer.get(), &closed));
        EXPECT_TRUE(closed);
    }
    for (auto& server : servers) {
        server->peer.reset();
        server->socket = HvHandle<HvClientSocket>();
    }
    listener = HvHandle<HvServerSocket>();
    EXPECT_EQ(descriptors + 1, hvtest::openDescriptorCount()); // the raw listener
}
