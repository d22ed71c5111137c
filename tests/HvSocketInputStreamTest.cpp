#include <HvUtil/HvSocketInputStream.h>

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvFailingClock.h>
#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <time.h>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

int bytesWaiting(int descriptor)
{
    int count = 0;
    if (ioctl(descriptor, FIONREAD, &count) != 0)
        return -1;
    return count;
}

// An input stream whose available() can be made to answer 0 while data is
// waiting, the one way block() takes a byte into the look-ahead when the
// peer is still there.
class ProbingInputStream : public HvSocketInputStream {
public:
    explicit ProbingInputStream(HvClientSocket* socket) : HvSocketInputStream(socket) {}
    unsigned int available() override
    {
        ++availableCalls;
        if (answerEmpty)
            return 0;
        return HvSocketInputStream::available();
    }
    bool answerEmpty = false;
    int availableCalls = 0;
};

// A client socket on a raw peer, and a probing stream on it.
struct Fixture : hvtest::StreamOnRawPeer<ProbingInputStream> {
    // Sends `data` from the peer and waits until all of it is readable.
    void arrive(const std::string& data)
    {
        ASSERT_TRUE(hvtest::sendAll(peer.get(), data));
        ASSERT_TRUE(hvtest::waitUntil([&] { return bytesWaiting(descriptor) >= static_cast<int>(data.size()); }));
    }

    // Takes the first byte waiting into the look-ahead (state 2).
    void hold()
    {
        stream->answerEmpty = true;
        EXPECT_TRUE(stream->block());
        stream->answerEmpty = false;
        ASSERT_EQ(HvSocketInputStream::kHolding, stream->getState());
    }
};

} // namespace

TEST(HvSocketInputStream, StartsWithNoByteHeld)
{
    Fixture f;
    EXPECT_EQ(HvSocketInputStream::kEmpty, f.stream->getState());
}

TEST(HvSocketInputStream, ReadGivesBytesAsZeroTo255)
{
    Fixture f;
    f.arrive(std::string("\xff\x00\x41", 3));
    EXPECT_EQ(255, f.stream->read());
    EXPECT_EQ(0, f.stream->read());
    EXPECT_EQ(0x41, f.stream->read());
    EXPECT_EQ(HvSocketInputStream::kEmpty, f.stream->getState());
}

TEST(HvSocketInputStream, BlockWithDataWaitingReadsNothingAndKeepsTheState)
{
    Fixture f;
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    f.stream->attachObserver(observer);
    f.arrive("abc");
    EXPECT_TRUE(f.stream->block());
    EXPECT_EQ(HvSocketInputStream::kEmpty, f.stream->getState());
    EXPECT_EQ(3, bytesWaiting(f.descriptor));
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, f.stream.get(), nullptr);
    EXPECT_EQ('a', f.stream->read());
    f.stream->detachObserver(observer);
}

TEST(HvSocketInputStream, BlockWhenAvailableIsZeroHoldsOneByte)
{
    Fixture f;
    f.arrive("xyz");
    f.hold();
    EXPECT_EQ(2, bytesWaiting(f.descriptor));
    EXPECT_EQ('x', f.stream->read());
    EXPECT_EQ(HvSocketInputStream::kEmpty, f.stream->getState());
    EXPECT_EQ('y', f.stream->read());
}

TEST(HvSocketInputStream, BlockWhenThePeerHasClosedEndsTheStreamButStillNotifies)
{
    Fixture f;
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    f.stream->attachObserver(observer);
    f.peer.reset();
    EXPECT_FALSE(f.stream->block());
    EXPECT_EQ(HvSocketInputStream::kClosed, f.stream->getState());
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, f.stream.get(), nullptr);
    // The stream closed the socket when it ended.
    EXPECT_EQ(-1, f.socket->getDescriptor());
    EXPECT_FALSE(f.stream->block());
    EXPECT_EQ(2u, observer->notes.size());
    f.stream->detachObserver(observer);
}

TEST(HvSocketInputStream, OneByteReadInStateTwoLeavesTheSocketAlone)
{
    Fixture f;
    f.arrive("hello");
    f.hold();
    char buffer[4] = {0};
    EXPECT_EQ(1, f.stream->read(buffer, 1, 0));
    EXPECT_EQ('h', buffer[0]);
    EXPECT_EQ(HvSocketInputStream::kEmpty, f.stream->getState());
    EXPECT_EQ(4, bytesWaiting(f.descriptor));
}

TEST(HvSocketInputStream, FiveByteReadInStateTwoAddsOneReceiveOfFour)
{
    Fixture f;
    f.arrive("abcdefgh");
    f.hold();
    char buffer[8];
    std::memset(buffer, '.', sizeof buffer);
    EXPECT_EQ(5, f.stream->read(buffer, 5, 0));
    EXPECT_EQ("abcde...", std::string(buffer, 8));
    EXPECT_EQ(3, bytesWaiting(f.descriptor));
    EXPECT_EQ(HvSocketInputStream::kEmpty, f.stream->getState());
}

TEST(HvSocketInputStream, ReadWithOffsetStoresFromThere)
{
    Fixture f;
    f.arrive("abcd");
    f.hold();
    char buffer[8];
    std::memset(buffer, '.', sizeof buffer);
    EXPECT_EQ(4, f.stream->read(buffer, 4, 2));
    EXPECT_EQ("..abcd..", std::string(buffer, 8));
}

TEST(HvSocketInputStream, ZeroLengthReadInStateTwoKeepsTheByte)
{
    Fixture f;
    f.arrive("q");
    f.hold();
    char buffer[2] = {0, 0};
    EXPECT_EQ(0, f.stream->read(buffer, 0, 0));
    EXPECT_EQ(HvSocketInputStream::kHolding, f.stream->getState());
    EXPECT_EQ(0, buffer[0]);
    EXPECT_EQ('q', f.stream->read());
}

TEST(HvSocketInputStream, AvailableInStateTwoIsOneMoreThanTheSocketsAnswer)
{
    Fixture f;
    f.arrive("abcdefgh");
    EXPECT_EQ(4u, f.stream->available());
    f.hold();
    // Seven bytes wait at the socket, which answers at most 4.
    EXPECT_EQ(5u, f.stream->HvSocketInputStream::available());
    EXPECT_EQ('a', f.stream->read());
    f.stream->read();
    f.stream->read();
    f.stream->read();
    f.stream->read();
    f.stream->read();
    // Two left: the socket's answer exactly.
    EXPECT_EQ(2u, f.stream->HvSocketInputStream::available());
    f.stream->answerEmpty = true;
    EXPECT_TRUE(f.stream->block());
    f.stream->answerEmpty = false;
    EXPECT_EQ(HvSocketInputStream::kHolding, f.stream->getState());
    EXPECT_EQ(2u, f.stream->HvSocketInputStream::available());
}

TEST(HvSocketInputStream, ClosedStreamHasNothingAvailableAndEndsEveryRead)
{
    Fixture f;
    f.peer.reset();
    EXPECT_EQ(-1, f.stream->read());
    EXPECT_EQ(HvSocketInputStream::kClosed, f.stream->getState());
    EXPECT_EQ(-1, f.socket->getDescriptor());
    EXPECT_EQ(0u, f.stream->HvSocketInputStream::available());
    char buffer[4];
    EXPECT_EQ(-1, f.stream->read(buffer, 4, 0));
    EXPECT_EQ(-1, f.stream->read(buffer, 0, 0));
}

TEST(HvSocketInputStream, HeldByteIsStillDeliveredWhenThePeerHasGone)
{
    Fixture f;
    f.arrive("z");
    f.hold();
    f.peer.reset();
    char buffer[8] = {0};
    EXPECT_EQ(1, f.stream->read(buffer, 8, 0));
    EXPECT_EQ('z', buffer[0]);
    EXPECT_EQ(HvSocketInputStream::kClosed, f.stream->getState());
    EXPECT_EQ(-1, f.stream->read(buffer, 8, 0));
}

TEST(HvSocketInputStream, ResetByThePeerEndsTheStream)
{
    Fixture f;
    // Unread data makes the peer's close a reset.
    EXPECT_EQ(3, f.socket->send("unread", 3, 0));
    hvtest::resetConnection(f.peer);
    char buffer[8];
    EXPECT_EQ(-1, f.stream->read(buffer, 8, 0));
    EXPECT_EQ(HvSocketInputStream::kClosed, f.stream->getState());
    EXPECT_EQ(-1, f.socket->getDescriptor());
}

TEST(HvSocketInputStream, FailureUnderAReadIsReportedClosesAndIsThrownOn)
{
    Fixture f;
    f.arrive("data");
    hvtest::DebugOutputCapture capture(false);
    char buffer[8];
    fs_clockFailure.store(EINVAL);
    HvHandle<HvException> thrown = hvtest::thrownBy([&] { f.stream->read(buffer, 8, 0); });
    fs_clockFailure.store(0);
    ASSERT_FALSE(thrown.isNull());
    EXPECT_STREQ("HvSystemError", thrown->getClassName());
    EXPECT_STREQ("gettimeofday", thrown->getMessage().c_str());
    EXPECT_EQ("catch exception in HvSocketInputStream::read(): gettimeofday\n", capture.text());
    EXPECT_EQ(HvSocketInputStream::kClosed, f.stream->getState());
    EXPECT_EQ(-1, f.socket->getDescriptor());
    EXPECT_EQ(-1, f.stream->read());
}

TEST(HvSocketInputStream, NotificationsAreRelayedAsByAnyObservable)
{
    Fixture f;
    HvHandle<hvtest::NoteTakingObserver> observer(new hvtest::NoteTakingObserver);
    f.stream->attachObserver(observer);
    HvHandle<HvObject> argument(new HvObject);
    f.stream->onNotification(HvHandle<HvObservable>(), argument);
    ASSERT_EQ(1u, observer->notes.size());
    hvtest::expectNote(observer->notes, 0, f.stream.get(), argument.get());
    f.stream->detachObserver(observer);
}

TEST(HvSocketInputStream, ArrayReadOfTheBaseGoesThroughTheBlockRead)
{
    Fixture f;
    f.arrive("0123456789");
    HvHandle<HvByteArray> array = HvByteArray::sCreate("......");
    // Offset 2 of six bytes: one receive of the four that fit.
    EXPECT_EQ(4, f.stream->read(array, 2, 0));
    EXPECT_EQ("..0123", std::string(reinterpret_cast<const char*>(array->getData()), 6));
    EXPECT_EQ(6, bytesWaiting(f.descriptor));
}
