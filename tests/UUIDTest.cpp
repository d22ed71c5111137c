#include <HvUtil/UUID.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string newUuid()
{
    char text[37];
    UUID::uuid_create_string(text);
    return std::string(text, 36);
}

// True when the text is a version 1, variant 10 UUID in lower case:
// xxxxxxxx-xxxx-1xxx-[89ab]xxx-xxxxxxxxxxxx.
bool wellFormed(const std::string& text)
{
    if (text.size() != 36)
        return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return text[14] == '1' && std::strchr("89ab", text[19]) != nullptr;
}

std::uint64_t hexValue(const std::string& digits)
{
    return std::stoull(digits, nullptr, 16);
}

// The 60-bit timestamp of a UUID text: 100 ns units since 15 October 1582.
std::uint64_t timestampOf(const std::string& text)
{
    std::uint64_t low = hexValue(text.substr(0, 8));
    std::uint64_t mid = hexValue(text.substr(9, 4));
    std::uint64_t high = hexValue(text.substr(14, 4)) & 0x0FFF;
    return (high << 48) | (mid << 32) | low;
}

std::uint64_t nowInUuidUnits()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<std::uint64_t>(now.tv_sec) * 10000000u + static_cast<std::uint64_t>(now.tv_usec) * 10u +
           0x01B21DD213814000ULL;
}

} // namespace

TEST(UUID, WritesThirtySixCharactersAndANulOnly)
{
    char text[48];
    std::memset(text, '#', sizeof text);
    UUID::uuid_create_string(text);
    EXPECT_EQ('\0', text[36]);
    for (std::size_t i = 37; i < sizeof text; ++i)
        EXPECT_EQ('#', text[i]) << "byte " << i << " was written";
    EXPECT_TRUE(wellFormed(text)) << text;
}

TEST(UUID, GroupsAreLowerCaseHexJoinedByDashes)
{
    std::string text = newUuid();
    EXPECT_EQ('-', text[8]);
    EXPECT_EQ('-', text[13]);
    EXPECT_EQ('-', text[18]);
    EXPECT_EQ('-', text[23]);
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23)
            continue;
        EXPECT_NE(std::string::npos, std::string("0123456789abcdef").find(text[i])) << text;
    }
}

TEST(UUID, TwoInARowDiffer)
{
    std::string first = newUuid();
    std::string second = newUuid();
    EXPECT_NE(first, second);
}

TEST(UUID, VersionAndVariantAreAlwaysSet)
{
    for (int i = 0; i < 10000; ++i) {
        std::string text = newUuid();
        ASSERT_EQ('1', text[14]) << text;
        ASSERT_NE(std::string::npos, std::string("89ab").find(text[19])) << text;
    }
}

TEST(UUID, NodeIsMarkedAsNotAHardwareAddress)
{
    for (int i = 0; i < 1000; ++i) {
        std::string text = newUuid();
        ASSERT_GE(hexValue(text.substr(24, 2)), 0x80u) << text;
    }
}

TEST(UUID, TimestampIsTheClockSinceTheGregorianReform)
{
    std::uint64_t before = nowInUuidUnits();
    std::string text = newUuid();
    std::uint64_t after = nowInUuidUnits();
    std::uint64_t stamp = timestampOf(text);
    // The count of UUIDs made with one clock reading is added on top.
    EXPECT_GE(stamp, before - 10);
    EXPECT_LE(stamp, after + UUID::UUIDS_PER_TICK);
}

TEST(UUID, OneThreadNeverRepeatsATimestamp)
{
    std::set<std::uint64_t> stamps;
    for (int i = 0; i < 20000; ++i)
        ASSERT_TRUE(stamps.insert(timestampOf(newUuid())).second) << "at " << i;
}

TEST(UUID, NullBufferIsLeftAlone)
{
    UUID::uuid_create_string(nullptr);
    EXPECT_TRUE(wellFormed(newUuid()));
}

// Two threads make 50,000 UUIDs each: all 100,000 are distinct and well
// formed, and no timestamp is given twice, not even to UUIDs of different
// threads (counting on from one clock reading must never reach the next
// reading's timestamps). The threads' states are their own and are freed when they end
// (the address sanitizer build reports a leak otherwise).
TEST(UUID, HundredThousandFromTwoThreadsAreDistinctAndWellFormed)
{
    const int kPerThread = 50000;
    // Shared with the threads, so that a stuck thread left behind still
    // writes into live memory.
    struct Work {
        std::vector<std::string> made[2];
        std::atomic<int> finished{0};
    };
    std::shared_ptr<Work> work = std::make_shared<Work>();
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        work->made[t].reserve(kPerThread);
        threads.emplace_back([work, t] {
            for (int i = 0; i < kPerThread; ++i)
                work->made[t].push_back(newUuid());
            work->finished.fetch_add(1);
        });
    }
    bool done = hvtest::waitUntil([&] { return work->finished.load() == 2; }, std::chrono::milliseconds(100000));
    for (std::thread& thread : threads) {
        if (done)
            thread.join();
        else
            thread.detach();
    }
    ASSERT_TRUE(done) << "the threads did not finish";

    std::set<std::string> all;
    std::set<std::uint64_t> stamps;
    int malformed = 0;
    for (const std::vector<std::string>& list : work->made) {
        ASSERT_EQ(static_cast<std::size_t>(kPerThread), list.size());
        for (const std::string& text : list) {
            if (!wellFormed(text) && ++malformed <= 5)
                ADD_FAILURE() << "malformed " << text;
            all.insert(text);
            stamps.insert(timestampOf(text));
        }
    }
    EXPECT_EQ(0, malformed);
    EXPECT_EQ(2u * kPerThread, all.size());
    EXPECT_EQ(2u * kPerThread, stamps.size());
}
