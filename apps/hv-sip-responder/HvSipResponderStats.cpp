#include "HvSipResponderStats.h"

namespace {

void bump(std::atomic<unsigned long long>& counter)
{
    counter.fetch_add(1, std::memory_order_relaxed);
}

unsigned long long read(const std::atomic<unsigned long long>& counter)
{
    return counter.load(std::memory_order_relaxed);
}

// Counters only grow, but the two snapshots are not taken atomically as a
// whole; never let a line show a wrapped-around difference.
unsigned long long delta(unsigned long long now, unsigned long long before)
{
    return now >= before ? now - before : 0;
}

} // namespace

void HvSipResponderStats::record(const HvSipResponderCore::Result& result)
{
    record(result.outcome, result.status);
}

void HvSipResponderStats::record(HvSipResponderCore::Outcome outcome, unsigned int status)
{
    switch (outcome) {
    case HvSipResponderCore::Outcome::Replied:
        bump(m_requests);
        bump(m_replies);
        switch (status) {
        case 200:
            bump(m_status200);
            break;
        case 400:
            bump(m_status400);
            break;
        case 405:
            bump(m_status405);
            break;
        case 501:
            bump(m_status501);
            break;
        default:
            break;
        }
        break;
    case HvSipResponderCore::Outcome::AckAbsorbed:
        bump(m_requests);
        bump(m_acks);
        break;
    case HvSipResponderCore::Outcome::ResponseDropped:
        bump(m_droppedResponses);
        break;
    case HvSipResponderCore::Outcome::MalformedDropped:
        bump(m_droppedMalformed);
        break;
    }
}

HvSipResponderStats::Snapshot HvSipResponderStats::snapshot() const
{
    Snapshot s;
    s.requests = read(m_requests);
    s.replies = read(m_replies);
    s.status200 = read(m_status200);
    s.status400 = read(m_status400);
    s.status405 = read(m_status405);
    s.status501 = read(m_status501);
    s.acks = read(m_acks);
    s.droppedResponses = read(m_droppedResponses);
    s.droppedMalformed = read(m_droppedMalformed);
    return s;
}

std::string HvSipResponderStats::sStatsLine(const Snapshot& now, const Snapshot& before)
{
    std::string line = "stats requests/s=" + std::to_string(delta(now.requests, before.requests));
    line += " 200=" + std::to_string(delta(now.status200, before.status200));
    line += " 400=" + std::to_string(delta(now.status400, before.status400));
    line += " 405=" + std::to_string(delta(now.status405, before.status405));
    line += " 501=" + std::to_string(delta(now.status501, before.status501));
    line += " acks=" + std::to_string(delta(now.acks, before.acks));
    line += " dropped_responses=" + std::to_string(delta(now.droppedResponses, before.droppedResponses));
    line += " dropped_malformed=" + std::to_string(delta(now.droppedMalformed, before.droppedMalformed));
    return line;
}

std::string HvSipResponderStats::sStoppedLine(const Snapshot& totals)
{
    return "hv-sip-responder stopped: requests=" + std::to_string(totals.requests) +
           " replies=" + std::to_string(totals.replies) + " acks=" + std::to_string(totals.acks) +
           " dropped_responses=" + std::to_string(totals.droppedResponses) +
           " dropped_malformed=" + std::to_string(totals.droppedMalformed);
}
