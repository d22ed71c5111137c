#include "HvSipResponderStats.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

using Outcome = HvSipResponderCore::Outcome;

} // namespace

TEST(HvSipResponderStats, StartsAtZero)
{
    HvSipResponderStats stats;
    HvSipResponderStats::Snapshot s = stats.snapshot();
    EXPECT_EQ(0u, s.requests + s.replies + s.status200 + s.status400 + s.status405 + s.status501 + s.acks +
                      s.droppedResponses + s.droppedMalformed);
}

TEST(HvSipResponderStats, EachOutcomeCountsWhereItBelongs)
{
    HvSipResponderStats stats;
    stats.record(Outcome::Replied, 200);
    stats.record(Outcome::Replied, 200);
    stats.record(Outcome::Replied, 400);
    stats.record(Outcome::Replied, 405);
    stats.record(Outcome::Replied, 501);
    stats.record(Outcome::Replied, 500);
    stats.record(Outcome::AckAbsorbed, 0);
    stats.record(Outcome::ResponseDropped, 0);
    stats.record(Outcome::ResponseDropped, 0);
    stats.record(Outcome::MalformedDropped, 0);
    HvSipResponderStats::Snapshot s = stats.snapshot();
    EXPECT_EQ(7u, s.requests);
    EXPECT_EQ(6u, s.replies);
    EXPECT_EQ(2u, s.status200);
    EXPECT_EQ(1u, s.status400);
    EXPECT_EQ(1u, s.status405);
    EXPECT_EQ(1u, s.status501);
    EXPECT_EQ(1u, s.acks);
    EXPECT_EQ(2u, s.droppedResponses);
    EXPECT_EQ(1u, s.droppedMalformed);
}

TEST(HvSipResponderStats, ResultIsCountedByItsOutcomeAndStatus)
{
    HvSipResponderStats stats;
    HvSipResponderCore::Result result;
    result.outcome = Outcome::Replied;
    result.status = 405;
    stats.record(result);
    result.outcome = Outcome::MalformedDropped;
    result.status = 0;
    stats.record(result);
    HvSipResponderStats::Snapshot s = stats.snapshot();
    EXPECT_EQ(1u, s.requests);
    EXPECT_EQ(1u, s.status405);
    EXPECT_EQ(1u, s.droppedMalformed);
}

TEST(HvSipResponderStats, StatsLineGivesTheCountsBetweenTwoSnapshots)
{
    HvSipResponderStats stats;
    stats.record(Outcome::Replied, 200);
    stats.record(Outcome::AckAbsorbed, 0);
    HvSipResponderStats::Snapshot before = stats.snapshot();
    for (int i = 0; i < 5; ++i)
        stats.record(Outcome::Replied, 200);
    stats.record(Outcome::Replied, 400);
    stats.record(Outcome::Replied, 405);
    stats.record(Outcome::Replied, 405);
    stats.record(Outcome::Replied, 501);
    stats.record(Outcome::AckAbsorbed, 0);
    stats.record(Outcome::ResponseDropped, 0);
    stats.record(Outcome::MalformedDropped, 0);
    stats.record(Outcome::MalformedDropped, 0);
    stats.record(Outcome::MalformedDropped, 0);
    EXPECT_EQ("stats requests/s=10 200=5 400=1 405=2 501=1 acks=1 dropped_responses=1 dropped_malformed=3",
              HvSipResponderStats::sStatsLine(stats.snapshot(), before));
}

TEST(HvSipResponderStats, QuietSecondIsAllZeros)
{
    HvSipResponderStats stats;
    stats.record(Outcome::Replied, 200);
    HvSipResponderStats::Snapshot now = stats.snapshot();
    EXPECT_EQ("stats requests/s=0 200=0 400=0 405=0 501=0 acks=0 dropped_responses=0 dropped_malformed=0",
              HvSipResponderStats::sStatsLine(now, now));
}

TEST(HvSipResponderStats, StatsLineNeverShowsAWrappedDifference)
{
    HvSipResponderStats::Snapshot later;
    later.requests = 5;
    later.status200 = 5;
    HvSipResponderStats::Snapshot earlier;
    EXPECT_EQ("stats requests/s=0 200=0 400=0 405=0 501=0 acks=0 dropped_responses=0 dropped_malformed=0",
              HvSipResponderStats::sStatsLine(earlier, later));
}

TEST(HvSipResponderStats, StoppedLineGivesTheTotals)
{
    HvSipResponderStats stats;
    stats.record(Outcome::Replied, 200);
    stats.record(Outcome::Replied, 501);
    stats.record(Outcome::AckAbsorbed, 0);
    stats.record(Outcome::ResponseDropped, 0);
    stats.record(Outcome::MalformedDropped, 0);
    stats.record(Outcome::MalformedDropped, 0);
    EXPECT_EQ("hv-sip-responder stopped: requests=3 replies=2 acks=1 dropped_responses=1 dropped_malformed=2",
              HvSipResponderStats::sStoppedLine(stats.snapshot()));
}

TEST(HvSipResponderStats, CountsFromManyThreadsAreAllKept)
{
    HvSipResponderStats stats;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&stats] {
            for (int i = 0; i < 10000; ++i) {
                stats.record(Outcome::Replied, 200);
                stats.record(Outcome::MalformedDropped, 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    HvSipResponderStats::Snapshot s = stats.snapshot();
    EXPECT_EQ(40000u, s.requests);
    EXPECT_EQ(40000u, s.status200);
    EXPECT_EQ(40000u, s.droppedMalformed);
}
