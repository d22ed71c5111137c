#include "HvSipLoadGenerator.h"

#include "HvSipLoadRequest.h"

#include <HvSipMessage.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvScheduler.h>
#include <HvUtil/UUID.h>

#include <algorithm>
#include <cmath>

namespace {

using Clock = std::chrono::steady_clock;

std::uint64_t microsecondsBetween(Clock::time_point from, Clock::time_point to)
{
    if (to <= from)
        return 0;
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(to - from).count());
}

// A run identity for the branches: the UUID's time and random node parts,
// so two runs against the same target never share a branch.
std::string makeRunId()
{
    char uuid[40];
    UUID::uuid_create_string(uuid);
    std::string text(uuid);
    return text.substr(0, 8) + text.substr(text.size() - 8);
}

// Marks a timer's kind; compared by identity only.
class TimerMark : public HvObject {
};

} // namespace

// ---------------------------------------------------------------- transaction

HvSipLoadTransaction::HvSipLoadTransaction(HvSipLoadGenerator& generator, unsigned int connection,
                                           std::string branch, std::string callId, unsigned int cseq,
                                           HvHandle<HvByteArray> request)
    : m_generator(generator),
      m_connection(connection),
      m_branch(std::move(branch)),
      m_callId(std::move(callId)),
      m_cseq(cseq),
      m_request(std::move(request)),
      m_done(false),
      m_provisional(false),
      m_timeoutTimer(0.0),
      m_retransmitTimer(0.0),
      m_intervalMs(0)
{
}

HvSipLoadTransaction::~HvSipLoadTransaction() = default;

void HvSipLoadTransaction::onNotification(HvHandle<HvObservable>, HvHandle<HvObject> argument)
{
    // The scheduler's reference is gone once it has queued the timer; this
    // one keeps the transaction alive while the generator handles it.
    HvHandle<HvSipLoadTransaction> self(this);
    m_generator.onTimer(*this, argument.get());
}

// ---------------------------------------------------------------- generator

HvSipLoadGenerator::HvSipLoadGenerator(const HvSipLoadOptions& options, HvScheduler& scheduler)
    : m_options(options),
      m_scheduler(scheduler),
      m_transport(nullptr),
      m_runId(makeRunId()),
      m_timeoutMark(new TimerMark),
      m_retransmitMark(new TimerMark),
      m_sending(false),
      m_live(false),
      m_started(0),
      m_inFlight(0),
      m_nextConnection(0),
      m_sent(0),
      m_completed(0),
      m_succeeded(0),
      m_timeouts(0),
      m_wrongStatus(0),
      m_malformed(0),
      m_retransmissions(0),
      m_strays(0)
{
}

HvSipLoadGenerator::~HvSipLoadGenerator() = default;

void HvSipLoadGenerator::addError(const std::string& line)
{
    std::lock_guard<std::mutex> lock(m_errorsMutex);
    if (std::find(m_errors.begin(), m_errors.end(), line) == m_errors.end())
        m_errors.push_back(line);
}

std::vector<std::string> HvSipLoadGenerator::getErrors() const
{
    std::lock_guard<std::mutex> lock(m_errorsMutex);
    return m_errors;
}

void HvSipLoadGenerator::stopSending(const std::string& why)
{
    m_sending.store(false);
    if (!why.empty())
        addError(why);
    std::lock_guard<std::mutex> lock(m_waitMutex);
    m_wake.notify_all();
}

bool HvSipLoadGenerator::startTransaction()
{
    // Counted in flight before anything else, so that the drain never sees
    // zero while a start is under way.
    m_inFlight.fetch_add(1);
    auto abandon = [this] {
        if (m_inFlight.fetch_sub(1) == 1) {
            std::lock_guard<std::mutex> lock(m_waitMutex);
            m_wake.notify_all();
        }
        return false;
    };
    if (!m_sending.load() || m_transport == nullptr)
        return abandon();

    std::uint64_t number = m_started.load(std::memory_order_relaxed);
    do {
        if (m_options.countMode && number >= m_options.count)
            return abandon();
    } while (!m_started.compare_exchange_weak(number, number + 1, std::memory_order_relaxed));

    const unsigned int connections = m_transport->getConnectionCount();
    unsigned int connection = 0;
    bool found = false;
    for (unsigned int tried = 0; tried < connections && !found; ++tried) {
        connection = m_nextConnection.fetch_add(1, std::memory_order_relaxed) % connections;
        found = m_transport->isUp(connection);
    }
    if (!found) {
        m_started.fetch_sub(1, std::memory_order_relaxed);
        stopSending("hv-sip-load: sending stopped: no connection to the target is open");
        return abandon();
    }

    char uuid[40];
    UUID::uuid_create_string(uuid);
    HvSipLoadRequest::Fields fields;
    fields.transport = m_transport->getViaTransport();
    fields.localHost = m_transport->getLocalHost(connection);
    fields.localPort = m_transport->getLocalPort(connection);
    fields.targetHost = m_options.targetHost;
    fields.targetPort = m_options.targetPort;
    fields.branch = HvSipLoadRequest::sMakeBranch(m_runId, number);
    fields.callId = std::string(uuid) + "@" + fields.localHost;
    // CSeq numbers must stay below 2**31 (RFC 3261 section 8.1.1.5).
    fields.cseq = static_cast<unsigned int>(number % 2147483647u) + 1;
    fields.fromTag = m_runId.substr(0, 8) + "-" + std::to_string(number);
    const std::string text = HvSipLoadRequest::sBuild(fields);

    HvHandle<HvSipLoadTransaction> transaction(new HvSipLoadTransaction(
        *this, connection, fields.branch, fields.callId, fields.cseq,
        HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data())));
    {
        std::lock_guard<std::mutex> lock(m_tableMutex);
        m_table.emplace(fields.branch, transaction);
    }
    {
        std::lock_guard<std::mutex> lock(transaction->m_mutex);
        transaction->m_start = Clock::now();
        transaction->m_timeoutTimer =
            m_scheduler.schedule(m_options.timeoutMs, transaction.get(), m_timeoutMark.get());
        if (m_options.retransmit && !m_transport->isReliable()) {
            transaction->m_intervalMs = m_options.t1Ms;
            transaction->m_retransmitTimer =
                m_scheduler.schedule(m_options.t1Ms, transaction.get(), m_retransmitMark.get());
        }
    }
    m_sent.fetch_add(1, std::memory_order_relaxed);
    m_transport->send(connection, transaction->getRequest());
    return true;
}

bool HvSipLoadGenerator::finish(HvSipLoadTransaction& transaction, Outcome outcome)
{
    if (transaction.m_done.exchange(true))
        return false;
    const Clock::time_point now = Clock::now();
    // Keeps the transaction alive until this function is done with it; the
    // table's reference goes next.
    HvHandle<HvSipLoadTransaction> hold(&transaction);
    {
        std::lock_guard<std::mutex> lock(m_tableMutex);
        m_table.erase(transaction.m_branch);
    }
    {
        std::lock_guard<std::mutex> lock(transaction.m_mutex);
        if (transaction.m_timeoutTimer != 0.0)
            m_scheduler.cancel(&transaction, transaction.m_timeoutTimer);
        if (transaction.m_retransmitTimer != 0.0)
            m_scheduler.cancel(&transaction, transaction.m_retransmitTimer);
        transaction.m_timeoutTimer = 0.0;
        transaction.m_retransmitTimer = 0.0;
    }

    switch (outcome) {
    case Outcome::Success:
        m_succeeded.fetch_add(1, std::memory_order_relaxed);
        break;
    case Outcome::WrongStatus:
        m_wrongStatus.fetch_add(1, std::memory_order_relaxed);
        break;
    case Outcome::Malformed:
        m_malformed.fetch_add(1, std::memory_order_relaxed);
        break;
    case Outcome::Timeout:
        m_timeouts.fetch_add(1, std::memory_order_relaxed);
        break;
    }
    if (outcome != Outcome::Timeout) {
        m_completed.fetch_add(1, std::memory_order_relaxed);
        m_latency.record(microsecondsBetween(transaction.m_start, now));
        const std::size_t second = static_cast<std::size_t>(microsecondsBetween(m_start, now) / 1000000u);
        std::lock_guard<std::mutex> lock(m_secondsMutex);
        if (m_perSecond.size() <= second)
            m_perSecond.resize(second + 1, 0);
        ++m_perSecond[second];
    }
    {
        std::lock_guard<std::mutex> lock(m_secondsMutex);
        if (now > m_lastEnd)
            m_lastEnd = now;
    }

    // The successor is counted in flight before this one leaves, so the
    // drain never sees zero while a closed loop is still going.
    if (!m_options.openLoop && m_sending.load())
        startTransaction();
    const bool last = m_inFlight.fetch_sub(1) == 1;
    if (last) {
        std::lock_guard<std::mutex> lock(m_waitMutex);
        m_wake.notify_all();
    }
    return true;
}

void HvSipLoadGenerator::onTimer(HvSipLoadTransaction& transaction, HvObject* argument)
{
    if (argument == m_timeoutMark.get()) {
        {
            // This timer has fired: nothing to cancel for it any more.
            std::lock_guard<std::mutex> lock(transaction.m_mutex);
            transaction.m_timeoutTimer = 0.0;
        }
        finish(transaction, Outcome::Timeout);
        return;
    }
    if (argument != m_retransmitMark.get())
        return;
    std::lock_guard<std::mutex> lock(transaction.m_mutex);
    transaction.m_retransmitTimer = 0.0;
    // finish() cancels under this mutex, so a transaction seen pending here
    // has its next timer cancelled by it.
    if (transaction.m_done.load() || m_transport == nullptr)
        return;
    // RFC 3261 section 17.1.2.2: the interval doubles up to T2, and is T2
    // once a provisional reply has come.
    transaction.m_intervalMs = transaction.m_provisional.load(std::memory_order_relaxed)
                                   ? kT2Ms
                                   : std::min(transaction.m_intervalMs * 2, kT2Ms);
    if (transaction.m_intervalMs == 0)
        transaction.m_intervalMs = kT2Ms;
    m_retransmissions.fetch_add(1, std::memory_order_relaxed);
    m_transport->send(transaction.m_connection, transaction.getRequest());
    transaction.m_retransmitTimer =
        m_scheduler.schedule(transaction.m_intervalMs, &transaction, m_retransmitMark.get());
}

void HvSipLoadGenerator::onMessage(const HvByteArray* data, unsigned int offset, unsigned int length)
{
    HvSipMessage reply;
    const HvSipMessage::Error error = reply.parse(data, offset, length);
    const std::string branch = HvSipLoadRequest::sTopBranch(reply);

    HvHandle<HvSipLoadTransaction> transaction;
    if (!branch.empty()) {
        std::lock_guard<std::mutex> lock(m_tableMutex);
        auto found = m_table.find(branch);
        if (found != m_table.end())
            transaction = found->second;
    }
    if (transaction.isNull()) {
        // Only final replies count as strays: a late 1xx, arriving after the
        // final reply it preceded on another pool thread, says nothing.
        if (reply.isRequest() || reply.getStatusCode() >= 200 || error != HvSipMessage::Error::None)
            m_strays.fetch_add(1, std::memory_order_relaxed);
        return;
    }

    const HvSipLoadRequest::Verdict verdict =
        HvSipLoadRequest::sCheck(reply, error, transaction->getCallId(), transaction->getCSeq());
    Outcome outcome = Outcome::Malformed;
    switch (verdict) {
    case HvSipLoadRequest::Verdict::Provisional:
        transaction->m_provisional.store(true, std::memory_order_relaxed);
        return;
    case HvSipLoadRequest::Verdict::Success:
        outcome = Outcome::Success;
        break;
    case HvSipLoadRequest::Verdict::WrongStatus:
        outcome = Outcome::WrongStatus;
        break;
    case HvSipLoadRequest::Verdict::Malformed:
        outcome = Outcome::Malformed;
        break;
    }
    if (!finish(*transaction, outcome))
        m_strays.fetch_add(1, std::memory_order_relaxed);
}

void HvSipLoadGenerator::onConnectionLost(unsigned int index, const std::string& why)
{
    // A target may close as soon as it answered everything it was sent (a
    // SIPp server told to handle so many calls does): once nothing is in
    // flight and nothing more will be started, a lost connection lost nothing.
    const bool finished = m_inFlight.load() == 0 &&
                          (!m_sending.load() ||
                           (m_options.countMode && m_started.load(std::memory_order_relaxed) >= m_options.count));
    if (!m_live.load(std::memory_order_relaxed) || finished)
        return;
    addError("hv-sip-load: connection " + std::to_string(index + 1) + " to " + m_options.targetHost + ":" +
             std::to_string(m_options.targetPort) + " lost: " + why);
}

template <class Done>
void HvSipLoadGenerator::waitFor(Done done, Clock::time_point deadline, const std::atomic<bool>& interrupted,
                                 bool watchInterrupt)
{
    std::unique_lock<std::mutex> lock(m_waitMutex);
    while (!done() && Clock::now() < deadline) {
        if (watchInterrupt && interrupted.load(std::memory_order_relaxed))
            return;
        // Bounded slices: the interrupt flag is set by a signal handler,
        // which cannot notify.
        m_wake.wait_until(lock, std::min(deadline, Clock::now() + std::chrono::milliseconds(50)));
    }
}

void HvSipLoadGenerator::run(const std::atomic<bool>& interrupted)
{
    m_start = Clock::now();
    m_lastEnd = m_start;
    m_live.store(true, std::memory_order_relaxed);
    m_sending.store(true);

    const Clock::time_point never = Clock::time_point::max();
    const Clock::time_point end =
        m_options.countMode
            ? never
            : m_start + std::chrono::microseconds(static_cast<long long>(m_options.durationSeconds * 1e6));

    if (!m_options.openLoop) {
        for (unsigned int index = 0; index < m_options.concurrency; ++index) {
            if (!startTransaction())
                break;
        }
        waitFor(
            [this] {
                if (!m_sending.load())
                    return true;
                return m_options.countMode && m_started.load(std::memory_order_relaxed) >= m_options.count;
            },
            end, interrupted, true);
    } else {
        // Paced by the clock: the n-th transaction is due at start + n/rate
        // whatever the sleeps overshot, so the rate does not drift.
        for (std::uint64_t index = 0;; ++index) {
            if (m_options.countMode && index >= m_options.count)
                break;
            const Clock::time_point due =
                m_start + std::chrono::nanoseconds(static_cast<long long>(std::llround(
                              static_cast<double>(index) * 1e9 / m_options.rate)));
            if (due >= end || !m_sending.load())
                break;
            waitFor([] { return false; }, due, interrupted, true);
            if (interrupted.load(std::memory_order_relaxed) || Clock::now() >= end)
                break;
            if (!startTransaction())
                break;
        }
    }
    m_sending.store(false);

    // Every transaction ends by its reply or its time-out; the slack only
    // guards against a scheduler that stopped.
    const Clock::time_point drainDeadline =
        Clock::now() + std::chrono::milliseconds(m_options.timeoutMs + kDrainSlackMs);
    waitFor([this] { return m_inFlight.load() == 0; }, drainDeadline, interrupted, false);

    std::vector<HvHandle<HvSipLoadTransaction>> overdue;
    {
        std::lock_guard<std::mutex> lock(m_tableMutex);
        for (auto& entry : m_table)
            overdue.push_back(entry.second);
    }
    for (HvHandle<HvSipLoadTransaction>& transaction : overdue)
        finish(*transaction, Outcome::Timeout);
    if (!overdue.empty())
        addError("hv-sip-load: " + std::to_string(overdue.size()) +
                 " transactions were still pending after the time-out and are counted as timed out");

    m_live.store(false, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(m_secondsMutex);
    m_end = std::max(m_lastEnd, m_start);
}

HvSipLoadReport HvSipLoadGenerator::makeReport() const
{
    HvSipLoadReport report;
    report.target = m_options.targetHost + ":" + std::to_string(m_options.targetPort);
    report.transport = m_options.tcp ? "tcp" : "udp";
    report.connections = m_options.tcp ? m_options.connections : 1;
    report.openLoop = m_options.openLoop;
    report.concurrency = m_options.openLoop ? 0 : m_options.concurrency;
    report.rate = m_options.openLoop ? m_options.rate : 0.0;
    report.durationSeconds = static_cast<double>(microsecondsBetween(m_start, m_end)) / 1e6;
    report.sent = m_sent.load(std::memory_order_relaxed);
    report.completed = m_completed.load(std::memory_order_relaxed);
    report.succeeded = m_succeeded.load(std::memory_order_relaxed);
    report.timeouts = m_timeouts.load(std::memory_order_relaxed);
    report.wrongStatus = m_wrongStatus.load(std::memory_order_relaxed);
    report.malformed = m_malformed.load(std::memory_order_relaxed);
    report.failed = report.timeouts + report.wrongStatus + report.malformed;
    report.retransmissions = m_retransmissions.load(std::memory_order_relaxed);
    report.strays = m_strays.load(std::memory_order_relaxed);
    report.takeLatencies(m_latency);
    {
        std::lock_guard<std::mutex> lock(m_secondsMutex);
        report.perSecond = m_perSecond;
    }
    // Every second of the run is listed, those without completions as 0.
    const std::size_t seconds = static_cast<std::size_t>(std::ceil(report.durationSeconds));
    if (report.perSecond.size() < seconds)
        report.perSecond.resize(seconds, 0);
    return report;
}
