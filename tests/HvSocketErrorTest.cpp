#include <HvUtil/HvSocketError.h>

#include <HvUtil/HvAssertionFailure.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <typeinfo>

namespace {

enum class Kind { Socket, System, Other };

// How a caller tells socket failures apart from other system failures.
template <class F>
Kind classify(F f)
{
    try {
        f();
    } catch (HvHandle<HvException>& e) {
        if (dynamic_cast<HvSocketError*>(e.get()))
            return Kind::Socket;
        if (dynamic_cast<HvSystemError*>(e.get()))
            return Kind::System;
    }
    return Kind::Other;
}

} // namespace

TEST(HvSocketError, ZeroNumberTakesErrno)
{
    HvHandle<HvException> e = hvtest::thrownBy([] {
        errno = ECONNREFUSED;
        HvSocketError::sThrow("connect", 0);
    });
    ASSERT_FALSE(e.isNull());
    EXPECT_TRUE(typeid(*e) == typeid(HvSocketError));
    HvSocketError* error = dynamic_cast<HvSocketError*>(e.get());
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->getErrorNumber(), ECONNREFUSED);
    EXPECT_EQ(hvtest::displayOf(*error),
              std::string("connect: ") + std::strerror(ECONNREFUSED) + " (" + std::to_string(ECONNREFUSED) + ")");
}

TEST(HvSocketError, ExplicitNumberIgnoresErrno)
{
    HvHandle<HvException> e = hvtest::thrownBy([] {
        errno = 2;
        HvSocketError::sThrow("x", 13);
    });
    ASSERT_FALSE(e.isNull());
    EXPECT_EQ(dynamic_cast<HvSocketError*>(e.get())->getErrorNumber(), 13);
    EXPECT_EQ(hvtest::displayOf(*e), std::string("x: ") + std::strerror(13) + " (13)");
}

TEST(HvSocketError, DisplaysExactlyLikeASystemError)
{
    HvSocketError socketError(HvString("send"), 32);
    HvSystemError systemError(HvString("send"), 32);
    EXPECT_EQ(hvtest::displayOf(socketError), hvtest::displayOf(systemError));
    EXPECT_EQ(hvtest::displayOf(socketError), std::string("send: ") + std::strerror(32) + " (32)");
}

TEST(HvSocketError, IsCaughtApartFromSystemErrorByDynamicType)
{
    EXPECT_EQ(classify([] { HvSocketError::sThrow("recv", 104); }), Kind::Socket);
    EXPECT_EQ(classify([] { HvSystemError::sThrow("read", 5); }), Kind::System);
    EXPECT_EQ(classify([] { HvException::sThrow("plain"); }), Kind::Other);
}

TEST(HvSocketError, IsAlsoASystemError)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvSocketError::sThrow("bind", 98); });
    ASSERT_FALSE(e.isNull());
    HvSystemError* asSystem = dynamic_cast<HvSystemError*>(e.get());
    ASSERT_NE(asSystem, nullptr);
    EXPECT_EQ(asSystem->getErrorNumber(), 98);
}

TEST(HvSocketError, TypedHandleTakesOnlySocketErrors)
{
    HvHandle<HvException> socketFailure = hvtest::thrownBy([] { HvSocketError::sThrow("accept", 24); });
    HvHandle<HvSocketError> typed(socketFailure);
    EXPECT_EQ(typed.get(), socketFailure.get());
    EXPECT_EQ(typed->getErrorNumber(), 24);

    HvHandle<HvException> systemFailure = hvtest::thrownBy([] { HvSystemError::sThrow("open", 2); });
    HvHandle<HvException> refused = hvtest::thrownBy([&] { HvHandle<HvSocketError> wrong(systemFailure); });
    ASSERT_FALSE(refused.isNull());
    EXPECT_STREQ(refused->getMessage().c_str(), "dynamic_cast failed on HvHandle construction");
    EXPECT_NE(dynamic_cast<HvAssertionFailure*>(refused.get()), nullptr);
    EXPECT_EQ(systemFailure->getRefCount(), 1);
}

TEST(HvSocketError, ClassNameIsHvSocketError)
{
    HvSocketError error(HvString("m"), 1);
    EXPECT_STREQ(error.getClassName(), "HvSocketError");
}
