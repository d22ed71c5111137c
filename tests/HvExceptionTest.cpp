#include <HvUtil/HvException.h>

#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvString.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <typeinfo>

namespace {

std::atomic<int> fs_destroyed{0};

// Counts its destructions so that a test can see when the last handle goes.
class CountingException : public HvException {
public:
    explicit CountingException(const char* text) : HvException(HvString(text)) {}
    ~CountingException() override { ++fs_destroyed; }
};

} // namespace

TEST(HvException, SThrowWithNullTextThrowsUnknownException)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvException::sThrow(static_cast<const char*>(nullptr)); });
    ASSERT_FALSE(e.isNull());
    EXPECT_TRUE(typeid(*e) == typeid(HvException));
    EXPECT_STREQ(e->getMessage().c_str(), "Unknown Exception");
    EXPECT_EQ(hvtest::displayOf(*e), "Unknown Exception");
}

TEST(HvException, SThrowWithTextThrowsThatMessage)
{
    HvHandle<HvException> e = hvtest::thrownBy([] { HvException::sThrow("something broke"); });
    ASSERT_FALSE(e.isNull());
    EXPECT_TRUE(typeid(*e) == typeid(HvException));
    EXPECT_STREQ(e->getMessage().c_str(), "something broke");
    EXPECT_EQ(hvtest::displayOf(*e), "something broke");
}

TEST(HvException, SThrowOfObjectThrowsOneHandleToThatObject)
{
    fs_destroyed = 0;
    CountingException* object = new CountingException("mine");
    try {
        HvException::sThrow(object);
    } catch (HvHandle<HvException>& e) {
        EXPECT_EQ(e.get(), object);
        EXPECT_EQ(e->getRefCount(), 1);
    }
    EXPECT_EQ(fs_destroyed, 1);
}

TEST(HvException, ThrownHandleIsOnePointer)
{
    EXPECT_EQ(sizeof(HvHandle<HvException>), sizeof(void*));
}

TEST(HvException, DisplayWritesOnlyTheMessage)
{
    HvHandle<HvException> e(new HvException(HvString("plain text")));
    EXPECT_EQ(hvtest::displayOf(*e), "plain text");
}

TEST(HvException, DisplayOfEmptyMessageWritesNothing)
{
    HvHandle<HvException> e(new HvException(HvString()));
    EXPECT_TRUE(e->getMessage().isNull());
    EXPECT_EQ(hvtest::displayOf(*e), "");
}

TEST(HvException, PrintingThePointerUsesTheObjectDisplay)
{
    HvHandle<HvException> e(new HvException(HvString("text")));
    HvByteArrayOutputStream out(0);
    out << e.get();
    EXPECT_EQ(hvtest::textOf(out), "1 \t(" + hvtest::hexAddress(e.get()) + ")\tHvException");

    HvByteArrayOutputStream brief(0);
    e->display(brief, false);
    EXPECT_EQ(hvtest::textOf(brief), "1\tHvException");
}

TEST(HvException, UnhandledMessageHasExactBytes)
{
    const char expected[] = "\n\n!!! Unhandled Exception Intercepted !!!\n\n";
    EXPECT_EQ(std::strlen(HvException::sUnhandledMessage), sizeof expected - 1);
    EXPECT_EQ(std::memcmp(HvException::sUnhandledMessage, expected, sizeof expected), 0);
}

TEST(HvException, DebugTokenIsHvException)
{
    EXPECT_STREQ(HvException::sDebugToken, "HvException");
}

TEST(HvException, CatcherCopyKeepsExceptionAliveAfterTheCatch)
{
    fs_destroyed = 0;
    long before = hvtest::liveStringBuffers();
    {
        HvHandle<HvException> kept;
        try {
            HvException::sThrow(new CountingException("kept for later"));
        } catch (HvHandle<HvException>& e) {
            kept = e;
            EXPECT_EQ(e->getRefCount(), 2);
        }
        ASSERT_FALSE(kept.isNull());
        EXPECT_EQ(fs_destroyed, 0);
        EXPECT_EQ(kept->getRefCount(), 1);
        EXPECT_STREQ(kept->getMessage().c_str(), "kept for later");
        EXPECT_EQ(hvtest::displayOf(*kept), "kept for later");
        EXPECT_NE(dynamic_cast<CountingException*>(kept.get()), nullptr);
    }
    EXPECT_EQ(fs_destroyed, 1);
    EXPECT_EQ(hvtest::liveStringBuffers(), before);
}

TEST(HvException, ExceptionIsDestroyedWhenTheCatchEndsWithoutCopy)
{
    fs_destroyed = 0;
    long before = hvtest::liveStringBuffers();
    try {
        HvException::sThrow(new CountingException("gone"));
    } catch (HvHandle<HvException>& e) {
        EXPECT_EQ(e->getRefCount(), 1);
        EXPECT_EQ(fs_destroyed, 0);
    }
    EXPECT_EQ(fs_destroyed, 1);
    EXPECT_EQ(hvtest::liveStringBuffers(), before);
}

TEST(HvException, HandleCanBePassedToAnotherThread)
{
    fs_destroyed = 0;
    HvHandle<HvException> e;
    try {
        HvException::sThrow(new CountingException("across threads"));
    } catch (HvHandle<HvException>& caught) {
        e = caught;
    }
    ASSERT_FALSE(e.isNull());
    std::string seen;
    std::thread reader([e, &seen] { seen = e->getMessage().c_str(); });
    reader.join();
    EXPECT_EQ(seen, "across threads");
    EXPECT_EQ(e->getRefCount(), 1);
    e = HvHandle<HvException>();
    EXPECT_EQ(fs_destroyed, 1);
}

TEST(HvException, ClassNameIsHvException)
{
    HvException e(HvString("x"));
    EXPECT_STREQ(e.getClassName(), "HvException");
}
