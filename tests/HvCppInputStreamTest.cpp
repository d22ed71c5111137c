#include <HvUtil/HvCppInputStream.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvObserver.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>

namespace {

// A stream buffer that hands out its data `chunk` characters at a time, the
// way a pipe or a terminal does: nothing is buffered until a read asks for it.
class ChunkedBuffer : public std::streambuf {
public:
    ChunkedBuffer(const std::string& data, std::size_t chunk) : m_data(data), m_chunk(chunk) {}

protected:
    int_type underflow() override
    {
        if (gptr() < egptr())
            return traits_type::to_int_type(*gptr());
        if (m_next >= m_data.size())
            return traits_type::eof();
        std::size_t n = std::min(m_chunk, m_data.size() - m_next);
        char* base = &m_data[0];
        setg(base, base + m_next, base + m_next + n);
        m_next += n;
        return traits_type::to_int_type(*gptr());
    }

private:
    std::string m_data;
    std::size_t m_chunk;
    std::size_t m_next = 0;
};

// Nothing buffered, but the buffer estimates what it could give.
class EstimatingBuffer : public ChunkedBuffer {
public:
    EstimatingBuffer(const std::string& data, std::streamsize estimate) : ChunkedBuffer(data, 1), m_estimate(estimate) {}

protected:
    std::streamsize showmanyc() override { return m_estimate; }

private:
    std::streamsize m_estimate;
};

// An istream that owns its stream buffer.
template <class Buffer>
class OwningStream : public std::istream {
public:
    template <class... Args>
    explicit OwningStream(Args&&... args) : std::istream(nullptr), m_buffer(std::forward<Args>(args)...)
    {
        rdbuf(&m_buffer);
    }

private:
    Buffer m_buffer;
};

using ChunkedStream = OwningStream<ChunkedBuffer>;
using EstimatingStream = OwningStream<EstimatingBuffer>;

class RecordingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        ++notifications;
        lastSource = source.get();
        nilObjects += object.isNull() ? 1 : 0;
    }

    int notifications = 0;
    int nilObjects = 0;
    const HvObservable* lastSource = nullptr;
};

} // namespace

// ---- read() ----

TEST(HvCppInputStream, ReadReturnsEachByteThenMinusOne)
{
    std::istringstream source(std::string("ab\xff\x80", 4));
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_EQ('a', in->read());
    EXPECT_EQ('b', in->read());
    EXPECT_EQ(255, in->read());
    EXPECT_EQ(128, in->read());
    EXPECT_EQ(-1, in->read());
    EXPECT_EQ(-1, in->read());
}

// ---- available() ----

TEST(HvCppInputStream, AvailableCountsBufferedCharacters)
{
    std::istringstream source("hello");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_EQ(5u, in->available());
    in->read();
    EXPECT_EQ(4u, in->available());
    char buffer[8];
    EXPECT_EQ(4, in->read(buffer, 8, 0));
    EXPECT_EQ(0u, in->available());
}

TEST(HvCppInputStream, AvailableFallsBackToTheBufferEstimate)
{
    EstimatingStream estimated("abc", 7);
    HvHandle<HvCppInputStream> in(new HvCppInputStream(estimated));
    EXPECT_EQ(7u, in->available());

    ChunkedStream unbuffered("abc", 2);
    HvHandle<HvCppInputStream> none(new HvCppInputStream(unbuffered));
    EXPECT_EQ(0u, none->available());
    EXPECT_EQ('a', none->read());
    EXPECT_EQ(1u, none->available());
}

TEST(HvCppInputStream, AvailableIsZeroAtTheEnd)
{
    std::istringstream source("");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_EQ(0u, in->available());
    EXPECT_EQ(-1, in->read());
    EXPECT_EQ(0u, in->available());
}

// ---- read(buffer, length, offset) ----

TEST(HvCppInputStream, BlockReadOfLengthZeroReturnsZero)
{
    std::istringstream source("ab");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    char buffer[1] = {'.'};
    EXPECT_EQ(0, in->read(buffer, 0, 0));
    EXPECT_EQ('.', buffer[0]);
    EXPECT_EQ('a', in->read());

    std::istringstream empty("");
    HvHandle<HvCppInputStream> atEnd(new HvCppInputStream(empty));
    EXPECT_EQ(0, atEnd->read(buffer, 0, 0));
}

TEST(HvCppInputStream, BlockReadTakesBufferedBytesToBufferOffset)
{
    std::istringstream source("hello world");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    char buffer[10];
    std::memset(buffer, '.', sizeof(buffer));
    EXPECT_EQ(5, in->read(buffer, 5, 2));
    EXPECT_EQ("..hello...", std::string(buffer, 10));
    EXPECT_EQ(6, in->read(buffer, 10, 0));
    EXPECT_EQ(" world", std::string(buffer, 6));
    EXPECT_EQ(-1, in->read(buffer, 10, 0));
}

TEST(HvCppInputStream, BlockReadWithNothingBufferedWaitsForTheFirstByte)
{
    ChunkedStream source("abcdefgh", 3);
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    char buffer[12];
    std::memset(buffer, '.', sizeof(buffer));
    // The first byte arrives with its chunk; the rest of that chunk follows at once.
    EXPECT_EQ(3, in->read(buffer, 10, 2));
    EXPECT_EQ("..abc.......", std::string(buffer, 12));
    EXPECT_EQ(3, in->read(buffer, 10, 0));
    EXPECT_EQ("def", std::string(buffer, 3));
    EXPECT_EQ(2, in->read(buffer, 10, 0));
    EXPECT_EQ("gh", std::string(buffer, 2));
    EXPECT_EQ(-1, in->read(buffer, 10, 0));
}

TEST(HvCppInputStream, BlockReadOfOneWithNothingBufferedReadsOneByte)
{
    ChunkedStream source("abc", 3);
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    char buffer[6];
    std::memset(buffer, '.', sizeof(buffer));
    EXPECT_EQ(1, in->read(buffer, 1, 4));
    EXPECT_EQ("....a.", std::string(buffer, 6));
    EXPECT_EQ(2u, in->available());
}

TEST(HvCppInputStream, BlockReadWithNothingBufferedStopsAtTheRequestedLength)
{
    ChunkedStream source("abcdef", 4);
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    char buffer[4];
    EXPECT_EQ(2, in->read(buffer, 2, 0));
    EXPECT_EQ("ab", std::string(buffer, 2));
    EXPECT_EQ(2u, in->available());
}

TEST(HvCppInputStream, BlockReadReturnsOneWhenOnlyTheFirstByteArrived)
{
    ChunkedStream source("xyz", 1);
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    char buffer[4];
    EXPECT_EQ(1, in->read(buffer, 4, 0));
    EXPECT_EQ('x', buffer[0]);
    EXPECT_EQ(1, in->read(buffer, 4, 0));
    EXPECT_EQ('y', buffer[0]);
    EXPECT_EQ(1, in->read(buffer, 4, 0));
    EXPECT_EQ('z', buffer[0]);
    EXPECT_EQ(-1, in->read(buffer, 4, 0));
}

TEST(HvCppInputStream, ReadIntoArrayFillsToItsEnd)
{
    std::istringstream source("abcdefgh");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    HvHandle<HvByteArray> array = HvByteArray::sCreate("012345");
    EXPECT_EQ(4, in->read(array, 2, 0));
    EXPECT_EQ("01abcd", std::string(reinterpret_cast<char*>(array->getData()), 6));
    EXPECT_EQ('e', in->read());
}

// ---- block() ----

TEST(HvCppInputStream, BlockWithDataReturnsTrueAndNotifiesOnceWithNil)
{
    std::istringstream source("hi");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    in->attachObserver(observer);

    EXPECT_TRUE(in->block());
    EXPECT_EQ(1, observer->notifications);
    EXPECT_EQ(1, observer->nilObjects);
    EXPECT_EQ(in.get(), observer->lastSource);
    // Nothing was consumed.
    EXPECT_EQ('h', in->read());

    in->detachObserver(observer);
    EXPECT_EQ(0, in->countObservers());
    EXPECT_TRUE(observer->getSource().isNull());
}

TEST(HvCppInputStream, BlockWithNothingBufferedWaitsAndPutsTheByteBack)
{
    ChunkedStream source("abc", 1);
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    in->attachObserver(observer);

    EXPECT_TRUE(in->block());
    EXPECT_EQ(1, observer->notifications);
    EXPECT_EQ(1, observer->nilObjects);
    EXPECT_EQ('a', in->read());
    EXPECT_EQ('b', in->read());

    in->detachObserver(observer);
}

TEST(HvCppInputStream, BlockAtTheEndReturnsFalseAndStillNotifies)
{
    std::istringstream source("x");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    HvHandle<RecordingObserver> observer(new RecordingObserver);
    in->attachObserver(observer);
    EXPECT_EQ('x', in->read());

    EXPECT_FALSE(in->block());
    EXPECT_EQ(1, observer->notifications);
    EXPECT_EQ(1, observer->nilObjects);
    EXPECT_EQ(in.get(), observer->lastSource);

    EXPECT_FALSE(in->block());
    EXPECT_EQ(2, observer->notifications);
    EXPECT_EQ(2, observer->nilObjects);

    in->detachObserver(observer);
    EXPECT_FALSE(in->block());
    EXPECT_EQ(2, observer->notifications);
}

TEST(HvCppInputStream, BlockWithoutObserverStillAnswers)
{
    std::istringstream source("q");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_TRUE(in->block());
    EXPECT_EQ('q', in->read());
    EXPECT_FALSE(in->block());
}

// ---- inherited defaults ----

TEST(HvCppInputStream, SkipReadsThroughTheBlockRead)
{
    std::istringstream source("hello world");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_EQ(6u, in->skip(6));
    EXPECT_EQ('w', in->read());
    EXPECT_EQ(4u, in->skip(100));
    EXPECT_EQ(-1, in->read());
    EXPECT_EQ(0u, in->skip(1));
}

TEST(HvCppInputStream, MarkIsNotSupportedAndResetThrows)
{
    hvtest::AssertionScope quiet(&hvtest::ignoreAssertion);
    std::istringstream source("abc");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_FALSE(in->markSupported());
    in->mark(10);
    EXPECT_EQ('a', in->read());
    bool thrown = false;
    try {
        in->reset();
    } catch (HvHandle<HvException>& e) {
        thrown = true;
        EXPECT_STREQ("HvInputStream::reset()", e->getMessage().c_str());
        EXPECT_NE(nullptr, dynamic_cast<HvAssertionFailure*>(e.get()));
    }
    EXPECT_TRUE(thrown);
    EXPECT_EQ('b', in->read());
}

// ---- ownership ----

TEST(HvCppInputStream, DoesNotOwnTheStandardStream)
{
    std::istringstream source("abc");
    {
        HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
        EXPECT_EQ('a', in->read());
    }
    EXPECT_EQ('b', source.get());
    EXPECT_TRUE(source.good());
}

TEST(HvCppInputStream, BlockReadIntoNoBufferReadsNothing)
{
    std::istringstream source("xy");
    HvHandle<HvCppInputStream> in(new HvCppInputStream(source));
    EXPECT_EQ(0, in->read(nullptr, 2, 0));
    EXPECT_EQ('x', in->read());
}
