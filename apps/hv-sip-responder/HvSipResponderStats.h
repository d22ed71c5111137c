// Counters of hv-sip-responder, bumped by every thread that handles a message
// and read by the once-a-second printer and at exit. Plain relaxed atomics:
// each counter is exact on its own; a line may mix counts taken a moment
// apart, which a per-second report can live with.
#ifndef HVSIP_RESPONDER_HVSIPRESPONDERSTATS_H
#define HVSIP_RESPONDER_HVSIPRESPONDERSTATS_H

#include <HvSipResponderCore.h>

#include <atomic>
#include <string>

class HvSipResponderStats {
public:
    // The counters at one moment.
    struct Snapshot {
        unsigned long long requests = 0;   // requests answered or absorbed (ACK)
        unsigned long long replies = 0;    // replies handed to an output dispatcher
        unsigned long long status200 = 0;
        unsigned long long status400 = 0;
        unsigned long long status405 = 0;
        unsigned long long status501 = 0;
        unsigned long long acks = 0;
        unsigned long long droppedResponses = 0;
        unsigned long long droppedMalformed = 0;
    };

    // Counts the outcome of one message: a reply counts as a request, a reply
    // and its status; an ACK as a request and an ack; the drops by kind.
    void record(const HvSipResponderCore::Result& result);
    // Counts one message by its outcome and reply status directly.
    void record(HvSipResponderCore::Outcome outcome, unsigned int status);

    // Reads every counter.
    Snapshot snapshot() const;

    // "stats requests/s=<n> 200=<n> 400=<n> 405=<n> 501=<n> acks=<n>
    // dropped_responses=<n> dropped_malformed=<n>": what happened between
    // `before` and `now`.
    static std::string sStatsLine(const Snapshot& now, const Snapshot& before);
    // "hv-sip-responder stopped: requests=<n> replies=<n> acks=<n>
    // dropped_responses=<n> dropped_malformed=<n>": the totals.
    static std::string sStoppedLine(const Snapshot& totals);

private:
    std::atomic<unsigned long long> m_requests{0};
    std::atomic<unsigned long long> m_replies{0};
    std::atomic<unsigned long long> m_status200{0};
    std::atomic<unsigned long long> m_status400{0};
    std::atomic<unsigned long long> m_status405{0};
    std::atomic<unsigned long long> m_status501{0};
    std::atomic<unsigned long long> m_acks{0};
    std::atomic<unsigned long long> m_droppedResponses{0};
    std::atomic<unsigned long long> m_droppedMalformed{0};
};

#endif
