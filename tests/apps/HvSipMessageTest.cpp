#include "HvSipMessage.h"

#include <HvUtil/HvByteArray.h>

#include "support/HvTestSip.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>

namespace {

using Error = HvSipMessage::Error;

HvHandle<HvByteArray> bytesOf(const std::string& text)
{
    return HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
}

Error parse(HvSipMessage& message, const std::string& text)
{
    HvHandle<HvByteArray> bytes = bytesOf(text);
    return message.parse(bytes.get(), 0, static_cast<unsigned int>(text.size()));
}

std::string str(const HvString& text)
{
    return std::string(text.c_str(), text.length());
}

const char kOptions[] = "OPTIONS sip:responder@127.0.0.1 SIP/2.0\r\n"
                        "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport\r\n"
                        "Max-Forwards: 70\r\n"
                        "To: <sip:responder@127.0.0.1>\r\n"
                        "From: \"Load, Generator\" <sip:load@127.0.0.1>;tag=abc\r\n"
                        "Call-ID: call-1@127.0.0.1\r\n"
                        "CSeq: 17 OPTIONS\r\n"
                        "Content-Length: 4\r\n"
                        "\r\n"
                        "body";

using hvtest::kCostCeilingUs;
using hvtest::kCostRounds;

} // namespace

TEST(HvSipMessage, ReadsTheRequestLineAndEveryHeaderItKnows)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, kOptions));
    EXPECT_TRUE(message.isRequest());
    EXPECT_EQ(HvSipMessage::Kind::Request, message.getKind());
    EXPECT_EQ("OPTIONS", str(message.getMethod()));
    EXPECT_EQ("sip:responder@127.0.0.1", str(message.getRequestUri()));
    EXPECT_EQ("SIP/2.0", str(message.getVersion()));
    EXPECT_EQ(0u, message.getStatusCode());
    ASSERT_EQ(1u, message.getVias().size());
    EXPECT_EQ("SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-1;rport", str(message.getVias()[0]));
    EXPECT_EQ("<sip:responder@127.0.0.1>", str(message.getTo()));
    EXPECT_EQ("\"Load, Generator\" <sip:load@127.0.0.1>;tag=abc", str(message.getFrom()));
    EXPECT_EQ("call-1@127.0.0.1", str(message.getCallId()));
    EXPECT_EQ("17 OPTIONS", str(message.getCSeq()));
    EXPECT_TRUE(message.hasFrom() && message.hasTo() && message.hasCallId() && message.hasCSeq());
    EXPECT_EQ(17u, message.getCSeqNumber());
    EXPECT_EQ("OPTIONS", str(message.getCSeqMethod()));
    EXPECT_TRUE(message.hasMaxForwards());
    EXPECT_EQ(70, message.getMaxForwards());
    EXPECT_EQ(4, message.getContentLength());
    EXPECT_EQ(std::string(kOptions).size() - 4, message.getBodyOffset());
    EXPECT_FALSE(message.hasBadContentLength());
}

TEST(HvSipMessage, ReadsAStatusLine)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "SIP/2.0 486 Busy Here\r\nVia: SIP/2.0/UDP h;branch=z9hG4bK1\r\n\r\n"));
    EXPECT_FALSE(message.isRequest());
    EXPECT_EQ(HvSipMessage::Kind::Response, message.getKind());
    EXPECT_EQ(486u, message.getStatusCode());
    EXPECT_EQ("Busy Here", str(message.getReason()));
    EXPECT_EQ("SIP/2.0", str(message.getVersion()));
    EXPECT_EQ("", str(message.getMethod()));
    EXPECT_EQ(1u, message.getVias().size());
}

TEST(HvSipMessage, AbsentHeadersReadAsAbsent)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\n\r\n"));
    EXPECT_FALSE(message.hasFrom() || message.hasTo() || message.hasCallId() || message.hasCSeq());
    EXPECT_FALSE(message.hasMaxForwards());
    EXPECT_EQ(-1, message.getMaxForwards());
    EXPECT_EQ(-1, message.getContentLength());
    EXPECT_TRUE(message.getVias().empty());
    EXPECT_EQ(0u, message.getCSeqNumber());
    EXPECT_EQ("", str(message.getCSeqMethod()));
}

TEST(HvSipMessage, HeaderNamesMatchInAnyCaseAndCompactForm)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\n"
                                          "v: SIP/2.0/UDP h1;branch=z9hG4bK1\r\n"
                                          "VIA: SIP/2.0/TCP h2;branch=z9hG4bK2\r\n"
                                          "f: <sip:f@x>;tag=1\r\n"
                                          "t: <sip:t@x>\r\n"
                                          "i: compact-id\r\n"
                                          "cseq: 3 OPTIONS\r\n"
                                          "max-FORWARDS: 5\r\n"
                                          "l: 0\r\n"
                                          "\r\n"));
    ASSERT_EQ(2u, message.getVias().size());
    EXPECT_EQ("SIP/2.0/UDP h1;branch=z9hG4bK1", str(message.getVias()[0]));
    EXPECT_EQ("SIP/2.0/TCP h2;branch=z9hG4bK2", str(message.getVias()[1]));
    EXPECT_EQ("<sip:f@x>;tag=1", str(message.getFrom()));
    EXPECT_EQ("<sip:t@x>", str(message.getTo()));
    EXPECT_EQ("compact-id", str(message.getCallId()));
    EXPECT_EQ(3u, message.getCSeqNumber());
    EXPECT_EQ(5, message.getMaxForwards());
    EXPECT_EQ(0, message.getContentLength());

    HvSipMessage mixed;
    ASSERT_EQ(Error::None, parse(mixed, "OPTIONS sip:a SIP/2.0\r\nfRoM: a\r\nTO: b\r\nCALL-id: c\r\nI: d\r\n\r\n"));
    EXPECT_EQ("a", str(mixed.getFrom()));
    EXPECT_EQ("b", str(mixed.getTo()));
    // The first of two Call-IDs counts.
    EXPECT_EQ("c", str(mixed.getCallId()));
}

TEST(HvSipMessage, BlanksBeforeTheColonAndAroundTheValueAreDropped)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\nCall-ID  \t:   spaced-id \t\r\n\r\n"));
    EXPECT_EQ("spaced-id", str(message.getCallId()));
}

TEST(HvSipMessage, FoldedLinesContinueTheValue)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\n"
                                          "Via: SIP/2.0/UDP h1;branch=z9hG4bK1,\r\n"
                                          "  SIP/2.0/UDP h2;branch=z9hG4bK2\r\n"
                                          "Subject: I know you're there,\r\n"
                                          "\tpick up the phone\r\n"
                                          "From: <sip:f@x>\r\n"
                                          "\t ;tag=folded\r\n"
                                          "Call-ID: id\r\n"
                                          "\r\n"));
    ASSERT_EQ(2u, message.getVias().size());
    EXPECT_EQ("SIP/2.0/UDP h1;branch=z9hG4bK1", str(message.getVias()[0]));
    EXPECT_EQ("SIP/2.0/UDP h2;branch=z9hG4bK2", str(message.getVias()[1]));
    EXPECT_EQ("<sip:f@x> ;tag=folded", str(message.getFrom()));
    EXPECT_EQ("folded", str(HvSipMessage::sGetParameter(message.getFrom(), "tag")));
    EXPECT_EQ("id", str(message.getCallId()));
}

TEST(HvSipMessage, BareLineFeedsEndLinesToo)
{
    std::string text = kOptions;
    std::string lf;
    for (char c : text)
        if (c != '\r')
            lf.push_back(c);
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, lf));
    EXPECT_EQ("OPTIONS", str(message.getMethod()));
    EXPECT_EQ("call-1@127.0.0.1", str(message.getCallId()));
    EXPECT_EQ(70, message.getMaxForwards());
    EXPECT_EQ(lf.size() - 4, message.getBodyOffset());
}

TEST(HvSipMessage, LeadingEmptyLinesAreSkipped)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "\r\n\r\nOPTIONS sip:a SIP/2.0\r\nCall-ID: x\r\n\r\n"));
    EXPECT_EQ("OPTIONS", str(message.getMethod()));
    EXPECT_EQ("x", str(message.getCallId()));
}

TEST(HvSipMessage, CommaSeparatedViasGiveOneEntryEachInOrder)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\n"
                                          "Via: SIP/2.0/UDP a;branch=z9hG4bK1 , SIP/2.0/UDP b;branch=z9hG4bK2\r\n"
                                          "Via: SIP/2.0/UDP c;branch=z9hG4bK3,SIP/2.0/UDP d;branch=z9hG4bK4\r\n"
                                          "\r\n"));
    ASSERT_EQ(4u, message.getVias().size());
    EXPECT_EQ("SIP/2.0/UDP a;branch=z9hG4bK1", str(message.getVias()[0]));
    EXPECT_EQ("SIP/2.0/UDP b;branch=z9hG4bK2", str(message.getVias()[1]));
    EXPECT_EQ("SIP/2.0/UDP c;branch=z9hG4bK3", str(message.getVias()[2]));
    EXPECT_EQ("SIP/2.0/UDP d;branch=z9hG4bK4", str(message.getVias()[3]));
}

TEST(HvSipMessage, CommasInsideQuotesOrAngleBracketsDoNotSplitVias)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\n"
                                          "Via: SIP/2.0/UDP a;x=\"1,2\\\",3\";branch=z9hG4bK1, SIP/2.0/UDP "
                                          "b;y=<sip:p,q>\r\n\r\n"));
    ASSERT_EQ(2u, message.getVias().size());
    EXPECT_EQ("SIP/2.0/UDP a;x=\"1,2\\\",3\";branch=z9hG4bK1", str(message.getVias()[0]));
    EXPECT_EQ("SIP/2.0/UDP b;y=<sip:p,q>", str(message.getVias()[1]));
}

TEST(HvSipMessage, AnUnterminatedQuoteRunsToTheEndOfTheValue)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\n"
                                          "Via: SIP/2.0/UDP a;x=\"open, SIP/2.0/UDP b\\\r\n\r\n"));
    ASSERT_EQ(1u, message.getVias().size());
    EXPECT_EQ("SIP/2.0/UDP a;x=\"open, SIP/2.0/UDP b\\", str(message.getVias()[0]));
    EXPECT_EQ("\"open, SIP/2.0/UDP b\\", str(HvSipMessage::sGetParameter(message.getVias()[0], "x")));
    EXPECT_EQ("\"ab", str(HvSipMessage::sGetParameter(HvString("<sip:a>;tag=\"ab"), "tag")));
    EXPECT_FALSE(HvSipMessage::sHasParameter(HvString("<sip:a;tag=1"), "tag"));
}

TEST(HvSipMessage, ParsesAgainIntoTheSameObject)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, kOptions));
    ASSERT_EQ(Error::None, parse(message, "BYE sip:b SIP/2.0\r\n\r\n"));
    EXPECT_EQ("BYE", str(message.getMethod()));
    EXPECT_TRUE(message.getVias().empty());
    EXPECT_FALSE(message.hasFrom());
    EXPECT_EQ(-1, message.getMaxForwards());
    EXPECT_EQ(-1, message.getContentLength());
}

TEST(HvSipMessage, ReadsOnlyTheWindowItIsGiven)
{
    std::string text = std::string("XXXX") + kOptions;
    HvHandle<HvByteArray> bytes = bytesOf(text + "YYYY");
    HvSipMessage message;
    ASSERT_EQ(Error::None, message.parse(bytes.get(), 4, static_cast<unsigned int>(text.size() - 4)));
    EXPECT_EQ("OPTIONS", str(message.getMethod()));
    EXPECT_EQ(text.size() - 8, message.getBodyOffset());
}

TEST(HvSipMessage, EmptyInputIsEmpty)
{
    HvSipMessage message;
    EXPECT_EQ(Error::Empty, parse(message, ""));
    EXPECT_EQ(Error::Empty, parse(message, " \r\n\t\r\n"));
    EXPECT_EQ(Error::Empty, message.parse(nullptr, 0, 100));
    HvHandle<HvByteArray> bytes = bytesOf("OPTIONS sip:a SIP/2.0\r\n\r\n");
    EXPECT_EQ(Error::Empty, message.parse(bytes.get(), 0, 0));
    EXPECT_EQ(Error::Empty, message.parse(bytes.get(), 1000, 10));
}

TEST(HvSipMessage, BadStartLinesAreRefused)
{
    for (const char* text : {"hello\r\n\r\n", "OPTIONS sip:a\r\n\r\n", "OPTIONS sip:a SIP/3.0\r\n\r\n",
                             "OPTIONS  sip:a SIP/2.0\r\n\r\n", "OPT IONS sip:a SIP/2.0 x\r\n\r\n",
                             "OP<T sip:a SIP/2.0\r\n\r\n", "SIP/2.0 2000 OK\r\n\r\n", "SIP/2.0 099 Low\r\n\r\n",
                             "SIP/2.0 abc OK\r\n\r\n", "SIP/2.1 200 OK\r\n\r\n"}) {
        HvSipMessage message;
        EXPECT_EQ(Error::BadStartLine, parse(message, text)) << text;
    }
}

TEST(HvSipMessage, HeaderLinesWithoutNameOrColonAreBad)
{
    for (const char* line : {"no colon", ": no name", "Bad Name: x", "N\x01me: x"}) {
        HvSipMessage message;
        EXPECT_EQ(Error::BadHeader, parse(message, std::string("OPTIONS sip:a SIP/2.0\r\n") + line + "\r\n\r\n"))
            << line;
        EXPECT_EQ("OPTIONS", str(message.getMethod())) << line;
    }
}

TEST(HvSipMessage, NonNumericContentLengthIsBadHeader)
{
    for (const char* value : {"ten", "-1", "+3", "12a", ""}) {
        HvSipMessage message;
        EXPECT_EQ(Error::BadHeader,
                  parse(message, std::string("OPTIONS sip:a SIP/2.0\r\nContent-Length: ") + value + "\r\n\r\n"))
            << value;
        EXPECT_TRUE(message.hasBadContentLength()) << value;
    }
}

TEST(HvSipMessage, NonNumericMaxForwardsIsBadHeader)
{
    HvSipMessage message;
    EXPECT_EQ(Error::BadHeader, parse(message, "OPTIONS sip:a SIP/2.0\r\nMax-Forwards: many\r\n\r\n"));
    EXPECT_FALSE(message.hasBadContentLength());
}

TEST(HvSipMessage, BodyShorterThanContentLengthIsTruncated)
{
    HvSipMessage message;
    EXPECT_EQ(Error::Truncated, parse(message, "OPTIONS sip:a SIP/2.0\r\nl: 5\r\n\r\nabcd"));
    EXPECT_TRUE(message.hasBadContentLength());
    EXPECT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\nl: 5\r\n\r\nabcde"));
    // A huge length neither wraps into a small one nor overflows.
    EXPECT_EQ(Error::Truncated,
              parse(message, "OPTIONS sip:a SIP/2.0\r\nContent-Length: 99999999999999999999999999\r\n\r\nabc"));
    EXPECT_EQ(Error::Truncated, parse(message, "OPTIONS sip:a SIP/2.0\r\nContent-Length: 4294967297\r\n\r\nabc"));
}

TEST(HvSipMessage, HeadersWithoutTheEmptyLineAreTruncated)
{
    HvSipMessage message;
    EXPECT_EQ(Error::Truncated, parse(message, "OPTIONS sip:a SIP/2.0\r\nCall-ID: x\r\n"));
    EXPECT_EQ("x", str(message.getCallId()));
    EXPECT_EQ(Error::Truncated, parse(message, "OPTIONS sip:a SIP/2.0\r\nCall-ID: x"));
    EXPECT_EQ(Error::Truncated, parse(message, "OPTIONS sip:a SIP/2.0"));
}

TEST(HvSipMessage, CSeqThatIsNotNumberAndMethodLeavesZeroAndEmpty)
{
    for (const char* value : {"OPTIONS", "1", "1OPTIONS", "x OPTIONS", "1 OPTIONS extra", "99999999999 OPTIONS"}) {
        HvSipMessage message;
        ASSERT_EQ(Error::None, parse(message, std::string("OPTIONS sip:a SIP/2.0\r\nCSeq: ") + value + "\r\n\r\n"))
            << value;
        EXPECT_TRUE(message.hasCSeq()) << value;
        EXPECT_EQ(value, str(message.getCSeq()));
        EXPECT_EQ(0u, message.getCSeqNumber()) << value;
        EXPECT_EQ("", str(message.getCSeqMethod())) << value;
    }
}

TEST(HvSipMessage, EmptyValuesArePresentButEmpty)
{
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\nFrom:\r\nTo:  \r\n\r\n"));
    EXPECT_TRUE(message.hasFrom());
    EXPECT_TRUE(message.hasTo());
    EXPECT_EQ("", str(message.getFrom()));
    EXPECT_FALSE(message.hasCallId());
}

TEST(HvSipMessage, ParametersAreFoundInAnyCaseOutsideQuotesAndBrackets)
{
    HvString to("\"a;tag=no\" <sip:b@c;tag=no;lr>;TAG=yes ; expires = 30;lr;q=\"x;y\"");
    EXPECT_EQ("yes", str(HvSipMessage::sGetParameter(to, "tag")));
    EXPECT_EQ("30", str(HvSipMessage::sGetParameter(to, "expires")));
    EXPECT_TRUE(HvSipMessage::sHasParameter(to, "lr"));
    EXPECT_EQ("", str(HvSipMessage::sGetParameter(to, "lr")));
    EXPECT_EQ("\"x;y\"", str(HvSipMessage::sGetParameter(to, "q")));
    EXPECT_FALSE(HvSipMessage::sHasParameter(to, "ta"));
    EXPECT_FALSE(HvSipMessage::sHasParameter(to, "missing"));
    EXPECT_FALSE(HvSipMessage::sHasParameter(HvString(), "tag"));
    EXPECT_FALSE(HvSipMessage::sHasParameter(HvString("sip:a;tag=1, sip:b"), "x"));
}

TEST(HvSipMessage, ViaPartsAreReadFromTheSentProtocolAndSentBy)
{
    HvString via("SIP/2.0/udp 192.0.2.4:5070;branch=z9hG4bK1;rport");
    EXPECT_EQ("192.0.2.4", str(HvSipMessage::sGetViaHost(via)));
    EXPECT_EQ(5070u, HvSipMessage::sGetViaPort(via));
    EXPECT_EQ("UDP", str(HvSipMessage::sGetViaTransport(via)));
    EXPECT_TRUE(HvSipMessage::sIsViaReadable(via));

    HvString spaced("SIP / 2.0 / TCP  host.example.com ;branch=z9hG4bK2");
    EXPECT_EQ("host.example.com", str(HvSipMessage::sGetViaHost(spaced)));
    EXPECT_EQ(0u, HvSipMessage::sGetViaPort(spaced));
    EXPECT_EQ("TCP", str(HvSipMessage::sGetViaTransport(spaced)));
    EXPECT_TRUE(HvSipMessage::sIsViaReadable(spaced));

    HvString v6("SIP/2.0/UDP [2001:db8::1]:5062;branch=z9hG4bK3");
    EXPECT_EQ("[2001:db8::1]", str(HvSipMessage::sGetViaHost(v6)));
    EXPECT_EQ(5062u, HvSipMessage::sGetViaPort(v6));
}

TEST(HvSipMessage, UnreadableViasGiveNothing)
{
    for (const char* text : {"", "garbage", "SIP/2.0/UDP", "SIP/2.0 UDP host", "SIP/2.0/UDP host junk",
                             "SIP/2.0/UDP [::1", "XYZ/2.0/UDP host"}) {
        HvString via(text);
        EXPECT_FALSE(HvSipMessage::sIsViaReadable(via)) << text;
        EXPECT_EQ("", str(HvSipMessage::sGetViaHost(via))) << text;
        EXPECT_EQ("", str(HvSipMessage::sGetViaTransport(via))) << text;
        EXPECT_EQ(0u, HvSipMessage::sGetViaPort(via)) << text;
    }
    for (const char* text : {"SIP/2.0/UDP host:0", "SIP/2.0/UDP host:65536", "SIP/2.0/UDP host:99999999999999999999",
                             "SIP/2.0/UDP host:", "SIP/2.0/UDP host:5x"}) {
        HvString via(text);
        EXPECT_FALSE(HvSipMessage::sIsViaReadable(via)) << text;
        EXPECT_EQ(0u, HvSipMessage::sGetViaPort(via)) << text;
    }
}

TEST(HvSipMessage, NulBytesInLinesAreRefused)
{
    HvSipMessage message;
    EXPECT_EQ(Error::BadStartLine, parse(message, std::string("OPTIONS sip:a\0b SIP/2.0\r\n\r\n", 27)));
    EXPECT_EQ(Error::BadHeader, parse(message, std::string("OPTIONS sip:a SIP/2.0\r\nCall-ID: a\0b\r\n\r\n", 39)));
    EXPECT_EQ(Error::BadHeader, parse(message, std::string("OPTIONS sip:a SIP/2.0\r\nCall\0ID: ab\r\n\r\n", 38)));
}

TEST(HvSipMessage, FFBytesNeitherHangNorCrash)
{
    HvSipMessage message;
    std::string ff(64, '\xFF');
    EXPECT_EQ(Error::BadStartLine, parse(message, ff));
    EXPECT_EQ(Error::BadHeader, parse(message, "OPTIONS sip:a SIP/2.0\r\n" + ff + ": x\r\n\r\n"));
    // In a value a 0xFF byte is just a byte.
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\nCall-ID: a\xFF" "b\r\n\r\n"));
    EXPECT_EQ("a\xFF" "b", str(message.getCallId()));
    EXPECT_EQ(Error::Truncated, parse(message, "OPTIONS sip:a SIP/2.0\r\nCall-ID: " + ff));
}

TEST(HvSipMessage, AMegabyteHeaderLineIsReadWhole)
{
    std::string big(1024 * 1024, 'a');
    HvSipMessage message;
    ASSERT_EQ(Error::None, parse(message, "OPTIONS sip:a SIP/2.0\r\nCall-ID: " + big + "\r\nl: 0\r\n\r\n"));
    EXPECT_EQ(big.size(), message.getCallId().length());
    EXPECT_EQ(0, message.getContentLength());
    EXPECT_EQ(Error::BadHeader, parse(message, "OPTIONS sip:a SIP/2.0\r\n" + big + "\r\n\r\n"));
    EXPECT_EQ(Error::BadStartLine, parse(message, big + "\r\n\r\n"));
}

TEST(HvSipMessage, EveryPrefixOfAValidMessageGivesAnError)
{
    std::string text = kOptions;
    for (std::size_t cut = 0; cut < text.size(); ++cut) {
        HvSipMessage message;
        Error error = parse(message, text.substr(0, cut));
        EXPECT_NE(Error::None, error) << cut;
        if (cut > 0 && cut < 4) {
            EXPECT_EQ(Error::BadStartLine, error) << cut;
        }
    }
    HvSipMessage whole;
    EXPECT_EQ(Error::None, parse(whole, text));
}

TEST(HvSipMessage, RandomBytesNeverCrashOrHang)
{
    std::mt19937 random(424242);
    unsigned int errors = 0;
    const int rounds = 10000;
    for (int i = 0; i < rounds; ++i) {
        std::string text;
        if (i % 2 == 0) {
            std::size_t length = random() % 512;
            for (std::size_t j = 0; j < length; ++j)
                text.push_back(static_cast<char>(random() & 0xFF));
        } else {
            text = kOptions;
            for (int k = 0; k < 3; ++k)
                text[random() % text.size()] = static_cast<char>(random() & 0xFF);
        }
        HvSipMessage message;
        Error error = parse(message, text);
        if (error != Error::None)
            ++errors;
        // Whatever was read stays inside the message.
        EXPECT_LE(message.getBodyOffset(), text.size()) << i;
    }
    // Pure noise essentially never forms a message.
    EXPECT_GE(errors, static_cast<unsigned int>(rounds / 2));
}

TEST(HvSipMessage, RoughCostPerParse)
{
    HvHandle<HvByteArray> bytes = bytesOf(kOptions);
    HvSipMessage message;
    const int rounds = kCostRounds;
    unsigned int ok = 0;
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i)
        ok += message.parse(bytes.get(), 0, bytes->getSize()) == Error::None ? 1 : 0;
    double us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() / rounds;
    std::printf("HvSipMessage::parse(%u bytes): %.2f us per message\n", bytes->getSize(), us);
    EXPECT_EQ(static_cast<unsigned int>(rounds), ok);
    EXPECT_LT(us, kCostCeilingUs);
}
