#include <HvUtil/HvGhbnError.h>

#include <Velmora/Hostent.h>
#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

namespace {

std::string statusText(Velmora::Hostent::GetHostByNameStatus status)
{
    return Velmora::Hostent::getGetHostByNameStatusString(status);
}

} // namespace

TEST(HvGhbnError, DisplayLeadsWithColonThenMessageAndStatusText)
{
    HvHandle<HvGhbnError> error(new HvGhbnError("lookup", 0, Velmora::Hostent::GHBN_HOST_NOT_FOUND));
    std::string expected = ": lookup (" + statusText(Velmora::Hostent::GHBN_HOST_NOT_FOUND) + ")";
    EXPECT_EQ(hvtest::displayOf(*error), expected);
}

TEST(HvGhbnError, DisplayUsesTheTextOfEveryStatus)
{
    const Velmora::Hostent::GetHostByNameStatus statuses[] = {
        Velmora::Hostent::GHBN_SUCCESS,   Velmora::Hostent::GHBN_HOST_NOT_FOUND, Velmora::Hostent::GHBN_NO_DATA,
        Velmora::Hostent::GHBN_TRY_AGAIN, Velmora::Hostent::GHBN_TIMEOUT,        Velmora::Hostent::GHBN_FAILURE};
    for (Velmora::Hostent::GetHostByNameStatus status : statuses) {
        HvGhbnError error("name.example", 0, status);
        EXPECT_EQ(error.getStatus(), status);
        EXPECT_EQ(hvtest::displayOf(error), ": name.example (" + statusText(status) + ")") << status;
    }
}

TEST(HvGhbnError, StatusOutsideTheEnumerationIsKeptAndShownAsUnknown)
{
    // 7 names no status but is still a value the enumeration can hold.
    auto odd = static_cast<Velmora::Hostent::GetHostByNameStatus>(7);
    HvGhbnError error("lookup", 0, odd);
    EXPECT_EQ(static_cast<int>(error.getStatus()), 7);
    EXPECT_EQ(hvtest::displayOf(error), ": lookup (unknown status)");
}

TEST(HvGhbnError, NullMessageWritesNothingBetweenColonAndStatus)
{
    HvGhbnError error(nullptr, 0, Velmora::Hostent::GHBN_TIMEOUT);
    EXPECT_TRUE(error.getMessage().isNull());
    EXPECT_EQ(hvtest::displayOf(error), ":  (" + statusText(Velmora::Hostent::GHBN_TIMEOUT) + ")");
}

TEST(HvGhbnError, KeepsMessageErrorNumberAndStatus)
{
    HvGhbnError error("host.invalid", 11, Velmora::Hostent::GHBN_TRY_AGAIN);
    EXPECT_STREQ(error.getMessage().c_str(), "host.invalid");
    EXPECT_EQ(error.getErrorNumber(), 11);
    EXPECT_EQ(error.getStatus(), Velmora::Hostent::GHBN_TRY_AGAIN);
    EXPECT_EQ(error.getRefCount(), 0);
}

TEST(HvGhbnError, IsThrownAndCaughtAsASocketError)
{
    long before = Velmora::allocationStats("HvStringBuffer").liveCount;
    bool caught = false;
    try {
        HvException::sThrow(new HvGhbnError("lookup", 0, Velmora::Hostent::GHBN_NO_DATA));
    } catch (HvHandle<HvException>& e) {
        caught = true;
        EXPECT_TRUE(typeid(*e) == typeid(HvGhbnError));
        EXPECT_NE(dynamic_cast<HvSocketError*>(e.get()), nullptr);
        EXPECT_NE(dynamic_cast<HvSystemError*>(e.get()), nullptr);
        HvGhbnError* error = dynamic_cast<HvGhbnError*>(e.get());
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->getStatus(), Velmora::Hostent::GHBN_NO_DATA);
        EXPECT_EQ(hvtest::displayOf(*e), ": lookup (" + statusText(Velmora::Hostent::GHBN_NO_DATA) + ")");
    }
    EXPECT_TRUE(caught);
    EXPECT_EQ(Velmora::allocationStats("HvStringBuffer").liveCount, before);
}

TEST(HvGhbnError, ClassNameIsHvGhbnError)
{
    HvGhbnError error("x", 0, Velmora::Hostent::GHBN_FAILURE);
    EXPECT_STREQ(error.getClassName(), "HvGhbnError");
}
