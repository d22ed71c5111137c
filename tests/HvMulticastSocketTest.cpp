#include <HvUtil/HvMulticastSocket.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvException.h>

#include <tests/support/HvTestSockets.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

namespace {

::testing::Environment* const fs_environment = hvtest::useDefaultScheduling();

HvHandle<HvMulticastSocket> boundSocket()
{
    return HvHandle<HvMulticastSocket>(new HvMulticastSocket(hvtest::freeUdpPort(), hvtest::loopback(), false, 1024));
}

HvInetAddress addressOf(const char* dotted)
{
    HvInetAddress address;
    address.setAddress(inet_addr(dotted));
    return address;
}

TEST(HvMulticastSocketTest, IsABoundDatagramSocket)
{
    const unsigned int port = hvtest::freeUdpPort();
    HvHandle<HvMulticastSocket> socket(new HvMulticastSocket(port, hvtest::loopback(), false, 1024));
    EXPECT_NE(-1, socket->getDescriptor());
    EXPECT_EQ(port, socket->getLocalPort());
    EXPECT_EQ(1024u, socket->getBufferSize());
    HvDatagramSocket* base = socket.get();
    EXPECT_NE(nullptr, base);
    socket->close();
}

TEST(HvMulticastSocketTest, ConnectFlagFailsAsForAnyDatagramSocket)
{
    hvtest::RawUdpSocket peer;
    EXPECT_EQ("HvSocketImpl::setsockopt(...)", hvtest::messageOf([&] {
                  HvHandle<HvMulticastSocket>(new HvMulticastSocket(peer.port(), hvtest::loopback(), true, 64));
              }));
}

TEST(HvMulticastSocketTest, JoiningAnAddressThatIsNoGroupThrows)
{
    HvHandle<HvMulticastSocket> socket = boundSocket();
    hvtest::expectPlainHvException([&] { socket->joinGroup(addressOf("127.0.0.1")); }, "error in setsockopt()");
    socket->close();
}

TEST(HvMulticastSocketTest, LeavingAGroupNeverJoinedThrows)
{
    HvHandle<HvMulticastSocket> socket = boundSocket();
    hvtest::expectPlainHvException([&] { socket->leaveGroup(addressOf("239.1.2.3")); }, "error in setsockopt()");
    socket->close();
}

TEST(HvMulticastSocketTest, JoinOnAClosedSocketThrows)
{
    HvHandle<HvMulticastSocket> socket = boundSocket();
    socket->close();
    hvtest::expectPlainHvException([&] { socket->joinGroup(addressOf("239.1.2.3")); }, "error in setsockopt()");
}

TEST(HvMulticastSocketTest, JoinedGroupCanBeLeftOnce)
{
    HvHandle<HvMulticastSocket> socket = boundSocket();
    HvHandle<HvException> joined = hvtest::thrownBy([&] { socket->joinGroup(addressOf("239.1.2.3")); });
    if (!joined.isNull()) {
        // The membership needs a route for the group: a host without one
        // (no default route, no multicast route) refuses every join.
        EXPECT_STREQ("error in setsockopt()", joined->getMessage().c_str());
        socket->close();
        GTEST_SKIP() << "this host has no route for multicast groups";
    }
    EXPECT_TRUE(hvtest::thrownBy([&] { socket->leaveGroup(addressOf("239.1.2.3")); }).isNull());
    hvtest::expectPlainHvException([&] { socket->leaveGroup(addressOf("239.1.2.3")); }, "error in setsockopt()");
    socket->close();
}

TEST(HvMulticastSocketTest, TimeToLiveIsSetAndReadAsOneByte)
{
    HvHandle<HvMulticastSocket> socket = boundSocket();
    EXPECT_EQ(1, socket->getTimeToLive());
    EXPECT_EQ(0, socket->setTimeToLive(5));
    EXPECT_EQ(5, socket->getTimeToLive());
    EXPECT_EQ(0, socket->setTimeToLive(255));
    EXPECT_EQ(255, socket->getTimeToLive());
    socket->close();
}

TEST(HvMulticastSocketTest, TimeToLiveThatCannotBeSetIsReturnedWithoutThrowing)
{
    HvHandle<HvMulticastSocket> socket = boundSocket();
    socket->close();
    int result = 0;
    EXPECT_TRUE(hvtest::thrownBy([&] { result = socket->setTimeToLive(9); }).isNull());
    EXPECT_EQ(-1, result);
}

TEST(HvMulticastSocketTest, SendWithTimeToLiveSetsItThenSends)
{
    hvtest::RawUdpSocket peer;
    HvHandle<HvMulticastSocket> socket = boundSocket();
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate("ttl");
    HvHandle<HvDatagramPacket> packet(new HvDatagramPacket(bytes.get(), 0, 0, hvtest::loopback(), peer.port()));
    EXPECT_EQ(0, socket->send(packet.get(), 7));
    EXPECT_EQ(7, socket->getTimeToLive());
    EXPECT_EQ("ttl", peer.receive());
    // The plain send stays available and leaves the time-to-live alone.
    EXPECT_EQ(0, socket->send(packet.get()));
    EXPECT_EQ("ttl", peer.receive());
    EXPECT_EQ(7, socket->getTimeToLive());
    socket->close();
}

} // namespace
