#include "HvSipReply.h"

#include "HvSipMessage.h"

#include <HvUtil/HvByteArray.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

namespace {

HvSipSource sourceAt(const char* dottedQuad, unsigned int port)
{
    HvSipSource source;
    source.address.setAddress(::inet_addr(dottedQuad));
    source.port = port;
    return source;
}

// Parses text into message (kept alive by the caller) and checks it read.
void read(HvSipMessage& message, const std::string& text)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    ASSERT_EQ(HvSipMessage::Error::None, message.parse(bytes.get(), 0, bytes->getSize())) << text;
}

std::string textOf(const HvHandle<HvByteArray>& bytes)
{
    return std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
}

std::string requestWith(const std::string& to, const std::string& from = "<sip:a@x>;tag=f1",
                        const std::string& callId = "id-1")
{
    return "OPTIONS sip:b@y SIP/2.0\r\n"
           "Via: SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK-top\r\n"
           "To: " + to + "\r\n"
           "From: " + from + "\r\n"
           "Call-ID: " + callId + "\r\n"
           "CSeq: 5 OPTIONS\r\n"
           "Max-Forwards: 70\r\n\r\n";
}

} // namespace

TEST(HvSipReply, ReasonPhrasesOfTheResponderStatuses)
{
    EXPECT_STREQ("OK", HvSipReply::sReasonPhrase(200));
    EXPECT_STREQ("Bad Request", HvSipReply::sReasonPhrase(400));
    EXPECT_STREQ("Method Not Allowed", HvSipReply::sReasonPhrase(405));
    EXPECT_STREQ("Not Implemented", HvSipReply::sReasonPhrase(501));
    EXPECT_STREQ("Unknown", HvSipReply::sReasonPhrase(302));
    EXPECT_STREQ("Unknown", HvSipReply::sReasonPhrase(0));
}

TEST(HvSipReply, DottedQuadOfEveryDigitCount)
{
    EXPECT_EQ("0.0.0.0", HvSipReply::sDottedQuad(::inet_addr("0.0.0.0")));
    EXPECT_EQ("127.0.0.1", HvSipReply::sDottedQuad(::inet_addr("127.0.0.1")));
    EXPECT_EQ("10.200.3.45", HvSipReply::sDottedQuad(::inet_addr("10.200.3.45")));
    EXPECT_EQ("255.255.255.255", HvSipReply::sDottedQuad(0xFFFFFFFFu));
}

TEST(HvSipReply, SameSourceAddressWithoutRportLeavesTheViaAsItIs)
{
    EXPECT_EQ("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1",
              HvSipReply::sStampTopVia("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1", sourceAt("10.0.0.1", 5070)));
    EXPECT_EQ("SIP/2.0/UDP 10.0.0.1;branch=z9hG4bK1",
              HvSipReply::sStampTopVia("SIP/2.0/UDP 10.0.0.1;branch=z9hG4bK1", sourceAt("10.0.0.1", 9999)));
}

TEST(HvSipReply, DifferentSourceAddressAddsReceived)
{
    EXPECT_EQ("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1;received=192.0.2.7",
              HvSipReply::sStampTopVia("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1", sourceAt("192.0.2.7", 5070)));
}

TEST(HvSipReply, HostNameSentByAddsReceived)
{
    EXPECT_EQ("SIP/2.0/TCP client.example.com:5070;branch=z9hG4bK1;received=10.0.0.1",
              HvSipReply::sStampTopVia("SIP/2.0/TCP client.example.com:5070;branch=z9hG4bK1",
                                       sourceAt("10.0.0.1", 40000)));
}

TEST(HvSipReply, EmptyRportIsFilledAndReceivedAddedEvenForTheSameAddress)
{
    EXPECT_EQ("SIP/2.0/UDP 10.0.0.1:5070;rport=40000;branch=z9hG4bK1;received=10.0.0.1",
              HvSipReply::sStampTopVia("SIP/2.0/UDP 10.0.0.1:5070;rport;branch=z9hG4bK1",
                                       sourceAt("10.0.0.1", 40000)));
    EXPECT_EQ("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1;rport=1;received=203.0.113.255",
              HvSipReply::sStampTopVia("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1;RPORT",
                                       sourceAt("203.0.113.255", 1)));
}

TEST(HvSipReply, RportWithAValueIsKept)
{
    EXPECT_EQ("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1;rport=5070;received=10.0.0.9",
              HvSipReply::sStampTopVia("SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1;rport=5070",
                                       sourceAt("10.0.0.9", 6000)));
}

TEST(HvSipReply, AReceivedTheRequestBroughtIsReplacedByTheRealSource)
{
    EXPECT_EQ("SIP/2.0/UDP h.example;branch=z9hG4bK1;received=10.0.0.9",
              HvSipReply::sStampTopVia("SIP/2.0/UDP h.example;received=1.1.1.1;branch=z9hG4bK1",
                                       sourceAt("10.0.0.9", 6000)));
}

TEST(HvSipReply, ToTagDependsOnlyOnCallIdAndFromTag)
{
    HvSipMessage first;
    HvSipMessage retransmission;
    HvSipMessage otherCall;
    HvSipMessage otherFromTag;
    read(first, requestWith("<sip:b@y>"));
    read(retransmission, requestWith("\"Bob\" <sip:b@y>", "<sip:other@x>;tag=f1"));
    read(otherCall, requestWith("<sip:b@y>", "<sip:a@x>;tag=f1", "id-2"));
    read(otherFromTag, requestWith("<sip:b@y>", "<sip:a@x>;tag=f2"));
    std::string tag = HvSipReply::sMakeToTag(first);
    EXPECT_EQ(16u, tag.size());
    EXPECT_EQ(std::string::npos, tag.find_first_not_of("0123456789abcdef"));
    EXPECT_EQ(tag, HvSipReply::sMakeToTag(retransmission));
    EXPECT_NE(tag, HvSipReply::sMakeToTag(otherCall));
    EXPECT_NE(tag, HvSipReply::sMakeToTag(otherFromTag));
}

TEST(HvSipReply, ToWithoutTagGetsOneAndToWithTagIsKept)
{
    HvSipMessage untagged;
    read(untagged, requestWith("<sip:b@y>"));
    std::string reply = textOf(HvSipReply::sBuild(untagged, sourceAt("10.0.0.1", 5070), 200, nullptr, ""));
    EXPECT_NE(std::string::npos, reply.find("\r\nTo: <sip:b@y>;tag=" + HvSipReply::sMakeToTag(untagged) + "\r\n"));

    HvSipMessage tagged;
    read(tagged, requestWith("<sip:b@y>;tag=mine"));
    reply = textOf(HvSipReply::sBuild(tagged, sourceAt("10.0.0.1", 5070), 200, nullptr, ""));
    EXPECT_NE(std::string::npos, reply.find("\r\nTo: <sip:b@y>;tag=mine\r\n"));
    EXPECT_EQ(std::string::npos, reply.find(HvSipReply::sMakeToTag(tagged)));
}

TEST(HvSipReply, BuildsTheWholeReplyInOrder)
{
    HvSipMessage request;
    read(request, "OPTIONS sip:b@y SIP/2.0\r\n"
                  "v: SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK-a;rport, SIP/2.0/UDP proxy.example;branch=z9hG4bK-b\r\n"
                  "Via: SIP/2.0/TCP 10.9.9.9;branch=z9hG4bK-c\r\n"
                  "i: compact@id\r\n"
                  "f: <sip:a@x>;tag=f1\r\n"
                  "t: <sip:b@y>;tag=t1\r\n"
                  "CSeq: 9 OPTIONS\r\n"
                  "Max-Forwards: 70\r\n\r\n");
    std::string reply = textOf(
        HvSipReply::sBuild(request, sourceAt("10.0.0.2", 5071), 405, nullptr, "Allow: OPTIONS\r\nX-Extra: 1\r\n"));
    EXPECT_EQ("SIP/2.0 405 Method Not Allowed\r\n"
              "Via: SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK-a;rport=5071;received=10.0.0.2\r\n"
              "Via: SIP/2.0/UDP proxy.example;branch=z9hG4bK-b\r\n"
              "Via: SIP/2.0/TCP 10.9.9.9;branch=z9hG4bK-c\r\n"
              "To: <sip:b@y>;tag=t1\r\n"
              "From: <sip:a@x>;tag=f1\r\n"
              "Call-ID: compact@id\r\n"
              "CSeq: 9 OPTIONS\r\n"
              "Allow: OPTIONS\r\n"
              "X-Extra: 1\r\n"
              "Server: hv-sip-responder\r\n"
              "Content-Length: 0\r\n"
              "\r\n",
              reply);
}

TEST(HvSipReply, GivenReasonReplacesTheStandardPhrase)
{
    HvSipMessage request;
    read(request, requestWith("<sip:b@y>;tag=t"));
    std::string reply = textOf(HvSipReply::sBuild(request, sourceAt("10.0.0.1", 5070), 400, "Missing Call-ID", ""));
    EXPECT_EQ(0u, reply.find("SIP/2.0 400 Missing Call-ID\r\nVia: "));
    reply = textOf(HvSipReply::sBuild(request, sourceAt("10.0.0.1", 5070), 501, nullptr, ""));
    EXPECT_EQ(0u, reply.find("SIP/2.0 501 Not Implemented\r\n"));
}

TEST(HvSipReply, AbsentHeadersAreLeftOutOfTheReply)
{
    HvSipMessage request;
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate("OPTIONS sip:b@y SIP/2.0\r\n"
                                                       "Via: SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1\r\n"
                                                       "CSeq: 1 OPTIONS\r\n\r\n");
    ASSERT_EQ(HvSipMessage::Error::None, request.parse(bytes.get(), 0, bytes->getSize()));
    EXPECT_EQ("SIP/2.0 400 Missing From\r\n"
              "Via: SIP/2.0/UDP 10.0.0.1:5070;branch=z9hG4bK1\r\n"
              "CSeq: 1 OPTIONS\r\n"
              "Server: hv-sip-responder\r\n"
              "Content-Length: 0\r\n\r\n",
              textOf(HvSipReply::sBuild(request, sourceAt("10.0.0.1", 5070), 400, "Missing From", "")));
}
