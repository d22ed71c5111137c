#include <HvUtil/HvAssertionFailure.h>

#include <HvUtil/HvOutputStream.h>

#include <Velmora/Assertion.h>
#include <Velmora/LogCapture.h>
#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>
#include <vector>

namespace {

const char kTimestamp[] = "Jan  1 2024 12:00:00";

// Keeps what is written and where each flush happened.
class RecordingStream : public HvOutputStream {
public:
    using HvOutputStream::write;
    void write(int byte) override { bytes.push_back(static_cast<char>(byte)); }
    void flush() override { flushedAt.push_back(bytes.size()); }

    std::string bytes;
    std::vector<std::size_t> flushedAt;
};

} // namespace

TEST(HvAssertionFailure, DisplayWritesMessageFileLineAndTimestamp)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvAssertionFailure::sThrow("bad", "HvObject", 52, kTimestamp); });
    ASSERT_FALSE(e.isNull());
    EXPECT_EQ(hvtest::displayOf(*e), std::string("bad\nHvObject line 52\nCompilation : ") + kTimestamp + "\n");
}

TEST(HvAssertionFailure, DisplayEndsWithALineEndAndAFlush)
{
    HvAssertionFailure failure(HvString("bad"), "HvObject", 52, kTimestamp);
    RecordingStream out;
    failure.display(out);
    EXPECT_EQ(out.bytes, std::string("bad\nHvObject line 52\nCompilation : ") + kTimestamp + "\n");
    ASSERT_EQ(out.flushedAt.size(), 1u);
    EXPECT_EQ(out.flushedAt[0], out.bytes.size());
}

TEST(HvAssertionFailure, KeepsFileLineAndTimestampPointers)
{
    static const char file[] = "HvObject";
    HvHandle<HvException> e = hvtest::thrownBy([] { HvAssertionFailure::sThrow("bad", file, 52, kTimestamp); });
    ASSERT_FALSE(e.isNull());
    EXPECT_TRUE(typeid(*e) == typeid(HvAssertionFailure));
    HvAssertionFailure* failure = dynamic_cast<HvAssertionFailure*>(e.get());
    ASSERT_NE(failure, nullptr);
    EXPECT_STREQ(failure->getMessage().c_str(), "bad");
    // Not copied: the raiser passes literals that outlive the exception.
    EXPECT_EQ(failure->getFile(), file);
    EXPECT_EQ(failure->getTimestamp(), kTimestamp);
    EXPECT_EQ(failure->getLine(), 52u);
}

TEST(HvAssertionFailure, LineIsWrittenUnsigned)
{
    HvAssertionFailure failure(HvString("big"), "HvFile.cpp", 4000000000u, kTimestamp);
    EXPECT_EQ(hvtest::displayOf(failure),
              std::string("big\nHvFile.cpp line 4000000000\nCompilation : ") + kTimestamp + "\n");
}

TEST(HvAssertionFailure, EmptyMessageStillWritesThePosition)
{
    HvAssertionFailure failure(HvString(), "HvFile.cpp", 1, kTimestamp);
    EXPECT_EQ(hvtest::displayOf(failure), std::string("\nHvFile.cpp line 1\nCompilation : ") + kTimestamp + "\n");
}

TEST(HvAssertionFailure, SThrowReportsThroughVelmoraAssertionFirst)
{
    hvtest::AssertionScope recorder;
    unsigned long failuresBefore = Velmora::Assertion::sGetFailureCount();
    HvHandle<HvException> e = hvtest::thrownBy([] { HvAssertionFailure::sThrow("bad", "HvObject", 52, kTimestamp); });
    ASSERT_FALSE(e.isNull());
    EXPECT_EQ(hvtest::assertionCount(), 1u);
    hvtest::expectAssertion(hvtest::lastAssertion(), "bad", "HvObject", 52);
    EXPECT_EQ(Velmora::Assertion::sGetFailureCount(), failuresBefore + 1);
}

TEST(HvAssertionFailure, SThrowLogsTheFailedAssertionAtErrorLevel)
{
    Velmora::LogCapture capture("ferrowind.velmora.Assertion");
    HvHandle<HvException> e =
        hvtest::thrownBy([] { HvAssertionFailure::sThrow("logged text", "HvObject", 52, kTimestamp); });
    ASSERT_FALSE(e.isNull());
    std::vector<Velmora::LogRecord> records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, 40000);
    EXPECT_NE(records[0].message.find("logged text"), std::string::npos) << records[0].message;
    EXPECT_EQ(records[0].line, 52);
}

TEST(HvAssertionFailure, CompileTimestampIsDateAndTimeJoinedByOneSpace)
{
    HvHandle<HvException> e = hvtest::thrownBy(
        [] { HvAssertionFailure::sThrow("t", "HvAssertionFailureTest.cpp", 1, HV_COMPILE_TIMESTAMP); });
    ASSERT_FALSE(e.isNull());
    const char* timestamp = dynamic_cast<HvAssertionFailure*>(e.get())->getTimestamp();
    EXPECT_EQ(std::string(timestamp), std::string(__DATE__) + " " + __TIME__);
}

TEST(HvAssertionFailure, ExceptionAndMessageAreFreedAfterTheCatch)
{
    long before = Velmora::allocationStats("HvStringBuffer").liveCount;
    try {
        HvAssertionFailure::sThrow("freed", "HvObject", 52, kTimestamp);
    } catch (HvHandle<HvException>& e) {
        EXPECT_EQ(e->getRefCount(), 1);
    }
    EXPECT_EQ(Velmora::allocationStats("HvStringBuffer").liveCount, before);
}

TEST(HvAssertionFailure, ClassNameIsHvAssertionFailure)
{
    HvAssertionFailure failure(HvString("x"), "f", 1, kTimestamp);
    EXPECT_STREQ(failure.getClassName(), "HvAssertionFailure");
}
