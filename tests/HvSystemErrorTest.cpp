#include <HvUtil/HvSystemError.h>

#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvSocketError.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <typeinfo>

TEST(HvSystemError, ZeroNumberTakesErrno)
{
    HvHandle<HvException> e = hvtest::thrownBy([] {
        errno = 2;
        HvSystemError::sThrow("open", 0);
    });
    ASSERT_FALSE(e.isNull());
    EXPECT_TRUE(typeid(*e) == typeid(HvSystemError));
    HvSystemError* error = dynamic_cast<HvSystemError*>(e.get());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->getErrorNumber(), 2);
    EXPECT_STREQ(error->getMessage().c_str(), "open");
    EXPECT_EQ(hvtest::displayOf(*error), std::string("open: ") + std::strerror(2) + " (2)");
}

TEST(HvSystemError, ExplicitNumberIgnoresErrno)
{
    HvHandle<HvException> e = hvtest::thrownBy([] {
        errno = 2;
        HvSystemError::sThrow("x", 13);
    });
    ASSERT_FALSE(e.isNull());
    HvSystemError* error = dynamic_cast<HvSystemError*>(e.get());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->getErrorNumber(), 13);
    EXPECT_EQ(hvtest::displayOf(*error), std::string("x: ") + std::strerror(13) + " (13)");
}

TEST(HvSystemError, NullTextGivesEmptyMessage)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvSystemError::sThrow(nullptr, 13); });
    ASSERT_FALSE(e.isNull());
    // Unlike HvException::sThrow, a null text is not replaced.
    EXPECT_TRUE(e->getMessage().isNull());
    EXPECT_EQ(hvtest::displayOf(*e), std::string(": ") + std::strerror(13) + " (13)");
}

TEST(HvSystemError, NegativeNumberIsWrittenSigned)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvSystemError::sThrow("neg", -5); });
    ASSERT_FALSE(e.isNull());
    EXPECT_EQ(dynamic_cast<HvSystemError*>(e.get())->getErrorNumber(), -5);
    std::string shown = hvtest::displayOf(*e);
    std::string expectedText = std::strerror(-5);
    EXPECT_EQ(shown, "neg: " + expectedText + " (-5)");
}

TEST(HvSystemError, IsNotASocketError)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvSystemError::sThrow("read", 9); });
    ASSERT_FALSE(e.isNull());
    EXPECT_NE(dynamic_cast<HvSystemError*>(e.get()), nullptr);
    EXPECT_EQ(dynamic_cast<HvSocketError*>(e.get()), nullptr);
}

TEST(HvSystemError, CheckDoesNothingForZeroAndThrowsTheReturnedNumber)
{
    EXPECT_NO_THROW(HvSystemError::sCheck(0, "pthread_mutex_lock"));
    HvHandle<HvException> e = hvtest::thrownBy([] {
        errno = 2;
        HvSystemError::sCheck(22, "pthread_mutex_lock");
    });
    ASSERT_FALSE(e.isNull());
    HvSystemError* error = dynamic_cast<HvSystemError*>(e.get());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->getErrorNumber(), 22);
    EXPECT_EQ(hvtest::displayOf(*error), std::string("pthread_mutex_lock: ") + std::strerror(22) + " (22)");
}

TEST(HvSystemError, ExceptionAndMessageAreFreedAfterTheCatch)
{
    long before = Velmora::allocationStats("HvStringBuffer").liveCount;
    try {
        HvSystemError::sThrow("close", 9);
    } catch (HvHandle<HvException>& e) {
        EXPECT_EQ(e->getRefCount(), 1);
        EXPECT_EQ(Velmora::allocationStats("HvStringBuffer").liveCount, before + 1);
    }
    EXPECT_EQ(Velmora::allocationStats("HvStringBuffer").liveCount, before);
}

TEST(HvSystemError, ObjectDisplayShowsClassName)
{
    HvHandle<HvSystemError> error(new HvSystemError(HvString("m"), 1));
    HvByteArrayOutputStream out(0);
    error->display(out, false);
    EXPECT_EQ(hvtest::textOf(out), "1\tHvSystemError");
}
