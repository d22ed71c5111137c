// hv-sip-load: sends SIP OPTIONS to a target over UDP or TCP and reports
// calls/s, failures by kind and latency percentiles. main() reads the
// options, wires the transport, the scheduler and the generator, handles
// SIGINT/SIGTERM and reports; the work is in the classes beside it.
#include "HvSipLoadGenerator.h"
#include "HvSipLoadOptions.h"
#include "HvSipLoadReport.h"
#include "HvSipTcpClient.h"
#include "HvSipUdpClient.h"

#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvMonitorThread.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvThread.h>

#include <signal.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#ifndef HV_VERSION
#define HV_VERSION "0.0.0"
#endif

namespace {

// Name look-ups of --target give up after this long.
constexpr int kResolveTimeoutMs = 5000;

// Replies larger than this close their connection instead of growing its
// buffer without bound: an OPTIONS reply is a few hundred bytes.
constexpr unsigned int kLargestReply = 65536;

std::atomic<bool> fs_interrupted{false};

extern "C" void onStopSignal(int)
{
    fs_interrupted.store(true, std::memory_order_relaxed);
}

void installSignalHandlers()
{
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A target that closes a connection must not kill the run with SIGPIPE.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGPIPE, &ignore, nullptr);
}

std::string messageOf(const HvHandle<HvException>& failure)
{
    return failure.isNull() ? std::string("unknown failure") : std::string(failure->getMessage().c_str());
}

} // namespace

int main(int argc, char** argv)
{
    HvSipLoadOptions options;
    switch (options.parse(argc, argv)) {
    case HvSipLoadOptions::Action::Help:
        std::fputs(HvSipLoadOptions::sUsage(), stdout);
        return 0;
    case HvSipLoadOptions::Action::Version:
        std::printf("hv-sip-load %s\n", HV_VERSION);
        return 0;
    case HvSipLoadOptions::Action::Error:
        std::fprintf(stderr, "hv-sip-load: %s\nTry 'hv-sip-load --help' for more information.\n",
                     options.getError().c_str());
        return 2;
    case HvSipLoadOptions::Action::Run:
        break;
    }

    installSignalHandlers();
    // A load generator needs no real-time priority, and most users run it
    // without the privilege that priority takes.
    HvThread::sm_bRealTimeScheduling = false;
    HvBufferedInputStream::sm_maxMessageSize.store(kLargestReply);
    // The process object starts the network library the resolver needs.
    HvProcess::sGetCurrent();

    const std::string target = options.targetHost + ":" + std::to_string(options.targetPort);
    HvInetAddress address;
    try {
        address = HvInetAddress(options.targetHost.c_str(), kResolveTimeoutMs);
    } catch (HvHandle<HvException>& failure) {
        std::fprintf(stderr, "hv-sip-load: cannot resolve '%s': %s\n", options.targetHost.c_str(),
                     messageOf(failure).c_str());
        HvThread::sShutdown();
        return 1;
    }

    int status = 0;
    {
        HvSipLoadGenerator generator(options, HvMonitorThread::sGetCurrent()->getScheduler());
        std::unique_ptr<HvSipLoadTransport> transport;
        try {
            if (options.tcp)
                transport.reset(new HvSipTcpClient(address, options.targetPort, options.connections, generator));
            else
                transport.reset(new HvSipUdpClient(address, options.targetPort, generator));
        } catch (HvHandle<HvException>& failure) {
            std::fprintf(stderr, "hv-sip-load: cannot %s %s over %s: %s\n", options.tcp ? "connect to" : "send to",
                         target.c_str(), options.tcp ? "tcp" : "udp", messageOf(failure).c_str());
            HvThread::sShutdown();
            return 1;
        }
        generator.setTransport(transport.get());
        generator.run(fs_interrupted);

        // Every transaction has ended: the library's threads, sockets and
        // timers can go before anything is reported.
        HvThread::sShutdown();
        HvSipLoadReport report = generator.makeReport();
        report.cpuMicroseconds = HvSipLoadReport::sReadCpuMicroseconds();

        const std::vector<std::string> errors = generator.getErrors();
        for (const std::string& line : errors)
            std::fprintf(stderr, "%s\n", line.c_str());
        if (options.json && report.strays != 0)
            std::fprintf(stderr, "hv-sip-load: %llu stray replies (for no pending transaction)\n",
                         static_cast<unsigned long long>(report.strays));
        if (options.countMode && report.sent < options.count && !fs_interrupted.load())
            std::fprintf(stderr, "hv-sip-load: only %llu of %lu transactions were sent\n",
                         static_cast<unsigned long long>(report.sent), options.count);

        const std::string text = options.json ? report.toJson() : report.toTable();
        std::fputs(text.c_str(), stdout);
        std::fflush(stdout);
        status = report.failed != 0 || !errors.empty() ? 1 : 0;
        if (options.countMode && report.sent < options.count && !fs_interrupted.load())
            status = 1;
        generator.setTransport(nullptr);
    }
    return status;
}
