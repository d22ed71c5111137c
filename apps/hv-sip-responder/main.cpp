// hv-sip-responder: a stateless SIP responder on UDP and TCP, wired the way
// the library means a stack to be built. main() reads the options, binds,
// starts the fronts, waits for SIGINT or SIGTERM, runs the library's orderly
// shutdown and checks that everything allocated through the library's
// allocators was given back.
#include "HvSipResponderOptions.h"
#include "HvSipResponderStats.h"
#include "HvSipTcpFront.h"
#include "HvSipUdpFront.h"

#include <HvSipReply.h>

#include <HvUtil/HvDatagramSocket.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvTCPODispatcher.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvUDPIDispatcher.h>
#include <HvUtil/HvUDPODispatcher.h>

#include <Velmora/MemAllocator.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#ifndef HV_VERSION
#define HV_VERSION "0"
#endif

namespace {

const char kProgram[] = "hv-sip-responder";

// Exit statuses of the command line contract.
const int kExitLeak = 1;
const int kExitUsage = 2;
const int kExitBind = 3;

// How long the stop sequence waits for handlers in progress and for the
// output queues to drain before it shuts down regardless.
const std::chrono::milliseconds kDrainLimit(3000);

using TagCounts = std::vector<std::pair<std::string, Velmora::AllocationStats>>;

// Whether this process may start SCHED_RR threads: the library's threads
// then run real-time as it intends; without the privilege (a normal user)
// fork() would fail, so they inherit ordinary scheduling instead. Asked of
// the system by starting one such thread, exactly as fork() would.
bool canUseRealTimeScheduling()
{
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    sched_param parameter{};
    parameter.sched_priority = (sched_get_priority_max(SCHED_RR) + sched_get_priority_min(SCHED_RR)) / 2;
    bool ready = pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED) == 0 &&
                 pthread_attr_setschedpolicy(&attributes, SCHED_RR) == 0 &&
                 pthread_attr_setschedparam(&attributes, &parameter) == 0;
    pthread_t probe;
    bool started = ready && pthread_create(&probe, &attributes, [](void*) -> void* { return nullptr; }, nullptr) == 0;
    pthread_attr_destroy(&attributes);
    if (started)
        pthread_join(probe, nullptr);
    return started;
}

std::string messageOf(const HvHandle<HvException>& failure)
{
    return failure.isNull() ? std::string("unknown failure") : std::string(failure->getMessage().c_str());
}

// Prints the --stats line once a second until stopped.
class StatsPrinter {
public:
    explicit StatsPrinter(const HvSipResponderStats& stats) : m_stats(stats) {}
    ~StatsPrinter() { stop(); }

    void start()
    {
        m_thread = std::thread([this] { run(); });
    }
    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopped = true;
        }
        m_wakeup.notify_all();
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    void run()
    {
        // From zero, not from a snapshot taken here: this thread may start
        // after the first requests were counted, and they belong to the
        // first line.
        HvSipResponderStats::Snapshot before;
        auto next = std::chrono::steady_clock::now() + std::chrono::seconds(1);
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            if (m_wakeup.wait_until(lock, next, [this] { return m_stopped; }))
                return;
            HvSipResponderStats::Snapshot now = m_stats.snapshot();
            std::string line = HvSipResponderStats::sStatsLine(now, before) + "\n";
            std::fputs(line.c_str(), stdout);
            std::fflush(stdout);
            before = now;
            next += std::chrono::seconds(1);
        }
    }

    const HvSipResponderStats& m_stats;
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_wakeup;
    bool m_stopped = false;
};

// Waits until the output dispatchers have sent what is queued (bounded), so
// that no reply (and the socket it holds) is left in a queue at shutdown.
void drainOutputQueues()
{
    auto deadline = std::chrono::steady_clock::now() + kDrainLimit;
    for (;;) {
        HvEventQueue* udp = HvUDPODispatcher::getUDPEventQueue();
        HvTCPODispatcher* tcp = HvTCPODispatcher::sFind();
        bool empty = (!udp || udp->getSize() == 0) && (!tcp || tcp->getEventQueue()->getSize() == 0);
        if (empty || std::chrono::steady_clock::now() > deadline)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Makes the library objects that live until the process ends (see main())
// and gives the allocator counts once they exist.
TagCounts makeProcessWideObjects()
{
    HvMutex::sInitialize();
    HvProcess::sGetCurrent();
    HvTCPODispatcher::getInstance();
    // The socket registry is made by the first socket registered: one
    // datagram socket on the loopback interface, closed again at once.
    try {
        HvInetAddress loopback;
        loopback.setAddress(htonl(INADDR_LOOPBACK));
        HvHandle<HvDatagramSocket> first(new HvDatagramSocket(0, loopback, false, 1));
        HvSipFront::sRelease(*first);
    } catch (HvHandle<HvException>&) {
        // No socket at all: binding the fronts fails next and says why.
    }
    return Velmora::allAllocationStats();
}

// Compares every tag with its count at start; prints a line per leaked tag
// on stderr (and, when verbose, every tag on stdout). True when none leaked.
bool checkAllocations(const TagCounts& atStart, bool verbose)
{
    std::map<std::string, long> startCounts;
    for (const auto& entry : atStart)
        startCounts[entry.first] = entry.second.liveCount;
    bool clean = true;
    for (const auto& entry : Velmora::allAllocationStats()) {
        auto found = startCounts.find(entry.first);
        long start = found == startCounts.end() ? 0 : found->second;
        long now = entry.second.liveCount;
        if (verbose)
            std::printf("%s: tag %s live at start=%ld at end=%ld\n", kProgram, entry.first.c_str(), start, now);
        if (now != start) {
            std::fprintf(stderr, "%s: leak: %s live=%ld at start=%ld\n", kProgram, entry.first.c_str(), now, start);
            clean = false;
        }
    }
    std::fflush(stdout);
    std::fflush(stderr);
    return clean;
}

} // namespace

int main(int argc, char** argv)
{
    HvSipResponderOptions options;
    switch (options.parse(argc, argv)) {
    case HvSipResponderOptions::Action::Help:
        std::fputs(HvSipResponderOptions::sUsage(), stdout);
        return 0;
    case HvSipResponderOptions::Action::Version:
        std::printf("%s %s\n", kProgram, HV_VERSION);
        return 0;
    case HvSipResponderOptions::Action::UsageError:
        std::fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProgram,
                     options.getError().c_str(), kProgram);
        return kExitUsage;
    case HvSipResponderOptions::Action::Run:
        break;
    }

    // Blocked before any thread exists, so every thread inherits the mask
    // and the signals wait for sigwait() below: nothing runs in a handler.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // Sends already pass MSG_NOSIGNAL; this covers any other write to a peer
    // that has gone.
    signal(SIGPIPE, SIG_IGN);

    HvThread::sm_bRealTimeScheduling = options.getRealTime() && canUseRealTimeScheduling();

    // Some library objects live, by design, until the process ends: the
    // object mutex pool, the process object (deleted by the ACE object
    // manager at exit), the TCP output dispatcher (released by the singleton
    // registry at exit) and the socket registry (released by the last socket
    // factory initializer at exit), each with the mutexes it owns. They are
    // made first and the allocator snapshot is taken after them, so that the
    // check at the end holds every object this program makes per run
    // (sockets, fronts, connections, threads, the UDP dispatchers, events,
    // packets and byte arrays) to a count of zero, and nothing else.
    const TagCounts atStart = makeProcessWideObjects();

    HvInetAddress address;
    address.setAddress(options.getAddressValue());
    HvSipResponderStats stats;
    HvHandle<HvSipUdpFront> udp(new HvSipUdpFront(stats));
    HvHandle<HvSipTcpFront> tcp(new HvSipTcpFront(stats));

    // A port in use ends the program before either front has started.
    try {
        udp->open(address, options.getUdpPort());
    } catch (HvHandle<HvException>& failure) {
        std::fprintf(stderr, "%s: cannot bind udp %s:%u: %s\n", kProgram, options.getAddress().c_str(),
                     options.getUdpPort(), messageOf(failure).c_str());
        HvThread::sShutdown();
        return kExitBind;
    }
    try {
        tcp->open(address, options.getTcpPort());
    } catch (HvHandle<HvException>& failure) {
        std::fprintf(stderr, "%s: cannot bind tcp %s:%u: %s\n", kProgram, options.getAddress().c_str(),
                     options.getTcpPort(), messageOf(failure).c_str());
        udp->close();
        HvThread::sShutdown();
        return kExitBind;
    }

    // The datagram dispatchers are made here, on the main thread, before any
    // other thread could race to make them (their first use takes no lock).
    HvUDPIDispatcher::getInstance();
    HvUDPODispatcher::getInstance();
    try {
        udp->start();
        tcp->start();
    } catch (HvHandle<HvException>& failure) {
        std::fprintf(stderr, "%s: cannot start: %s\n", kProgram, messageOf(failure).c_str());
        HvThread::sShutdown();
        return kExitBind;
    }

    const std::string listenAddress = HvSipReply::sDottedQuad(options.getAddressValue());
    std::printf("%s listening on udp %s:%u tcp %s:%u\n", kProgram, listenAddress.c_str(), udp->getBoundPort(),
                listenAddress.c_str(), tcp->getBoundPort());
    std::fflush(stdout);

    StatsPrinter printer(stats);
    if (options.getStats())
        printer.start();

    int received = 0;
    while (sigwait(&stopSignals, &received) != 0) {
    }

    // No reply is queued once the fronts have stopped; what is queued is
    // sent before the dispatchers are told to end.
    udp->stop(kDrainLimit);
    tcp->stop(kDrainLimit);
    drainOutputQueues();
    HvThread::sShutdown();
    printer.stop();

    // Every library thread has ended; what main holds goes now.
    udp->close();
    tcp->close();
    udp = HvHandle<HvSipUdpFront>();
    tcp = HvHandle<HvSipTcpFront>();

    std::printf("%s\n", HvSipResponderStats::sStoppedLine(stats.snapshot()).c_str());
    std::fflush(stdout);
    return checkAllocations(atStart, options.getVerbose()) ? 0 : kExitLeak;
}
