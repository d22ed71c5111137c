#include <HvUtil/HvDatagramPacket.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>

namespace {

HvHandle<HvByteArray> bytesOf(const char* text)
{
    return HvByteArray::sCreate(static_cast<unsigned int>(std::strlen(text)), text);
}

HvInetAddress addressOf(const char* dotted)
{
    HvInetAddress address;
    address.setAddress(inet_addr(dotted));
    return address;
}

TEST(HvDatagramPacketTest, ConstructorStoresEndpointsAndWindow)
{
    HvHandle<HvByteArray> data = bytesOf("0123456789");
    HvHandle<HvDatagramPacket> packet(
        new HvDatagramPacket(data.get(), 2, 5, addressOf("10.0.0.7"), 5060, addressOf("127.0.0.1"), 5070));
    EXPECT_EQ(data.get(), packet->getData().get());
    EXPECT_EQ(2u, packet->getOffset());
    EXPECT_EQ(5u, packet->getLength());
    EXPECT_EQ(inet_addr("10.0.0.7"), packet->getAddress().getAddress());
    EXPECT_EQ(5060u, packet->getPort());
    EXPECT_EQ(inet_addr("127.0.0.1"), packet->getLocalAddress().getAddress());
    EXPECT_EQ(5070u, packet->getLocalPort());
}

TEST(HvDatagramPacketTest, EndpointsDefaultToZero)
{
    HvHandle<HvByteArray> data = bytesOf("abc");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(data.get(), 0, 3));
    EXPECT_EQ(0u, packet->getAddress().getAddress());
    EXPECT_EQ(0u, packet->getPort());
    EXPECT_EQ(0u, packet->getLocalAddress().getAddress());
    EXPECT_EQ(0u, packet->getLocalPort());
}

TEST(HvDatagramPacketTest, SetLengthZeroMeansSizeMinusOffset)
{
    HvHandle<HvByteArray> data = bytesOf("0123456789");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(data.get(), 3, 4));
    EXPECT_EQ(4u, packet->getLength());
    packet->setLength(0);
    EXPECT_EQ(7u, packet->getLength());
}

TEST(HvDatagramPacketTest, ConstructorWithLengthZeroTakesTheRestOfTheArray)
{
    HvHandle<HvByteArray> data = bytesOf("0123456789");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(data.get(), 4, 0));
    EXPECT_EQ(4u, packet->getOffset());
    EXPECT_EQ(6u, packet->getLength());
}

TEST(HvDatagramPacketTest, LengthBeyondTheArrayIsClippedToTheRoomAfterTheOffset)
{
    HvHandle<HvByteArray> data = bytesOf("0123456789");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(data.get(), 6, 100));
    EXPECT_EQ(4u, packet->getLength());
    packet->setLength(5);
    EXPECT_EQ(4u, packet->getLength());
    packet->setLength(3);
    EXPECT_EQ(3u, packet->getLength());
}

TEST(HvDatagramPacketTest, OffsetBeyondTheSizeIsClampedToTheSizeAndLengthToZero)
{
    HvHandle<HvByteArray> data = bytesOf("0123456789");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(data.get(), 0, 0));
    packet->setData(data.get(), 25, 4);
    EXPECT_EQ(10u, packet->getOffset());
    EXPECT_EQ(0u, packet->getLength());
    EXPECT_EQ(0u, packet->getRoom());
    packet->setLength(0);
    EXPECT_EQ(0u, packet->getLength());
}

TEST(HvDatagramPacketTest, NullArrayGivesOffsetAndLengthZero)
{
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(nullptr, 7, 9));
    EXPECT_TRUE(packet->getData().isNull());
    EXPECT_EQ(0u, packet->getOffset());
    EXPECT_EQ(0u, packet->getLength());
    EXPECT_EQ(0u, packet->getRoom());
}

TEST(HvDatagramPacketTest, SetDataReplacesTheArrayAndReleasesTheOldOne)
{
    HvHandle<HvByteArray> first = bytesOf("first");
    HvHandle<HvByteArray> second = bytesOf("second array");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(first.get(), 1, 2));
    EXPECT_EQ(2, first->getRefCount());
    packet->setData(second.get(), 7, 0);
    EXPECT_EQ(1, first->getRefCount());
    EXPECT_EQ(2, second->getRefCount());
    EXPECT_EQ(second.get(), packet->getData().get());
    EXPECT_EQ(7u, packet->getOffset());
    EXPECT_EQ(5u, packet->getLength());
    EXPECT_EQ(5u, packet->getRoom());
}

TEST(HvDatagramPacketTest, SettersChangeTheEndpoints)
{
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(nullptr, 0, 0));
    packet->setAddress(addressOf("192.168.1.2"));
    packet->setPort(1234);
    packet->setLocalAddress(addressOf("192.168.1.3"));
    packet->setLocalPort(4321);
    EXPECT_EQ(inet_addr("192.168.1.2"), packet->getAddress().getAddress());
    EXPECT_EQ(1234u, packet->getPort());
    EXPECT_EQ(inet_addr("192.168.1.3"), packet->getLocalAddress().getAddress());
    EXPECT_EQ(4321u, packet->getLocalPort());
}

TEST(HvDatagramPacketTest, AllocatedUnderItsClassTagAndFreedWithItsLastHandle)
{
    hvtest::LeakCheck leaks("HvDatagramPacket");
    const long before = hvtest::liveCount("HvDatagramPacket");
    {
        HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(nullptr, 0, 0));
        EXPECT_EQ(before + 1, hvtest::liveCount("HvDatagramPacket"));
    }
    EXPECT_EQ(before, hvtest::liveCount("HvDatagramPacket"));
}

TEST(HvDatagramPacketTest, ReleasingThePacketReleasesItsArray)
{
    HvHandle<HvByteArray> data = bytesOf("payload");
    {
        HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(data.get(), 0, 0));
        EXPECT_EQ(2, data->getRefCount());
    }
    EXPECT_EQ(1, data->getRefCount());
}

} // namespace
