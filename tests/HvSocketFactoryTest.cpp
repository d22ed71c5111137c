#include <HvUtil/HvSocketFactory.h>

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvServerSocket.h>
#include <HvUtil/HvSocketImpl.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvTokenTable.h>

#include <Velmora/LogCapture.h>
#include <Velmora/Logger.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Numbers far above any descriptor this process opens.
const int kFakeNumber = 900001;

// Registered numbers, read by walking the registry.
std::vector<unsigned int> registeredNumbers()
{
    std::vector<unsigned int> numbers;
    HvTokenTable* table = HvSocketFactory::sm_pHandleTable.load();
    if (!table)
        return numbers;
    HvTokenTable::Iterator entries(*table);
    while (entries.next())
        numbers.push_back(entries.getKey());
    return numbers;
}

// Takes out the entries of closed sockets, which a successful close leaves
// behind; returns how many there were.
int forgetClosedSockets()
{
    int forgotten = 0;
    for (unsigned int number : registeredNumbers()) {
        HvHandle<HvSocketImpl> socket = HvSocketFactory::sFromHandle(static_cast<int>(number));
        if (!socket.isNull() && socket->getDescriptor() == -1) {
            socket = HvHandle<HvSocketImpl>();
            HvSocketFactory::sRemoveHandle(static_cast<int>(number));
            ++forgotten;
        }
    }
    return forgotten;
}

// Receives exactly `count` bytes on a library socket, or fails.
bool receiveAll(HvClientSocket* socket, char* buffer, int count)
{
    int total = 0;
    while (total < count) {
        int got = socket->receive(buffer, static_cast<unsigned int>(count - total), static_cast<unsigned int>(total));
        if (got <= 0)
            return false;
        total += got;
    }
    return true;
}

} // namespace

// Runs first: no socket has been registered in this program yet.
TEST(HvSocketFactory, WithoutRegistryNothingIsFoundAndNothingCounted)
{
    ASSERT_EQ(nullptr, HvSocketFactory::sm_pHandleTable.load());
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    EXPECT_TRUE(HvSocketFactory::sFromHandle(3).isNull());
    HvSocketFactory::sRemoveHandle(3);
    EXPECT_EQ(nullptr, HvSocketFactory::sm_pHandleTable.load());
}

TEST(HvSocketFactory, EveryTranslationUnitHoldsAnInitializer)
{
    EXPECT_GE(HvSocketFactory::HvInitializer::sm_Counter, 2);
}

TEST(HvSocketFactory, CloseAllIsTheShutdownProtocolsSocketStep)
{
    HvThread::ShutdownHookFunction installed = HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, nullptr);
    HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, installed);
    EXPECT_EQ(&HvSocketFactory::sCloseAll, installed);
}

TEST(HvSocketFactory, AddFindReplaceAndRemoveHoldReferences)
{
    long live = hvtest::liveCount("HvSocketImpl");
    HvHandle<HvSocketImpl> first(new HvSocketImpl);
    HvSocketFactory::sAddHandle(kFakeNumber, first.get());
    ASSERT_NE(nullptr, HvSocketFactory::sm_pHandleTable.load());
    EXPECT_EQ(2, first->getRefCount());
    EXPECT_EQ(first.get(), HvSocketFactory::sFromHandle(kFakeNumber).get());
    EXPECT_EQ(1u, HvSocketFactory::sSocketNum());

    // Replacing lets go of the earlier socket: with its handle gone, it is freed.
    HvSocketImpl* firstAddress = first.get();
    first = HvHandle<HvSocketImpl>();
    EXPECT_EQ(live + 1, hvtest::liveCount("HvSocketImpl"));
    EXPECT_EQ(firstAddress, HvSocketFactory::sFromHandle(kFakeNumber).get());
    HvHandle<HvSocketImpl> second(new HvSocketImpl);
    HvSocketFactory::sAddHandle(kFakeNumber, second.get());
    EXPECT_EQ(live + 1, hvtest::liveCount("HvSocketImpl"));
    EXPECT_EQ(second.get(), HvSocketFactory::sFromHandle(kFakeNumber).get());
    EXPECT_EQ(1u, HvSocketFactory::sSocketNum());

    HvSocketFactory::sAddHandle(kFakeNumber + 1, second.get());
    EXPECT_EQ(2u, HvSocketFactory::sSocketNum());
    EXPECT_EQ(3, second->getRefCount());

    HvSocketFactory::sRemoveHandle(kFakeNumber);
    HvSocketFactory::sRemoveHandle(kFakeNumber + 1);
    HvSocketFactory::sRemoveHandle(kFakeNumber + 2);
    EXPECT_EQ(1, second->getRefCount());
    EXPECT_TRUE(HvSocketFactory::sFromHandle(kFakeNumber).isNull());
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    second = HvHandle<HvSocketImpl>();
    EXPECT_EQ(live, hvtest::liveCount("HvSocketImpl"));
}

TEST(HvSocketFactory, ConcurrentRegistrationsAreAllKept)
{
    const int threads = 4;
    const int perThread = 200;
    std::vector<HvHandle<HvSocketImpl>> sockets;
    for (int i = 0; i < threads * perThread; ++i)
        sockets.push_back(HvHandle<HvSocketImpl>(new HvSocketImpl));
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&, t] {
            for (int i = t * perThread; i < (t + 1) * perThread; ++i)
                HvSocketFactory::sAddHandle(kFakeNumber + i, sockets[static_cast<std::size_t>(i)].get());
        });
    }
    for (std::thread& thread : running)
        thread.join();
    EXPECT_EQ(static_cast<unsigned int>(threads * perThread), HvSocketFactory::sSocketNum());
    for (int i = 0; i < threads * perThread; ++i) {
        EXPECT_EQ(sockets[static_cast<std::size_t>(i)].get(), HvSocketFactory::sFromHandle(kFakeNumber + i).get());
        HvSocketFactory::sRemoveHandle(kFakeNumber + i);
    }
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
}

TEST(HvSocketFactory, ThousandConnectAcceptCloseCyclesLeaveNothingBehind)
{
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 16));
    unsigned int port = hvtest::localPortOf(server->getDescriptor());
    char buffer[8];
    // One cycle first, so that what is made once per process (loggers, the
    // object mutex pool) is not counted.
    {
        HvHandle<HvClientSocket> client(new HvClientSocket(hvtest::loopback(), port, HvInetAddress()));
        HvHandle<HvClientSocket> accepted = server->accept();
        client->close();
        accepted->close();
    }
    forgetClosedSockets();
    const int descriptors = hvtest::openDescriptorCount();
    const long clients = hvtest::liveCount("HvClientSocket");
    const long mutexes = hvtest::liveCount("HvMutex");
    const unsigned int entries = HvSocketFactory::sSocketNum();
    unsigned int mostEntries = entries;

    for (int cycle = 0; cycle < 1000; ++cycle) {
        HvHandle<HvClientSocket> client(new HvClientSocket(hvtest::loopback(), port, HvInetAddress()));
        HvHandle<HvClientSocket> accepted = server->accept();
        ASSERT_NE(-1, accepted->getDescriptor());
        ASSERT_EQ(4, client->send("ping", 4, 0));
        ASSERT_TRUE(receiveAll(accepted.get(), buffer, 4));
        ASSERT_EQ(4, accepted->send("pong", 4, 0));
        ASSERT_TRUE(receiveAll(client.get(), buffer, 4));
        accepted->close();
        client->close();
        mostEntries = std::max(mostEntries, HvSocketFactory::sSocketNum());
    }

    // Every descriptor was given back.
    EXPECT_EQ(descriptors, hvtest::openDescriptorCount());
    // Closed sockets stay registered until their number is reused, and the
    // numbers are reused at once: the registry never held more than the two
    // closed sockets of the cycle before, and each replaced one was freed.
    EXPECT_LE(mostEntries, entries + 2);
    EXPECT_LE(HvSocketFactory::sSocketNum(), entries + 2);
    EXPECT_LE(hvtest::liveCount("HvClientSocket"), clients + 2);
    // What is left are exactly those closed sockets; once they are taken
    // out, every count is back where it started.
    EXPECT_LE(forgetClosedSockets(), 2);
    EXPECT_EQ(entries, HvSocketFactory::sSocketNum());
    EXPECT_EQ(clients, hvtest::liveCount("HvClientSocket"));
    EXPECT_EQ(mutexes, hvtest::liveCount("HvMutex"));
    EXPECT_EQ(descriptors, hvtest::openDescriptorCount());

    server->close();
    forgetClosedSockets();
}

TEST(HvSocketFactory, CloseAllUnblocksClosesAndEmptiesTheRegistry)
{
    forgetClosedSockets();
    int descriptors = hvtest::openDescriptorCount();
    long clients = hvtest::liveCount("HvClientSocket");
    long servers = hvtest::liveCount("HvServerSocket");
    long plain = hvtest::liveCount("HvSocketImpl");

    // An outgoing connection with a thread waiting in a receive on it.
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> outgoing(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
    hvtest::Descriptor outgoingPeer = listener.accept();
    ASSERT_TRUE(outgoingPeer.valid());
    std::atomic<int> outgoingResult{-2};
    std::atomic<pid_t> receiverId{0};
    std::thread receiver([&] {
        receiverId.store(hvtest::currentThreadId());
        char buffer[16];
        outgoingResult.store(outgoing->receive(buffer, sizeof buffer, 0));
    });

    // A server with a thread waiting in accept, and a connection it took,
    // kept only by the registry.
    HvHandle<HvServerSocket> server(new HvServerSocket(0, hvtest::loopback(), 5));
    hvtest::Descriptor incomingPeer = hvtest::rawConnect(hvtest::localPortOf(server->getDescriptor()));
    ASSERT_TRUE(incomingPeer.valid());
    server->accept();
    std::atomic<int> acceptedDescriptor{-2};
    std::atomic<pid_t> acceptorId{0};
    std::thread acceptor([&] {
        acceptorId.store(hvtest::currentThreadId());
        acceptedDescriptor.store(server->accept()->getDescriptor());
    });

    // A datagram socket with a thread waiting for a datagram.
    HvHandle<HvSocketImpl> datagram(new HvSocketImpl);
    datagram->bind(hvtest::freeUdpPort(), hvtest::loopback(), false);
    std::atomic<int> datagramResult{-2};
    std::string datagramText;
    std::atomic<pid_t> datagramReceiverId{0};
    std::thread datagramReceiver([&] {
        datagramReceiverId.store(hvtest::currentThreadId());
        char buffer[64];
        HvInetAddress from;
        unsigned int fromPort = 0;
        int got = datagram->receiveFrom(buffer, sizeof buffer, from, fromPort);
        if (got > 0)
            datagramText.assign(buffer, static_cast<std::size_t>(got));
        datagramResult.store(got);
    });

    // All three wait inside their system calls before the sockets are closed.
    ASSERT_TRUE(hvtest::waitUntil([&] { return receiverId && acceptorId && datagramReceiverId; }));
    EXPECT_TRUE(hvtest::waitUntilWaitingIn(receiverId, {SYS_recvfrom}));
    EXPECT_TRUE(hvtest::waitUntilWaitingIn(acceptorId, {SYS_accept, SYS_accept4}));
    EXPECT_TRUE(hvtest::waitUntilWaitingIn(datagramReceiverId, {SYS_recvfrom}));

    EXPECT_EQ(4u, HvSocketFactory::sSocketNum());
    Velmora::LogCapture log("ferrowind.hv.HvSocketFactory");
    HvSocketFactory::sCloseAll();

    ASSERT_TRUE(hvtest::waitUntil([&] {
        return outgoingResult.load() != -2 && acceptedDescriptor.load() != -2 && datagramResult.load() != -2;
    }));
    receiver.join();
    acceptor.join();
    datagramReceiver.join();
    // The stream receiver sees an orderly end, the waiting accept fails.
    EXPECT_EQ(0, outgoingResult.load());
    EXPECT_EQ(-1, acceptedDescriptor.load());
    EXPECT_EQ(7, datagramResult.load());
    EXPECT_EQ("UNBLOCK", datagramText);

    // A connected stream socket sends the seven bytes to its peer, then ends.
    bool closed = false;
    EXPECT_EQ("UNBLOCK", hvtest::readAll(outgoingPeer.get(), &closed));
    EXPECT_TRUE(closed);
    closed = false;
    EXPECT_EQ("UNBLOCK", hvtest::readAll(incomingPeer.get(), &closed));
    EXPECT_TRUE(closed);

    EXPECT_EQ(-1, outgoing->getDescriptor());
    EXPECT_EQ(-1, server->getDescriptor());
    EXPECT_EQ(-1, datagram->getDescriptor());
    // The registry is kept, empty; what only it held is freed.
    EXPECT_NE(nullptr, HvSocketFactory::sm_pHandleTable.load());
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    EXPECT_EQ(clients + 1, hvtest::liveCount("HvClientSocket"));
    outgoing = HvHandle<HvClientSocket>();
    server = HvHandle<HvServerSocket>();
    datagram = HvHandle<HvSocketImpl>();
    EXPECT_EQ(clients, hvtest::liveCount("HvClientSocket"));
    EXPECT_EQ(servers, hvtest::liveCount("HvServerSocket"));
    EXPECT_EQ(plain, hvtest::liveCount("HvSocketImpl"));
    outgoingPeer.reset();
    incomingPeer.reset();
    EXPECT_EQ(descriptors + 1, hvtest::openDescriptorCount()); // the raw listener

    bool logged = false;
    for (const Velmora::LogRecord& record : log.records()) {
        if (record.message == "Hv SIP stack : Closing all sockets") {
            logged = true;
            EXPECT_EQ(int{Velmora::Logger::DEBUG}, record.level);
            EXPECT_EQ("HvSocketFactory", record.file);
            EXPECT_EQ(65, record.line);
        }
    }
    EXPECT_TRUE(logged);
    EXPECT_TRUE(log.contains("ENTER: HvSocketFactory::sCloseAll"));
    EXPECT_TRUE(log.contains("EXIT:  HvSocketFactory::sCloseAll"));

    // Sockets opened afterwards are registered again.
    HvHandle<HvSocketImpl> later(new HvSocketImpl);
    later->bind(0, hvtest::loopback(), true);
    EXPECT_EQ(later.get(), HvSocketFactory::sFromHandle(later->getDescriptor()).get());
    EXPECT_EQ(1u, HvSocketFactory::sSocketNum());
    later->close();
    forgetClosedSockets();
}

TEST(HvSocketFactory, CloseAllDropsEntriesOfAlreadyClosedSockets)
{
    long plain = hvtest::liveCount("HvSocketImpl");
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    socket->bind(0, hvtest::loopback(), true);
    socket->close();
    socket = HvHandle<HvSocketImpl>();
    EXPECT_EQ(plain + 1, hvtest::liveCount("HvSocketImpl"));
    HvSocketFactory::sCloseAll();
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    EXPECT_EQ(plain, hvtest::liveCount("HvSocketImpl"));
}

TEST(HvSocketFactory, TheLastInitializerReleasesTheRegistry)
{
    long plain = hvtest::liveCount("HvSocketImpl");
    HvHandle<HvSocketImpl> socket(new HvSocketImpl);
    HvSocketFactory::sAddHandle(kFakeNumber, socket.get());
    socket = HvHandle<HvSocketImpl>();
    ASSERT_NE(nullptr, HvSocketFactory::sm_pHandleTable.load());
    int counter = HvSocketFactory::HvInitializer::sm_Counter;
    {
        // Another one comes and goes: the registry stays.
        HvSocketFactory::HvInitializer extra;
        EXPECT_EQ(counter + 1, HvSocketFactory::HvInitializer::sm_Counter);
    }
    EXPECT_EQ(counter, HvSocketFactory::HvInitializer::sm_Counter);
    EXPECT_NE(nullptr, HvSocketFactory::sm_pHandleTable.load());
    EXPECT_EQ(plain + 1, hvtest::liveCount("HvSocketImpl"));

    // As at process exit, when only one is left: its destruction releases
    // the registry and what it holds. The count is put back afterwards for
    // the instances that really exist.
    HvSocketFactory::HvInitializer::sm_Counter = 0;
    {
        HvSocketFactory::HvInitializer last;
    }
    EXPECT_EQ(0, HvSocketFactory::HvInitializer::sm_Counter);
    EXPECT_EQ(nullptr, HvSocketFactory::sm_pHandleTable.load());
    EXPECT_EQ(plain, hvtest::liveCount("HvSocketImpl"));
    EXPECT_EQ(0u, HvSocketFactory::sSocketNum());
    HvSocketFactory::HvInitializer::sm_Counter = counter;
}
