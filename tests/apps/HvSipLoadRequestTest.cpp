#include "HvSipLoadRequest.h"

#include <HvSipMessage.h>
#include <HvSipResponderCore.h>

#include <HvUtil/HvByteArray.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>

namespace {

HvSipLoadRequest::Fields sampleFields()
{
    HvSipLoadRequest::Fields fields;
    fields.transport = "UDP";
    fields.localHost = "127.0.0.1";
    fields.localPort = 40000;
    fields.targetHost = "127.0.0.1";
    fields.targetPort = 5060;
    fields.branch = HvSipLoadRequest::sMakeBranch("0123abcd", 26);
    fields.callId = "6ba7b810-9dad-11d1-80b4-00c04fd430c8@127.0.0.1";
    fields.cseq = 27;
    fields.fromTag = "0123abcd-26";
    return fields;
}

// Reads `text` as one message; the error is stored in `error`.
HvSipMessage::Error parse(HvSipMessage& message, const std::string& text)
{
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    return message.parse(bytes.get(), 0, static_cast<unsigned int>(text.size()));
}

std::string reply(const std::string& statusLine, const std::string& callId, const std::string& cseq,
                  const std::string& branch)
{
    return statusLine + "\r\n"
           "Via: SIP/2.0/UDP 127.0.0.1:40000;branch=" + branch + ";rport=40000\r\n"
           "From: <sip:hv-sip-load@127.0.0.1:40000>;tag=0123abcd-26\r\n"
           "To: <sip:127.0.0.1:5060>;tag=x\r\n"
           "Call-ID: " + callId + "\r\n"
           "CSeq: " + cseq + "\r\n"
           "Content-Length: 0\r\n\r\n";
}

HvSipLoadRequest::Verdict verdictOf(const std::string& text)
{
    HvSipMessage message;
    HvSipMessage::Error error = parse(message, text);
    return HvSipLoadRequest::sCheck(message, error, sampleFields().callId, 27);
}

} // namespace

TEST(HvSipLoadRequest, BranchStartsWithTheMagicCookieAndIsUniquePerNumber)
{
    EXPECT_EQ("z9hG4bK0123abcd.1a", HvSipLoadRequest::sMakeBranch("0123abcd", 26));
    EXPECT_NE(HvSipLoadRequest::sMakeBranch("0123abcd", 1), HvSipLoadRequest::sMakeBranch("0123abcd", 2));
    EXPECT_NE(HvSipLoadRequest::sMakeBranch("0123abcd", 1), HvSipLoadRequest::sMakeBranch("0123abce", 1));
}

TEST(HvSipLoadRequest, OptionsRequestCarriesEveryMandatoryHeader)
{
    EXPECT_EQ("OPTIONS sip:127.0.0.1:5060 SIP/2.0\r\n"
              "Via: SIP/2.0/UDP 127.0.0.1:40000;branch=z9hG4bK0123abcd.1a;rport\r\n"
              "Max-Forwards: 70\r\n"
              "To: <sip:127.0.0.1:5060>\r\n"
              "From: <sip:hv-sip-load@127.0.0.1:40000>;tag=0123abcd-26\r\n"
              "Call-ID: 6ba7b810-9dad-11d1-80b4-00c04fd430c8@127.0.0.1\r\n"
              "CSeq: 27 OPTIONS\r\n"
              "Contact: <sip:hv-sip-load@127.0.0.1:40000>\r\n"
              "Accept: application/sdp\r\n"
              "Content-Length: 0\r\n"
              "\r\n",
              HvSipLoadRequest::sBuild(sampleFields()));
}

TEST(HvSipLoadRequest, TcpRequestNamesTheTransportInViaAndContact)
{
    HvSipLoadRequest::Fields fields = sampleFields();
    fields.transport = "TCP";
    const std::string text = HvSipLoadRequest::sBuild(fields);
    EXPECT_NE(std::string::npos, text.find("\r\nVia: SIP/2.0/TCP 127.0.0.1:40000;branch=z9hG4bK0123abcd.1a;rport\r\n"));
    EXPECT_NE(std::string::npos, text.find("\r\nContact: <sip:hv-sip-load@127.0.0.1:40000;transport=tcp>\r\n"));
}

TEST(HvSipLoadRequest, RequestReadsBackAsAWellFormedOptions)
{
    HvSipMessage message;
    ASSERT_EQ(HvSipMessage::Error::None, parse(message, HvSipLoadRequest::sBuild(sampleFields())));
    EXPECT_TRUE(message.isRequest());
    EXPECT_STREQ("OPTIONS", message.getMethod().c_str());
    EXPECT_STREQ("sip:127.0.0.1:5060", message.getRequestUri().c_str());
    ASSERT_EQ(1u, message.getVias().size());
    EXPECT_EQ("z9hG4bK0123abcd.1a", HvSipLoadRequest::sTopBranch(message));
    EXPECT_TRUE(HvSipMessage::sHasParameter(message.getVias()[0], "rport"));
    EXPECT_EQ(70, message.getMaxForwards());
    EXPECT_EQ(27u, message.getCSeqNumber());
    EXPECT_STREQ("OPTIONS", message.getCSeqMethod().c_str());
    EXPECT_STREQ("6ba7b810-9dad-11d1-80b4-00c04fd430c8@127.0.0.1", message.getCallId().c_str());
    EXPECT_EQ(0, message.getContentLength());
}

TEST(HvSipLoadRequest, TheResponderCoreAnswersTheRequestWithASuccess)
{
    const std::string text = HvSipLoadRequest::sBuild(sampleFields());
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    HvSipSource source;
    source.address.setAddress(htonl(INADDR_LOOPBACK));
    source.port = 40000;
    HvSipResponderCore::Result result =
        HvSipResponderCore::sHandle(bytes.get(), 0, static_cast<unsigned int>(text.size()), source);
    ASSERT_EQ(HvSipResponderCore::Outcome::Replied, result.outcome);
    ASSERT_FALSE(result.reply.isNull());

    HvSipMessage answer;
    HvSipMessage::Error error = answer.parse(result.reply.get(), 0, result.reply->getSize());
    EXPECT_EQ("z9hG4bK0123abcd.1a", HvSipLoadRequest::sTopBranch(answer));
    EXPECT_EQ(HvSipLoadRequest::Verdict::Success, HvSipLoadRequest::sCheck(answer, error, sampleFields().callId, 27));
}

TEST(HvSipLoadRequest, RepliesAreJudgedByStatusCallIdAndCSeq)
{
    const std::string callId = sampleFields().callId;
    const std::string branch = sampleFields().branch;
    EXPECT_EQ(HvSipLoadRequest::Verdict::Success, verdictOf(reply("SIP/2.0 200 OK", callId, "27 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::Provisional,
              verdictOf(reply("SIP/2.0 100 Trying", callId, "27 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::Provisional,
              verdictOf(reply("SIP/2.0 183 Session Progress", callId, "27 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::WrongStatus,
              verdictOf(reply("SIP/2.0 404 Not Found", callId, "27 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::WrongStatus,
              verdictOf(reply("SIP/2.0 202 Accepted", callId, "27 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::Malformed,
              verdictOf(reply("SIP/2.0 200 OK", "other@127.0.0.1", "27 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::Malformed, verdictOf(reply("SIP/2.0 200 OK", callId, "28 OPTIONS", branch)));
    EXPECT_EQ(HvSipLoadRequest::Verdict::Malformed, verdictOf(reply("SIP/2.0 200 OK", callId, "27 INVITE", branch)));
    // Cut before the blank line.
    std::string cut = reply("SIP/2.0 200 OK", callId, "27 OPTIONS", branch);
    cut.resize(cut.size() - 4);
    EXPECT_EQ(HvSipLoadRequest::Verdict::Malformed, verdictOf(cut));
    // A request coming back is no reply.
    EXPECT_EQ(HvSipLoadRequest::Verdict::Malformed, verdictOf(HvSipLoadRequest::sBuild(sampleFields())));
}

TEST(HvSipLoadRequest, TopBranchIsEmptyWithoutAViaOrABranch)
{
    HvSipMessage message;
    parse(message, "SIP/2.0 200 OK\r\nCall-ID: a\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ("", HvSipLoadRequest::sTopBranch(message));
    parse(message, "SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP h:1\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ("", HvSipLoadRequest::sTopBranch(message));
    parse(message, "SIP/2.0 200 OK\r\nVia: SIP/2.0/UDP h:1;branch=z9hG4bKtop, SIP/2.0/UDP g:2;branch=z9hG4bKlow\r\n"
                   "Content-Length: 0\r\n\r\n");
    EXPECT_EQ("z9hG4bKtop", HvSipLoadRequest::sTopBranch(message));
}
