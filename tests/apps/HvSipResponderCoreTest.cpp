#include "HvSipResponderCore.h"

#include "HvSipMessage.h"

#include <HvUtil/HvByteArray.h>

#include "support/HvTestSip.h"
#include "support/HvTestSupport.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using hvtest::sipSourceAt;
using hvtest::replyText;

HvSipResponderCore::Result handle(const std::string& text, const HvSipSource& source = sipSourceAt("127.0.0.1", 5070))
{
    return hvtest::handleSip(text, source);
}

using Outcome = HvSipResponderCore::Outcome;

// A complete request; `skip` names a header line to leave out.
std::string request(const std::string& method, const std::string& cseqMethod = "", const std::string& skip = "",
                    const std::string& extra = "")
{
    std::string m = cseqMethod.empty() ? method : cseqMethod;
    std::string lines[] = {"Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport",
                           "Max-Forwards: 70",
                           "To: <sip:responder@127.0.0.1>",
                           "From: <sip:load@127.0.0.1>;tag=abc",
                           "Call-ID: call-1@127.0.0.1",
                           "CSeq: 1 " + m,
                           "Content-Length: 0"};
    std::string text = method + " sip:responder@127.0.0.1 SIP/2.0\r\n";
    for (const std::string& line : lines)
        if (skip.empty() || line.compare(0, skip.size() + 1, skip + ":") != 0)
            text += line + "\r\n";
    return text + extra + "\r\n";
}

std::string statusLineOf(const std::string& reply)
{
    return reply.substr(0, reply.find("\r\n"));
}

using hvtest::kCostCeilingUs;
using hvtest::kCostRounds;

} // namespace

TEST(HvSipResponderCore, AnswersOptionsWithExactlyTheseBytes)
{
    std::string text = "OPTIONS sip:responder@127.0.0.1:5060 SIP/2.0\r\n"
                       "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK776asdhds;rport\r\n"
                       "Max-Forwards: 70\r\n"
                       "To: <sip:responder@127.0.0.1:5060>\r\n"
                       "From: \"Load\" <sip:load@127.0.0.1:5070>;tag=1928301774\r\n"
                       "Call-ID: a84b4c76e66710@127.0.0.1\r\n"
                       "CSeq: 63104 OPTIONS\r\n"
                       "Accept: application/sdp\r\n"
                       "Content-Length: 0\r\n"
                       "\r\n";
    HvSipResponderCore::Result result = handle(text, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(200u, result.status);

    HvSipMessage parsed;
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    ASSERT_EQ(HvSipMessage::Error::None, parsed.parse(bytes.get(), 0, bytes->getSize()));
    std::string tag = HvSipReply::sMakeToTag(parsed);
    ASSERT_EQ(16u, tag.size());

    std::string expected = "SIP/2.0 200 OK\r\n"
                           "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK776asdhds;rport=5070;received=127.0.0.1\r\n"
                           "To: <sip:responder@127.0.0.1:5060>;tag=" +
                           tag +
                           "\r\n"
                           "From: \"Load\" <sip:load@127.0.0.1:5070>;tag=1928301774\r\n"
                           "Call-ID: a84b4c76e66710@127.0.0.1\r\n"
                           "CSeq: 63104 OPTIONS\r\n"
                           "Allow: OPTIONS\r\n"
                           "Accept: application/sdp\r\n"
                           "Supported:\r\n"
                           "Server: hv-sip-responder\r\n"
                           "Content-Length: 0\r\n"
                           "\r\n";
    EXPECT_EQ(expected, replyText(result));
    EXPECT_EQ(::inet_addr("127.0.0.1"), result.replyAddress.getAddress());
    EXPECT_EQ(5070u, result.replyPort);
}

TEST(HvSipResponderCore, OptionsReplyCarriesAllowAcceptSupportedAndZeroLengthOnly)
{
    std::string reply = replyText(handle(request("OPTIONS")));
    std::size_t extraStart = reply.find("CSeq: 1 OPTIONS\r\n");
    ASSERT_NE(std::string::npos, extraStart);
    std::string tail = reply.substr(extraStart + std::string("CSeq: 1 OPTIONS\r\n").size());
    EXPECT_EQ("Allow: OPTIONS\r\nAccept: application/sdp\r\nSupported:\r\nServer: hv-sip-responder\r\n"
              "Content-Length: 0\r\n\r\n",
              tail);
}

TEST(HvSipResponderCore, AckGetsNothing)
{
    HvSipResponderCore::Result result = handle(request("ACK"));
    EXPECT_EQ(Outcome::AckAbsorbed, result.outcome);
    EXPECT_EQ(0u, result.status);
    EXPECT_TRUE(result.reply.isNull());
}

TEST(HvSipResponderCore, AckMissingHeadersStillGetsNothing)
{
    HvSipResponderCore::Result result = handle(request("ACK", "", "Call-ID"));
    EXPECT_EQ(Outcome::AckAbsorbed, result.outcome);
    EXPECT_TRUE(result.reply.isNull());
}

TEST(HvSipResponderCore, EveryKnownMethodButOptionsGets405WithAllow)
{
    for (const char* method : {"INVITE", "BYE", "CANCEL", "REGISTER", "PRACK", "SUBSCRIBE", "NOTIFY", "PUBLISH",
                               "INFO", "REFER", "MESSAGE", "UPDATE"}) {
        HvSipResponderCore::Result result = handle(request(method));
        ASSERT_EQ(Outcome::Replied, result.outcome) << method;
        EXPECT_EQ(405u, result.status) << method;
        std::string reply = replyText(result);
        EXPECT_EQ("SIP/2.0 405 Method Not Allowed", statusLineOf(reply)) << method;
        EXPECT_NE(std::string::npos, reply.find("\r\nAllow: OPTIONS\r\n")) << method;
        EXPECT_EQ(std::string::npos, reply.find("Accept:")) << method;
        EXPECT_NE(std::string::npos, reply.find("\r\nCSeq: 1 " + std::string(method) + "\r\n")) << method;
    }
}

TEST(HvSipResponderCore, UnknownMethodGets501)
{
    HvSipResponderCore::Result result = handle(request("FOO"));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(501u, result.status);
    std::string reply = replyText(result);
    EXPECT_EQ("SIP/2.0 501 Not Implemented", statusLineOf(reply));
    EXPECT_EQ(std::string::npos, reply.find("Allow:"));
}

TEST(HvSipResponderCore, MethodNamesAreCaseSensitive)
{
    HvSipResponderCore::Result result = handle(request("options"));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(501u, result.status);
    EXPECT_EQ(405u, handle(request("INVITE")).status);
    EXPECT_EQ(501u, handle(request("Invite")).status);
}

TEST(HvSipResponderCore, EachMissingMandatoryHeaderGets400NamingIt)
{
    struct Case {
        const char* header;
        const char* statusLine;
    } cases[] = {{"From", "SIP/2.0 400 Missing From"},
                 {"To", "SIP/2.0 400 Missing To"},
                 {"Call-ID", "SIP/2.0 400 Missing Call-ID"},
                 {"CSeq", "SIP/2.0 400 Missing CSeq"},
                 {"Max-Forwards", "SIP/2.0 400 Missing Max-Forwards"}};
    for (const Case& c : cases) {
        HvSipResponderCore::Result result = handle(request("OPTIONS", "", c.header));
        ASSERT_EQ(Outcome::Replied, result.outcome) << c.header;
        EXPECT_EQ(400u, result.status) << c.header;
        std::string reply = replyText(result);
        EXPECT_EQ(c.statusLine, statusLineOf(reply));
        EXPECT_EQ(std::string::npos, reply.find("Allow:")) << c.header;
        EXPECT_NE(std::string::npos, reply.find("\r\nContent-Length: 0\r\n\r\n")) << c.header;
    }
}

TEST(HvSipResponderCore, MissingViaIsDropped)
{
    HvSipResponderCore::Result result = handle(request("OPTIONS", "", "Via"));
    EXPECT_EQ(Outcome::MalformedDropped, result.outcome);
    EXPECT_TRUE(result.reply.isNull());
}

TEST(HvSipResponderCore, UnreadableViaIsDropped)
{
    std::string text = request("OPTIONS");
    std::string good = "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport";
    for (const char* bad : {"Via: garbage", "Via: SIP/2.0/UDP", "Via: SIP/2.0/UDP 127.0.0.1:99999;branch=x",
                            "Via: SIP/2.0/UDP 127.0.0.1:port"}) {
        std::string broken = text;
        broken.replace(broken.find(good), good.size(), bad);
        HvSipResponderCore::Result result = handle(broken);
        EXPECT_EQ(Outcome::MalformedDropped, result.outcome) << bad;
        EXPECT_TRUE(result.reply.isNull()) << bad;
    }
}

TEST(HvSipResponderCore, ResponsesAreDropped)
{
    HvSipResponderCore::Result result = handle("SIP/2.0 200 OK\r\n"
                                               "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1\r\n"
                                               "To: <sip:a@b>;tag=1\r\nFrom: <sip:c@d>;tag=2\r\n"
                                               "Call-ID: x\r\nCSeq: 1 OPTIONS\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(Outcome::ResponseDropped, result.outcome);
    EXPECT_TRUE(result.reply.isNull());
    EXPECT_EQ(Outcome::ResponseDropped, handle("SIP/2.0 180 Ringing\r\nVia: garbage\r\n").outcome);
}

TEST(HvSipResponderCore, CSeqMethodDifferentFromMethodGets400)
{
    HvSipResponderCore::Result result = handle(request("OPTIONS", "INVITE"));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 CSeq Method Mismatch", statusLineOf(replyText(result)));
}

TEST(HvSipResponderCore, UnreadableCSeqGets400MalformedHeader)
{
    std::string text = request("OPTIONS");
    text.replace(text.find("CSeq: 1 OPTIONS"), 15, "CSeq: OPTIONS");
    HvSipResponderCore::Result result = handle(text);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 Malformed Header", statusLineOf(replyText(result)));
}

TEST(HvSipResponderCore, BodyShorterThanContentLengthGets400)
{
    std::string text = request("OPTIONS");
    text.replace(text.find("Content-Length: 0"), 17, "Content-Length: 10");
    text += "short";
    HvSipResponderCore::Result result = handle(text);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 Bad Content-Length", statusLineOf(replyText(result)));
}

TEST(HvSipResponderCore, NonNumericContentLengthGets400)
{
    std::string text = request("OPTIONS");
    text.replace(text.find("Content-Length: 0"), 17, "Content-Length: ten");
    HvSipResponderCore::Result result = handle(text);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 Bad Content-Length", statusLineOf(replyText(result)));
}

TEST(HvSipResponderCore, HeaderLineWithoutColonGets400)
{
    HvSipResponderCore::Result result = handle(request("OPTIONS", "", "", "No colon here\r\n"));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 Malformed Header", statusLineOf(replyText(result)));
}

TEST(HvSipResponderCore, RequestWithoutHeaderEndGets400WhenItHasAVia)
{
    std::string text = request("OPTIONS");
    text.resize(text.size() - 2);
    text.resize(text.rfind("Content-Length"));
    HvSipResponderCore::Result result = handle(text);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(400u, result.status);
}

TEST(HvSipResponderCore, RportSendsTheReplyToTheSourcePort)
{
    HvSipResponderCore::Result result = handle(request("OPTIONS"), sipSourceAt("10.1.2.3", 40000));
    EXPECT_EQ(::inet_addr("10.1.2.3"), result.replyAddress.getAddress());
    EXPECT_EQ(40000u, result.replyPort);
}

TEST(HvSipResponderCore, WithoutRportTheReplyGoesToTheSentByPort)
{
    std::string text = request("OPTIONS");
    text.replace(text.find(";rport"), 6, "");
    HvSipResponderCore::Result result = handle(text, sipSourceAt("10.1.2.3", 40000));
    EXPECT_EQ(::inet_addr("10.1.2.3"), result.replyAddress.getAddress());
    EXPECT_EQ(5070u, result.replyPort);
}

TEST(HvSipResponderCore, SentByWithoutPortMeans5060)
{
    std::string text = request("OPTIONS");
    text.replace(text.find("127.0.0.1:5070;branch=z9hG4bK-1;rport"), 37, "host.example;branch=z9hG4bK-1");
    HvSipResponderCore::Result result = handle(text, sipSourceAt("10.1.2.3", 40000));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(5060u, result.replyPort);
    EXPECT_NE(std::string::npos,
              replyText(result).find("Via: SIP/2.0/UDP host.example;branch=z9hG4bK-1;received=10.1.2.3\r\n"));
}

TEST(HvSipResponderCore, NonRequestsAndGarbageAreDropped)
{
    EXPECT_EQ(Outcome::MalformedDropped, handle("").outcome);
    EXPECT_EQ(Outcome::MalformedDropped, handle("\r\n\r\n").outcome);
    EXPECT_EQ(Outcome::MalformedDropped, handle("hello world\r\n\r\n").outcome);
    EXPECT_EQ(Outcome::MalformedDropped, HvSipResponderCore::sHandle(nullptr, 0, 10, sipSourceAt("1.2.3.4", 1)).outcome);
}

TEST(HvSipResponderCore, HandlesTheMessageInsideAWindow)
{
    std::string text = "JUNK" + request("OPTIONS") + "MORE";
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    HvSipResponderCore::Result result =
        HvSipResponderCore::sHandle(bytes.get(), 4, static_cast<unsigned int>(text.size() - 8), sipSourceAt("1.2.3.4", 9));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(200u, result.status);
}

TEST(HvSipResponderCore, ConsumedEndsWhereTheContentLengthEndsTheBody)
{
    const std::string first = request("OPTIONS", "", "Content-Length", "Content-Length: 5\r\n") + "hello";
    const std::string second = request("OPTIONS");
    HvSipResponderCore::Result result = handle("\r\n\r\n" + first + second);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(4 + first.size(), result.consumed) << "leading keep-alive CRLFs belong to the first message";

    EXPECT_EQ(second.size(), handle(second).consumed);
}

TEST(HvSipResponderCore, ConsumedIsTheWholeWindowWhenNoContentLengthEndsTheMessage)
{
    const std::string withoutLength = request("OPTIONS", "", "Content-Length") + "body and more";
    EXPECT_EQ(withoutLength.size(), handle(withoutLength).consumed);

    const std::string truncated = request("OPTIONS", "", "Content-Length", "Content-Length: 50\r\n") + "short";
    HvSipResponderCore::Result result = handle(truncated);
    EXPECT_EQ(400u, result.status);
    EXPECT_EQ(truncated.size(), result.consumed);

    EXPECT_EQ(4u, handle("\r\n\r\n").consumed);
    EXPECT_EQ(7u, handle("garbage").consumed);
    EXPECT_EQ(0u, handle("").consumed);
}

TEST(HvSipResponderCore, LineFeedOnlyAndFoldedRequestsAreAnswered)
{
    std::string text = request("OPTIONS");
    std::string lf;
    for (char c : text)
        if (c != '\r')
            lf.push_back(c);
    lf.replace(lf.find("Call-ID: call-1@127.0.0.1"), 25, "Call-ID:\n  call-1@127.0.0.1");
    HvSipResponderCore::Result result = handle(lf);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(200u, result.status);
    // The reply is written with CRLF whatever the request used.
    EXPECT_NE(std::string::npos, replyText(result).find("\r\nCall-ID: call-1@127.0.0.1\r\n"));
}

TEST(HvSipResponderCore, AMegabyteHeaderLineIsHandled)
{
    std::string big(1024 * 1024, 'x');
    HvSipResponderCore::Result result = handle(request("OPTIONS", "", "", "Subject: " + big + "\r\n"));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(200u, result.status);
    EXPECT_EQ(std::string::npos, replyText(result).find(big.substr(0, 100)));

    result = handle(request("OPTIONS", "", "", big + "\r\n"));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 Malformed Header", statusLineOf(replyText(result)));

    EXPECT_EQ(Outcome::MalformedDropped, handle(big).outcome);
}

TEST(HvSipResponderCore, NulAndFFBytesAreRefusedOrDropped)
{
    std::string text = request("OPTIONS");
    std::string nulInCallId = text;
    nulInCallId[nulInCallId.find("call-1") + 2] = '\0';
    HvSipResponderCore::Result result = handle(nulInCallId);
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0 400 Malformed Header", statusLineOf(replyText(result)));

    std::string nulInMethod = text;
    nulInMethod[2] = '\0';
    EXPECT_EQ(Outcome::MalformedDropped, handle(nulInMethod).outcome);

    EXPECT_EQ(Outcome::MalformedDropped, handle(std::string(300, '\xFF')).outcome);
    EXPECT_EQ(Outcome::MalformedDropped, handle(std::string(300, '\0')).outcome);
    std::string ffInMethod = text;
    ffInMethod[0] = '\xFF';
    EXPECT_EQ(Outcome::MalformedDropped, handle(ffInMethod).outcome);
}

TEST(HvSipResponderCore, RandomBytesNeverCrashAndAreDroppedOrRefused)
{
    std::mt19937 random(20261124);
    std::string valid = request("OPTIONS");
    for (int i = 0; i < 10000; ++i) {
        std::string text;
        if (i % 2 == 0) {
            std::size_t length = random() % 600;
            for (std::size_t j = 0; j < length; ++j)
                text.push_back(static_cast<char>(random() & 0xFF));
        } else {
            // A valid request with a few bytes changed reaches deeper.
            text = valid;
            for (int k = 0; k < 4; ++k)
                text[random() % text.size()] = static_cast<char>(random() & 0xFF);
        }
        HvSipResponderCore::Result result = handle(text);
        if (i % 2 == 0) {
            EXPECT_NE(Outcome::AckAbsorbed, result.outcome) << i;
            EXPECT_TRUE(result.outcome != Outcome::Replied || result.status == 400 || result.status == 501) << i;
        }
        EXPECT_EQ(result.outcome == Outcome::Replied, !result.reply.isNull()) << i;
    }
}

TEST(HvSipResponderCore, EveryPrefixOfAValidRequestIsDroppedOrRefused)
{
    std::string text = request("OPTIONS");
    for (std::size_t cut = 0; cut < text.size(); ++cut) {
        HvSipResponderCore::Result result = handle(text.substr(0, cut));
        if (result.outcome == Outcome::Replied)
            EXPECT_EQ(400u, result.status) << cut;
        else
            EXPECT_EQ(Outcome::MalformedDropped, result.outcome) << cut;
    }
    EXPECT_EQ(200u, handle(text).status);
}

TEST(HvSipResponderCore, HandlingKeepsNoReferenceAndLeavesNoStringBehind)
{
    hvtest::LeakCheck strings("HvStringBuffer");
    for (const std::string& text : {request("OPTIONS"), request("INVITE"), request("FOO"), request("ACK"),
                                    request("OPTIONS", "", "Call-ID"), std::string("SIP/2.0 200 OK\r\n\r\n"),
                                    request("OPTIONS").substr(0, 40), std::string("\xff\x00garbage", 9)}) {
        HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
        HvSipResponderCore::Result result =
            HvSipResponderCore::sHandle(bytes.get(), 0, bytes->getSize(), sipSourceAt("10.0.0.1", 5070));
        // Only the caller holds the request, and only the result the reply.
        EXPECT_EQ(1, bytes->getRefCount()) << text;
        if (!result.reply.isNull()) {
            EXPECT_EQ(1, result.reply->getRefCount()) << text;
        }
    }
}

TEST(HvSipResponderCore, ManyThreadsAtOnceGetTheSameReplies)
{
    const std::string text = request("OPTIONS");
    const std::string expected = replyText(handle(text, sipSourceAt("10.0.0.1", 5070)));
    ASSERT_FALSE(expected.empty());
    HvHandle<HvByteArray> shared = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t]() {
            for (int i = 0; i < 500; ++i) {
                // Half the calls read one shared array, half their own copy.
                HvHandle<HvByteArray> own = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
                const HvByteArray* bytes = (i + t) % 2 ? shared.get() : own.get();
                HvSipResponderCore::Result result =
                    HvSipResponderCore::sHandle(bytes, 0, bytes->getSize(), sipSourceAt("10.0.0.1", 5070));
                if (replyText(result) != expected)
                    mismatches.fetch_add(1);
                if (replyText(handle(request("INVITE"))).compare(0, 12, "SIP/2.0 405 ") != 0)
                    mismatches.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(0, mismatches.load());
}

TEST(HvSipResponderCore, RoughCostPerOptionsRequest)
{
    // Not a benchmark: a ceiling that only a gross slowdown (a per-byte
    // allocation, a quadratic scan) would break, and the figure for the log.
    const std::string text = request("OPTIONS");
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
    HvSipSource source = sipSourceAt("127.0.0.1", 5070);
    const int rounds = kCostRounds;
    auto start = std::chrono::steady_clock::now();
    unsigned int replied = 0;
    for (int i = 0; i < rounds; ++i)
        replied += HvSipResponderCore::sHandle(bytes.get(), 0, bytes->getSize(), source).status == 200 ? 1 : 0;
    double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() / rounds;
    std::printf("sHandle(OPTIONS, %zu bytes): %.2f us per request\n", text.size(), us);
    EXPECT_EQ(static_cast<unsigned int>(rounds), replied);
    EXPECT_LT(us, kCostCeilingUs);
}
