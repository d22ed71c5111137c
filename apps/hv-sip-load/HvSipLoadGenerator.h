// The load itself: starts OPTIONS transactions on a transport (closed loop:
// a fixed number in flight, each ending one starting the next; open loop:
// new ones paced by the clock), matches every reply to its transaction by
// the top Via branch, checks it, and keeps the counts and latencies the
// report gives. Each transaction's time-out and, on unreliable transports,
// its RFC 3261 timer E retransmissions run on the library's scheduler.
#ifndef HVSIPLOAD_HVSIPLOADGENERATOR_H
#define HVSIPLOAD_HVSIPLOADGENERATOR_H

#include "HvLatencyHistogram.h"
#include "HvSipLoadOptions.h"
#include "HvSipLoadReport.h"
#include "HvSipLoadTransport.h"

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvObserver.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

class HvScheduler;
class HvSipLoadTransaction;

class HvSipLoadGenerator : public HvSipLoadSink {
public:
    // RFC 3261 T2: the longest interval between retransmissions of a
    // non-INVITE request.
    static constexpr unsigned int kT2Ms = 4000;
    // Added to --timeout when waiting for the last transactions, so that the
    // scheduler's own delay never makes a time-out look like a hang.
    static constexpr unsigned int kDrainSlackMs = 2000;

    // Borrows the options and the scheduler for its lifetime. The transport
    // comes later (setTransport) because it needs this object as its sink.
    HvSipLoadGenerator(const HvSipLoadOptions& options, HvScheduler& scheduler);
    ~HvSipLoadGenerator() override;

    HvSipLoadGenerator(const HvSipLoadGenerator&) = delete;
    HvSipLoadGenerator& operator=(const HvSipLoadGenerator&) = delete;

    // Borrows the transport requests go out on; set before run().
    void setTransport(HvSipLoadTransport* transport) { m_transport = transport; }

    // Sends for --duration or --count (or until `interrupted` is set), then
    // waits for the transactions in flight to end, at most --timeout plus
    // kDrainSlackMs after the last send; any still pending then are counted
    // as time-outs. Returns once nothing of the run is pending.
    void run(const std::atomic<bool>& interrupted);

    // The counts and latencies of the run; cpu_us is left to the caller.
    HvSipLoadReport makeReport() const;

    // Problems met during the run (connections lost, sending stopped), one
    // line each, for stderr.
    std::vector<std::string> getErrors() const;

    // Replies with no pending transaction: not failures, but reported.
    std::uint64_t getStrays() const { return m_strays.load(std::memory_order_relaxed); }

    // HvSipLoadSink: a reply (or anything else) from the target.
    void onMessage(const HvByteArray* data, unsigned int offset, unsigned int length) override;
    void onConnectionLost(unsigned int index, const std::string& why) override;

    // A timer of `transaction` is due; `argument` tells which.
    void onTimer(HvSipLoadTransaction& transaction, HvObject* argument);

private:
    enum class Outcome { Success, WrongStatus, Malformed, Timeout };

    // Starts one transaction when the run still sends and the count allows;
    // false when none was started.
    bool startTransaction();
    // Ends a pending transaction with `outcome`; false when it had ended
    // already (the caller then has a stray reply).
    bool finish(HvSipLoadTransaction& transaction, Outcome outcome);
    // Stops sending, noting why when `why` is not empty.
    void stopSending(const std::string& why);
    void addError(const std::string& line);
    // Waits until `done` holds, `deadline` passes or (when `watchInterrupt`)
    // an interrupt arrives, waking on every transaction end.
    template <class Done>
    void waitFor(Done done, std::chrono::steady_clock::time_point deadline, const std::atomic<bool>& interrupted,
                 bool watchInterrupt);

    const HvSipLoadOptions& m_options;
    HvScheduler& m_scheduler;
    HvSipLoadTransport* m_transport;
    std::string m_runId;
    // The two timer kinds, told apart by which of these is the argument.
    HvHandle<HvObject> m_timeoutMark;
    HvHandle<HvObject> m_retransmitMark;

    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_end;

    // Pending transactions by branch.
    mutable std::mutex m_tableMutex;
    std::unordered_map<std::string, HvHandle<HvSipLoadTransaction>> m_table;

    // Sequentially consistent, unlike the counters: a start reads m_sending
    // after counting itself in m_inFlight, the drain reads m_inFlight after
    // clearing m_sending, and one of the two must see the other.
    std::atomic<bool> m_sending;
    // Set while the run is live: connection losses after it are the
    // shutdown's doing and not reported.
    std::atomic<bool> m_live;
    std::atomic<std::uint64_t> m_started;   // transactions claimed (count limit)
    std::atomic<std::uint64_t> m_inFlight;
    std::atomic<unsigned int> m_nextConnection;
    std::atomic<std::uint64_t> m_sent;
    std::atomic<std::uint64_t> m_completed;
    std::atomic<std::uint64_t> m_succeeded;
    std::atomic<std::uint64_t> m_timeouts;
    std::atomic<std::uint64_t> m_wrongStatus;
    std::atomic<std::uint64_t> m_malformed;
    std::atomic<std::uint64_t> m_retransmissions;
    std::atomic<std::uint64_t> m_strays;
    HvLatencyHistogram m_latency;

    // Completions per second of the run, and when the last one happened.
    mutable std::mutex m_secondsMutex;
    std::vector<std::uint64_t> m_perSecond;
    std::chrono::steady_clock::time_point m_lastEnd;

    mutable std::mutex m_errorsMutex;
    std::vector<std::string> m_errors;

    // Woken whenever a transaction ends.
    std::mutex m_waitMutex;
    std::condition_variable m_wake;
};

// One OPTIONS transaction: what identifies and checks it, and its timers.
// It is the observer of its own timers, so the scheduler holds it while one
// is pending.
class HvSipLoadTransaction : public HvObserver {
public:
    HvSipLoadTransaction(HvSipLoadGenerator& generator, unsigned int connection, std::string branch,
                         std::string callId, unsigned int cseq, HvHandle<HvByteArray> request);
    ~HvSipLoadTransaction() override;

    // Passes timer notifications to the generator.
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> argument) override;

    const std::string& getBranch() const { return m_branch; }
    const std::string& getCallId() const { return m_callId; }
    unsigned int getCSeq() const { return m_cseq; }
    unsigned int getConnection() const { return m_connection; }
    HvByteArray* getRequest() const { return m_request.get(); }
    std::chrono::steady_clock::time_point getStart() const { return m_start; }

private:
    friend class HvSipLoadGenerator;

    HvSipLoadGenerator& m_generator;
    unsigned int m_connection;
    std::string m_branch;
    std::string m_callId;
    unsigned int m_cseq;
    HvHandle<HvByteArray> m_request;
    std::chrono::steady_clock::time_point m_start;
    // Set once by whoever ends the transaction first.
    std::atomic<bool> m_done;
    // A provisional reply came: retransmit every T2 from now on.
    std::atomic<bool> m_provisional;
    // Guards the timer identities and the interval, which the timer threads
    // and the ending thread both use.
    std::mutex m_mutex;
    double m_timeoutTimer;
    double m_retransmitTimer;
    unsigned int m_intervalMs;
};

#endif
