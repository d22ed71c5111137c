#include <HvUtil/HvBufferedOutputStream.h>

#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvSocketOutputStream.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

// Records every block write it gets as one string, and counts flushes.
class RecordingOutputStream : public HvOutputStream {
public:
    void write(int byte) override { writes.push_back(std::string(1, static_cast<char>(byte))); }
    void write(const void* buffer, unsigned int length, unsigned int offset) override
    {
        writes.push_back(std::string(static_cast<const char*>(buffer) + offset, length));
    }
    using HvOutputStream::write;
    void flush() override { ++flushes; }

    std::string all() const
    {
        std::string text;
        for (const std::string& piece : writes)
            text += piece;
        return text;
    }

    std::vector<std::string> writes;
    int flushes = 0;
};

struct Buffered {
    HvHandle<RecordingOutputStream> destination;
    HvHandle<HvBufferedOutputStream> stream;

    explicit Buffered(unsigned int size)
        : destination(new RecordingOutputStream), stream(new HvBufferedOutputStream(destination.get(), size))
    {
    }
};

} // namespace

TEST(HvBufferedOutputStream, AllocatedUnderItsClassTag)
{
    long before = hvtest::liveCount("HvBufferedOutputStream");
    {
        Buffered buffered(16);
        EXPECT_EQ(before + 1, hvtest::liveCount("HvBufferedOutputStream"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvBufferedOutputStream"));
}

TEST(HvBufferedOutputStream, HoldsAFixedBufferOfTheGivenSize)
{
    Buffered buffered(512);
    EXPECT_EQ(512u, buffered.stream->getCapacity());
    EXPECT_EQ(0u, buffered.stream->getCount());
    EXPECT_EQ(buffered.destination.get(), buffered.stream->getDestination().get());
}

TEST(HvBufferedOutputStream, WithoutABufferConstructionFailsWithTheAssertion)
{
    hvtest::AssertionScope assertions;
    HvHandle<RecordingOutputStream> destination(new RecordingOutputStream);
    long before = hvtest::liveCount("HvBufferedOutputStream");
    HvHandle<HvException> failure =
        hvtest::thrownBy([&] { HvHandle<HvBufferedOutputStream> stream(new HvBufferedOutputStream(destination.get(), 0)); });
    ASSERT_FALSE(failure.isNull());
    HvAssertionFailure* assertion = dynamic_cast<HvAssertionFailure*>(failure.get());
    ASSERT_NE(nullptr, assertion);
    EXPECT_STREQ("No buffer in HvBufferedOutputStream", assertion->getMessage().c_str());
    EXPECT_STREQ("HvBufferedOutputStream", assertion->getFile());
    EXPECT_EQ(37u, assertion->getLine());
    EXPECT_TRUE(hvtest::looksLikeCompileTimestamp(assertion->getTimestamp()));
    ASSERT_EQ(1u, hvtest::assertionCount());
    hvtest::expectAssertion(hvtest::lastAssertion(), "No buffer in HvBufferedOutputStream", "HvBufferedOutputStream",
                            37);
    EXPECT_EQ(before, hvtest::liveCount("HvBufferedOutputStream"));
    EXPECT_TRUE(destination->writes.empty());
}

TEST(HvBufferedOutputStream, SingleBytesAreBufferedUntilTheBufferIsFull)
{
    Buffered buffered(4);
    for (char c : std::string("abcd"))
        buffered.stream->write(c);
    EXPECT_TRUE(buffered.destination->writes.empty());
    EXPECT_EQ(4u, buffered.stream->getCount());
    // The fifth byte finds the buffer full: the four go first.
    buffered.stream->write('e');
    std::vector<std::string> expected{"abcd"};
    EXPECT_EQ(expected, buffered.destination->writes);
    EXPECT_EQ(1u, buffered.stream->getCount());
}

TEST(HvBufferedOutputStream, SingleByteStoresTheLowEightBits)
{
    Buffered buffered(4);
    buffered.stream->write(0x141);
    buffered.stream->flush();
    EXPECT_EQ("A", buffered.destination->all());
}

TEST(HvBufferedOutputStream, BlockThatFitsIsBuffered)
{
    Buffered buffered(8);
    buffered.stream->write("xxabcdef", 6, 2);
    EXPECT_TRUE(buffered.destination->writes.empty());
    EXPECT_EQ(6u, buffered.stream->getCount());
    buffered.stream->flush();
    std::vector<std::string> expected{"abcdef"};
    EXPECT_EQ(expected, buffered.destination->writes);
}

TEST(HvBufferedOutputStream, BlockThatDoesNotFitFlushesFirst)
{
    Buffered buffered(8);
    buffered.stream->write("abcde", 5, 0);
    buffered.stream->write("fghi", 4, 0);
    std::vector<std::string> expected{"abcde"};
    EXPECT_EQ(expected, buffered.destination->writes);
    EXPECT_EQ(4u, buffered.stream->getCount());
}

TEST(HvBufferedOutputStream, BlockLargerThanTheBufferGoesStraightThrough)
{
    Buffered buffered(8);
    buffered.stream->write("ab", 2, 0);
    buffered.stream->write("0123456789", 10, 0);
    std::vector<std::string> expected{"ab", "0123456789"};
    EXPECT_EQ(expected, buffered.destination->writes);
    EXPECT_EQ(0u, buffered.stream->getCount());
}

TEST(HvBufferedOutputStream, BlockOfExactlyTheBufferSizeIsBuffered)
{
    Buffered buffered(8);
    buffered.stream->write("01234567", 8, 0);
    EXPECT_TRUE(buffered.destination->writes.empty());
    EXPECT_EQ(8u, buffered.stream->getCount());
}

TEST(HvBufferedOutputStream, NullBlockWritesNothing)
{
    Buffered buffered(8);
    buffered.stream->write(static_cast<const void*>(nullptr), 5, 0);
    EXPECT_EQ(0u, buffered.stream->getCount());
    EXPECT_TRUE(buffered.destination->writes.empty());
}

TEST(HvBufferedOutputStream, FlushWritesTheBufferedBytesButDoesNotFlushTheDestination)
{
    Buffered buffered(16);
    *buffered.stream << "INVITE " << 42;
    buffered.stream->flush();
    std::vector<std::string> expected{"INVITE 42"};
    EXPECT_EQ(expected, buffered.destination->writes);
    EXPECT_EQ(0, buffered.destination->flushes);
    EXPECT_EQ(0u, buffered.stream->getCount());
}

TEST(HvBufferedOutputStream, EndlWritesTheLineEndAndFlushes)
{
    Buffered buffered(16);
    *buffered.stream << "line" << endl;
    EXPECT_EQ("line\n", buffered.destination->all());
    EXPECT_EQ(0, buffered.destination->flushes);
}

TEST(HvBufferedOutputStream, DestroyingWithUnflushedBytesDoesNotWriteThem)
{
    HvHandle<RecordingOutputStream> destination(new RecordingOutputStream);
    {
        HvHandle<HvBufferedOutputStream> stream(new HvBufferedOutputStream(destination.get(), 32));
        stream->write("pending", 7, 0);
    }
    EXPECT_TRUE(destination->writes.empty());
    EXPECT_EQ(0, destination->flushes);
    // The destination was only borrowed by the stream's handle.
    EXPECT_EQ(1, destination->getRefCount());
}

TEST(HvBufferedOutputStream, SocketOutputStreamIsWrappedIn512Bytes)
{
    hvtest::RawListener listener;
    HvHandle<HvClientSocket> socket(new HvClientSocket(hvtest::loopback(), listener.port(), HvInetAddress()));
    hvtest::Descriptor peer = listener.accept();
    ASSERT_TRUE(peer.valid());
    HvHandle<HvOutputStream> output = socket->getOutputStream();
    HvBufferedOutputStream* buffered = dynamic_cast<HvBufferedOutputStream*>(output.get());
    ASSERT_NE(nullptr, buffered);
    EXPECT_EQ(512u, buffered->getCapacity());
    EXPECT_NE(nullptr, dynamic_cast<HvSocketOutputStream*>(buffered->getDestination().get()));

    output->write("SIP/2.0 200 OK\r\n", 16, 0);
    EXPECT_EQ(16u, buffered->getCount());
    output->flush();
    EXPECT_EQ("SIP/2.0 200 OK\r\n", hvtest::readExactly(peer.get(), 16));

    int descriptor = socket->getDescriptor();
    socket->close();
    if (HvSocketFactory::sFromHandle(descriptor).get() == socket.get())
        HvSocketFactory::sRemoveHandle(descriptor);
}
