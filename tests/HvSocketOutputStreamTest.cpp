#include <HvUtil/HvSocketOutputStream.h>

#include <HvUtil/HvClientSocket.h>
#include <HvUtil/HvSocketFactory.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

using Fixture = hvtest::StreamOnRawPeer<HvSocketOutputStream>;

std::string pattern(std::size_t size)
{
    std::string result(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        result[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    return result;
}

} // namespace

TEST(HvSocketOutputStream, WriteOfOneByteSendsItsLowByte)
{
    Fixture f;
    f.stream->write(0x141);
    f.stream->write('b');
    f.stream->write(-1);
    EXPECT_EQ("Ab\xff", hvtest::readExactly(f.peer.get(), 3));
}

TEST(HvSocketOutputStream, BlockWriteSendsFromTheOffset)
{
    Fixture f;
    f.stream->write("..REGISTER..", 8, 2);
    EXPECT_EQ("REGISTER", hvtest::readExactly(f.peer.get(), 8));
}

TEST(HvSocketOutputStream, ZeroLengthWriteSendsNothing)
{
    Fixture f;
    hvtest::DebugOutputCapture capture(false);
    capture.stream().setLevel(6);
    f.stream->write("abc", 0, 0);
    capture.stream().setLevel(3);
    EXPECT_EQ("", capture.text());
    f.stream->write("z", 1, 0);
    EXPECT_EQ("z", hvtest::readExactly(f.peer.get(), 1));
}

TEST(HvSocketOutputStream, NullBufferWritesNothing)
{
    Fixture f;
    f.stream->write(static_cast<const void*>(nullptr), 5, 2);
    EXPECT_EQ(f.descriptor, f.socket->getDescriptor());
    f.stream->write("y", 1, 0);
    EXPECT_EQ("y", hvtest::readExactly(f.peer.get(), 1));
}

TEST(HvSocketOutputStream, LargeWriteIsResumedAfterPartialSendsUntilAllIsGone)
{
    Fixture f;
    // More than both socket buffers hold: the sends cannot take it at once.
    const std::string data = pattern(4 * 1024 * 1024);
    std::string received;
    std::thread reader([&] { received = hvtest::readExactly(f.peer.get(), data.size(), 60000); });
    f.stream->write(data.data(), static_cast<unsigned int>(data.size()), 0);
    reader.join();
    EXPECT_EQ(data.size(), received.size());
    EXPECT_TRUE(data == received);
}

TEST(HvSocketOutputStream, FailedSendAbandonsTheRestAndOthersGoOn)
{
    Fixture victim;
    Fixture bystander;
    hvtest::resetConnection(victim.peer);
    // Large enough that a send fails before all of it could be queued.
    const std::string data = pattern(8 * 1024 * 1024);
    auto start = std::chrono::steady_clock::now();
    victim.stream->write(data.data(), static_cast<unsigned int>(data.size()), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(-1, victim.socket->getDescriptor());
    // Later writes on the closed socket return at once.
    victim.stream->write("more", 4, 0);

    bystander.stream->write("alive", 5, 0);
    EXPECT_EQ("alive", hvtest::readExactly(bystander.peer.get(), 5));
}

TEST(HvSocketOutputStream, FlushIsInheritedAndHarmless)
{
    Fixture f;
    f.stream->write("ok", 2, 0);
    f.stream->flush();
    EXPECT_EQ("ok", hvtest::readExactly(f.peer.get(), 2));
}
