// Requests as real SIP peers write them: the exact bytes that common user
// agents, test tools and a stateless proxy sent, and the legal but unusual
// forms of RFC 3261 (compact names, Via lists, folded lines, bodies on
// OPTIONS, bare LF line ends, blanks where the grammar allows them, CRLF
// keep-alives). Each is answered through the request step and through the
// real hv-sip-responder program over UDP and TCP.
#include <HvSipResponderCore.h>

#include <HvSipReply.h>

#include <HvUtil/HvByteArray.h>

#include "support/HvTestSip.h"
#include "support/HvTestProcess.h"
#include "support/HvTestResponder.h"
#include "support/HvTestSockets.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

using hvtest::sipSourceAt;
using hvtest::replyText;
using hvtest::readSipMessage;
using hvtest::handleSip;

using Outcome = HvSipResponderCore::Outcome;

// Generous, so that a sanitized build on a busy machine passes.
const int kReplyTimeoutMs = hvtest::kSipReplyTimeoutMs;

// ---- the requests as the peers sent them ----

// sofia-sip's sip-options over UDP: its Via names 192.0.2.2, not the address
// the datagram came from, and asks for no rport.
const char kSofiaUdp[] = "OPTIONS sip:test@127.0.0.1:59313 SIP/2.0\r\n"
                         "Via: SIP/2.0/UDP 192.0.2.2:48169;branch=z9hG4bK3X905myjyZB2K\r\n"
                         "Max-Forwards: 70\r\n"
                         "From: sip:192.0.2.2;tag=3N26Dvj95X1UH\r\n"
                         "To: sip:test@127.0.0.1\r\n"
                         "Call-ID: 51778402-62f4-1240-018e-aaeb5d8c8220\r\n"
                         "CSeq: 1001136502 OPTIONS\r\n"
                         "User-Agent: options\r\n"
                         "Content-Length: 0\r\n"
                         "\r\n";

// The same tool over TCP.
const char kSofiaTcp[] = "OPTIONS sip:test@127.0.0.1:40911;transport=tcp SIP/2.0\r\n"
                         "Via: SIP/2.0/TCP 192.0.2.2:50637;branch=z9hG4bKrBc8emmUBt6UN\r\n"
                         "Max-Forwards: 70\r\n"
                         "From: sip:192.0.2.2;tag=r0cHgyN5eXKBg\r\n"
                         "To: sip:test@127.0.0.1\r\n"
                         "Call-ID: 52125928-62f4-1240-ab98-aaeb5d8c8220\r\n"
                         "CSeq: 1001136502 OPTIONS\r\n"
                         "User-Agent: options\r\n"
                         "Content-Length: 0\r\n"
                         "\r\n";

// sipsak over UDP: rport and a flag parameter, Content-Length before
// Max-Forwards.
const char kSipsakUdp[] = "OPTIONS sip:test@127.0.0.1:4458 SIP/2.0\r\n"
                          "Via: SIP/2.0/UDP 127.0.0.1:34804;branch=z9hG4bK.3388a162;rport;alias\r\n"
                          "From: sip:sipsak@127.0.0.1:34804;tag=31d9f87a\r\n"
                          "To: sip:test@127.0.0.1:4458\r\n"
                          "Call-ID: 836368506@127.0.0.1\r\n"
                          "CSeq: 1 OPTIONS\r\n"
                          "Contact: sip:sipsak@127.0.0.1:34804\r\n"
                          "Content-Length: 0\r\n"
                          "Max-Forwards: 70\r\n"
                          "User-Agent: sipsak 0.9.8.1\r\n"
                          "Accept: text/plain\r\n"
                          "\r\n";

// Perl Net::SIP over UDP: header names in their own letter case.
const char kNetSipUdp[] =
    "OPTIONS sip:ping@127.0.0.1:41151 SIP/2.0\r\n"
    "Via: SIP/2.0/UDP 127.0.0.1:38246;branch=z9hG4bKd33594ec237b4956fe147d38dbc6e5d46117acc3216db7324c971f29fb1d2e\r\n"
    "Call-id: netsip-30106@127.0.0.1\r\n"
    "Cseq: 1 OPTIONS\r\n"
    "From: sip:netsip@127.0.0.1;tag=1ec31716fc41b312e1203878582213fa\r\n"
    "Max-forwards: 70\r\n"
    "To: sip:ping@127.0.0.1:41151\r\n"
    "Content-length: 0\r\n"
    "\r\n";

// A client's request as a stateless proxy forwards it: the proxy's Via on
// top, the client's (already stamped by the proxy) below, Max-Forwards one
// lower.
const char kProxiedUdp[] = "OPTIONS sip:test@127.0.0.1:5060 SIP/2.0\r\n"
                           "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK1a2b.0\r\n"
                           "Via: SIP/2.0/UDP 127.0.0.1:40000;rport=40000;received=127.0.0.1;branch=z9hG4bK-client\r\n"
                           "Max-Forwards: 69\r\n"
                           "From: <sip:client@127.0.0.1>;tag=client-1\r\n"
                           "To: <sip:test@127.0.0.1>\r\n"
                           "Call-ID: proxied-1@127.0.0.1\r\n"
                           "CSeq: 1 OPTIONS\r\n"
                           "Content-Length: 0\r\n"
                           "\r\n";

// A short SDP offer, as a body that OPTIONS may carry.
const char kSdp[] = "v=0\r\n"
                    "o=peer 2890844526 2890844526 IN IP4 127.0.0.1\r\n"
                    "s=-\r\n"
                    "c=IN IP4 127.0.0.1\r\n"
                    "t=0 0\r\n"
                    "m=audio 49170 RTP/AVP 0\r\n"
                    "a=rtpmap:0 PCMU/8000\r\n";

// ---- helpers ----

std::string addressOf(const HvSipResponderCore::Result& result)
{
    return HvSipReply::sDottedQuad(result.replyAddress.getAddress());
}

// Every occurrence of `from` in `text` replaced by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// The request with the CRLF line ends of its start line and headers turned
// into bare LFs; the body stays as it is, so that Content-Length holds.
std::string lfOnly(const std::string& text)
{
    std::size_t bodyAt = text.find("\r\n\r\n");
    bodyAt = bodyAt == std::string::npos ? text.size() : bodyAt + 4;
    return replaced(text.substr(0, bodyAt), "\r\n", "\n") + text.substr(bodyAt);
}

// The request with bare-LF header lines closed by a CRLF blank line.
std::string lfLinesCrLfBlank(const std::string& text)
{
    std::string lf = lfOnly(text);
    std::size_t blank = lf.find("\n\n");
    return lf.replace(blank + 1, 1, "\r\n");
}

// The header lines of a reply (start line excluded), without their CRLF.
std::vector<std::string> headerLines(const std::string& reply)
{
    std::vector<std::string> lines;
    std::size_t at = reply.find("\r\n");
    while (at != std::string::npos) {
        std::size_t next = reply.find("\r\n", at + 2);
        if (next == std::string::npos || next == at + 2)
            break;
        lines.push_back(reply.substr(at + 2, next - at - 2));
        at = next;
    }
    return lines;
}

// The values of the reply's header lines called `name`, in order.
std::vector<std::string> valuesOf(const std::string& reply, const std::string& name)
{
    std::vector<std::string> values;
    const std::string prefix = name + ": ";
    for (const std::string& line : headerLines(reply)) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            values.push_back(line.substr(prefix.size()));
    }
    return values;
}

std::string statusLineOf(const std::string& reply)
{
    return reply.substr(0, reply.find("\r\n"));
}

// What a 200 to OPTIONS must echo.
struct Echo {
    std::vector<std::string> vias;
    std::string from;
    std::string to;     // as in the request, without the tag the reply adds
    std::string callId;
    std::string cseq;
};

// Checks a 200 to OPTIONS line by line: the Vias in order, From, Call-ID and
// CSeq as sent, the To with a tag added, Allow, and no body.
void expectOptions200(const std::string& reply, const Echo& echo)
{
    ASSERT_EQ("SIP/2.0 200 OK", statusLineOf(reply)) << reply;
    EXPECT_EQ(echo.vias, valuesOf(reply, "Via")) << reply;
    EXPECT_EQ(std::vector<std::string>{echo.from}, valuesOf(reply, "From")) << reply;
    EXPECT_EQ(std::vector<std::string>{echo.callId}, valuesOf(reply, "Call-ID")) << reply;
    EXPECT_EQ(std::vector<std::string>{echo.cseq}, valuesOf(reply, "CSeq")) << reply;
    std::vector<std::string> to = valuesOf(reply, "To");
    ASSERT_EQ(1u, to.size()) << reply;
    EXPECT_EQ(echo.to + ";tag=", to[0].substr(0, echo.to.size() + 5)) << reply;
    EXPECT_TRUE(std::regex_match(to[0].substr(std::min(to[0].size(), echo.to.size() + 5)),
                                 std::regex("[0-9a-f]{16}")))
        << reply;
    EXPECT_EQ(std::vector<std::string>{"OPTIONS"}, valuesOf(reply, "Allow")) << reply;
    EXPECT_EQ(std::vector<std::string>{"0"}, valuesOf(reply, "Content-Length")) << reply;
    EXPECT_EQ(reply.size(), reply.find("\r\n\r\n") + 4) << "a reply to OPTIONS has no body: " << reply;
}

// The reply the request step gives for `request` from 127.0.0.1:port.
std::string expectedReply(const std::string& request, unsigned int port, bool udp)
{
    return replyText(handleSip(request, sipSourceAt("127.0.0.1", port, udp)));
}

using Responder = hvtest::ResponderProcess;
using hvtest::countsOf;

// ---- the unusual forms, each a whole request ----

// Compact names (RFC 3261 section 7.3.3) for Via, From, To, Call-ID and
// Content-Length next to full ones, compact names this responder does not
// read (Supported, Contact, Subject, Content-Type), and a body measured by
// the compact "l".
std::string compactRequest(unsigned int viaPort, const std::string& callId)
{
    return "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
           "v: SIP/2.0/UDP 127.0.0.1:" +
           std::to_string(viaPort) +
           ";branch=z9hG4bKcompact;rport\r\n"
           "Max-Forwards: 70\r\n"
           "f: <sip:peer@127.0.0.1>;tag=cf1\r\n"
           "t: <sip:test@127.0.0.1>\r\n"
           "i: " +
           callId +
           "\r\n"
           "CSeq: 3 OPTIONS\r\n"
           "k: path\r\n"
           "m: <sip:peer@127.0.0.1>\r\n"
           "s: compact forms\r\n"
           "c: text/plain\r\n"
           "l: 5\r\n"
           "\r\n"
           "hello";
}

// Folded lines (RFC 3261 section 7.3.1) in Via, To, From, Call-ID, CSeq and
// Content-Length, continued with a blank or a tab.
std::string foldedRequest(unsigned int viaPort, const std::string& callId)
{
    return "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
           "Via: SIP/2.0/UDP\r\n 127.0.0.1:" +
           std::to_string(viaPort) +
           "\r\n ;branch=z9hG4bKfolded\r\n\t;rport\r\n"
           "Max-Forwards: 70\r\n"
           "To:\r\n <sip:test@127.0.0.1>\r\n"
           "From: <sip:peer@127.0.0.1>\r\n\t;tag=fold1\r\n"
           "Call-ID:\r\n  " +
           callId +
           "\r\n"
           "CSeq: 7\r\n\tOPTIONS\r\n"
           "Content-Length:\r\n 5\r\n"
           "\r\n"
           "hello";
}

// An OPTIONS that carries an SDP body (RFC 3261 section 11.1 lets it).
std::string bodyRequest(unsigned int viaPort, const std::string& callId)
{
    const std::string sdp = kSdp;
    return "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
           "Via: SIP/2.0/UDP 127.0.0.1:" +
           std::to_string(viaPort) +
           ";branch=z9hG4bKbody;rport\r\n"
           "Max-Forwards: 70\r\n"
           "From: <sip:peer@127.0.0.1>;tag=body1\r\n"
           "To: <sip:test@127.0.0.1>\r\n"
           "Call-ID: " +
           callId +
           "\r\n"
           "CSeq: 11 OPTIONS\r\n"
           "Content-Type: application/sdp\r\n"
           "Content-Length: " +
           std::to_string(sdp.size()) + "\r\n\r\n" + sdp;
}

// A plain OPTIONS in CRLF form, to follow the unusual ones; its branch is
// the Call-ID with '@' (no token character) turned into '-'.
std::string plainRequest(unsigned int viaPort, const std::string& callId)
{
    std::string branch = replaced(callId, "@", "-");
    return "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
           "Via: SIP/2.0/UDP 127.0.0.1:" +
           std::to_string(viaPort) +
           ";branch=z9hG4bK-" + branch +
           ";rport\r\n"
           "Max-Forwards: 70\r\n"
           "From: <sip:peer@127.0.0.1>;tag=plain1\r\n"
           "To: <sip:test@127.0.0.1>\r\n"
           "Call-ID: " +
           callId +
           "\r\n"
           "CSeq: 1 OPTIONS\r\n"
           "Content-Length: 0\r\n"
           "\r\n";
}

// CRLF on most lines, bare LF on some, ending with CRLF and a bare-LF blank
// line.
std::string mixedLineEndRequest(unsigned int viaPort, const std::string& callId)
{
    return "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
           "Via: SIP/2.0/UDP 127.0.0.1:" +
           std::to_string(viaPort) +
           ";branch=z9hG4bKmixed;rport\n"
           "Max-Forwards: 70\r\n"
           "From: <sip:peer@127.0.0.1>;tag=mixed1\n"
           "To: <sip:test@127.0.0.1>\r\n"
           "Call-ID: " +
           callId +
           "\n"
           "CSeq: 1 OPTIONS\r\n"
           "Content-Length: 0\r\n"
           "\n";
}

// The Call-ID of a reply, "" when it has none.
std::string callIdOf(const std::string& reply)
{
    std::vector<std::string> values = valuesOf(reply, "Call-ID");
    return values.empty() ? std::string() : values[0];
}

} // namespace

// ---- the peers' requests through the request step ----

TEST(HvSipPeerRequest, SofiaUdpOptionsIsAnsweredAtTheSourceAddressAndTheSentByPort)
{
    // The source port differs from the sent-by port on purpose: without
    // rport the reply goes to the sent-by port (RFC 3261 section 18.2.2).
    HvSipResponderCore::Result result = handleSip(kSofiaUdp, sipSourceAt("127.0.0.1", 40001));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(200u, result.status);
    expectOptions200(replyText(result),
                     {{"SIP/2.0/UDP 192.0.2.2:48169;branch=z9hG4bK3X905myjyZB2K;received=127.0.0.1"},
                      "sip:192.0.2.2;tag=3N26Dvj95X1UH",
                      "sip:test@127.0.0.1",
                      "51778402-62f4-1240-018e-aaeb5d8c8220",
                      "1001136502 OPTIONS"});
    EXPECT_EQ("127.0.0.1", addressOf(result)) << "the received address, not the sent-by host 192.0.2.2";
    EXPECT_EQ(48169u, result.replyPort);
}

TEST(HvSipPeerRequest, SofiaTcpOptionsIsAnsweredWithReceivedAdded)
{
    HvSipResponderCore::Result result = handleSip(kSofiaTcp, sipSourceAt("127.0.0.1", 50637, false));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(200u, result.status);
    expectOptions200(replyText(result),
                     {{"SIP/2.0/TCP 192.0.2.2:50637;branch=z9hG4bKrBc8emmUBt6UN;received=127.0.0.1"},
                      "sip:192.0.2.2;tag=r0cHgyN5eXKBg",
                      "sip:test@127.0.0.1",
                      "52125928-62f4-1240-ab98-aaeb5d8c8220",
                      "1001136502 OPTIONS"});
    // A stream reply goes back on the connection; the step still names the
    // source address and the sent-by port.
    EXPECT_EQ("127.0.0.1", addressOf(result));
    EXPECT_EQ(50637u, result.replyPort);
}

TEST(HvSipPeerRequest, SipsakRportIsFilledWithTheSourcePortAndTheAliasFlagIsKept)
{
    HvSipResponderCore::Result result = handleSip(kSipsakUdp, sipSourceAt("127.0.0.1", 34804));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    // RFC 3581 section 4: rport gets the source port and received is added
    // even when the sent-by host is the source address.
    expectOptions200(replyText(result),
                     {{"SIP/2.0/UDP 127.0.0.1:34804;branch=z9hG4bK.3388a162;rport=34804;alias;received=127.0.0.1"},
                      "sip:sipsak@127.0.0.1:34804;tag=31d9f87a",
                      "sip:test@127.0.0.1:4458",
                      "836368506@127.0.0.1",
                      "1 OPTIONS"});
    EXPECT_EQ("127.0.0.1", addressOf(result));
    EXPECT_EQ(34804u, result.replyPort);
}

TEST(HvSipPeerRequest, SipsakBehindANatIsAnsweredAtTheSourcePortNotTheSentByPort)
{
    HvSipResponderCore::Result result = handleSip(kSipsakUdp, sipSourceAt("127.0.0.1", 61000));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ(std::vector<std::string>{"SIP/2.0/UDP 127.0.0.1:34804;branch=z9hG4bK.3388a162;rport=61000;alias;"
                                       "received=127.0.0.1"},
              valuesOf(replyText(result), "Via"));
    EXPECT_EQ(61000u, result.replyPort);
}

TEST(HvSipPeerRequest, NetSipHeaderNamesInTheirOwnCaseAreRead)
{
    HvSipResponderCore::Result result = handleSip(kNetSipUdp, sipSourceAt("127.0.0.1", 38246));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    // The sent-by host is the source address and there is no rport: the Via
    // goes back unchanged (RFC 3261 section 18.2.1).
    expectOptions200(
        replyText(result),
        {{"SIP/2.0/UDP 127.0.0.1:38246;branch=z9hG4bKd33594ec237b4956fe147d38dbc6e5d46117acc3216db7324c971f29fb1d2e"},
         "sip:netsip@127.0.0.1;tag=1ec31716fc41b312e1203878582213fa",
         "sip:ping@127.0.0.1:41151",
         "netsip-30106@127.0.0.1",
         "1 OPTIONS"});
    EXPECT_EQ("127.0.0.1", addressOf(result));
    EXPECT_EQ(38246u, result.replyPort);
}

TEST(HvSipPeerRequest, ProxiedRequestIsAnsweredToTheTopViaAndKeepsBothVias)
{
    HvSipResponderCore::Result result = handleSip(kProxiedUdp, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result),
                     {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK1a2b.0",
                       "SIP/2.0/UDP 127.0.0.1:40000;rport=40000;received=127.0.0.1;branch=z9hG4bK-client"},
                      "<sip:client@127.0.0.1>;tag=client-1",
                      "<sip:test@127.0.0.1>",
                      "proxied-1@127.0.0.1",
                      "1 OPTIONS"});
    EXPECT_EQ("127.0.0.1", addressOf(result));
    EXPECT_EQ(5070u, result.replyPort) << "the proxy's port, never the client's 40000";
}

TEST(HvSipPeerRequest, SentByWithoutAPortIsAnsweredAtPort5060)
{
    std::string request = replaced(kProxiedUdp, "127.0.0.1:5070;", "127.0.0.1;");
    HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("SIP/2.0/UDP 127.0.0.1;branch=z9hG4bK1a2b.0", valuesOf(replyText(result), "Via").at(0));
    EXPECT_EQ(5060u, result.replyPort);
}

// ---- the unusual forms through the request step ----

TEST(HvSipPeerRequest, CompactNamesAreReadLikeFullOnesAndUnreadCompactOnesAreIgnored)
{
    HvSipResponderCore::Result result = handleSip(compactRequest(5070, "compact-1@127.0.0.1"), sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result), {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKcompact;rport=5070;received=127.0.0.1"},
                                      "<sip:peer@127.0.0.1>;tag=cf1",
                                      "<sip:test@127.0.0.1>",
                                      "compact-1@127.0.0.1",
                                      "3 OPTIONS"});
    EXPECT_EQ(5070u, result.replyPort);
}

TEST(HvSipPeerRequest, CompactNamesInUpperCaseAreReadToo)
{
    std::string request = "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
                          "V: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKupper\r\n"
                          "Max-Forwards: 70\r\n"
                          "F: <sip:peer@127.0.0.1>;tag=up1\r\n"
                          "T: <sip:test@127.0.0.1>\r\n"
                          "I: upper-1@127.0.0.1\r\n"
                          "CSeq: 1 OPTIONS\r\n"
                          "L: 0\r\n"
                          "\r\n";
    HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result), {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKupper"},
                                      "<sip:peer@127.0.0.1>;tag=up1",
                                      "<sip:test@127.0.0.1>",
                                      "upper-1@127.0.0.1",
                                      "1 OPTIONS"});
}

TEST(HvSipPeerRequest, ViaListsOnOneLineAndOnSeveralLinesAreAllKeptInOrder)
{
    std::string request = "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
                          "Via: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKtop , SIP/2.0/UDP 10.0.0.1:5060;branch=z9hG4bK2\r\n"
                          "v: SIP/2.0/TCP 10.0.0.2;branch=z9hG4bK3,SIP/2.0/UDP 10.0.0.3:5080;received=192.0.2.9;branch=z9hG4bK4\r\n"
                          "Max-Forwards: 68\r\n"
                          "VIA: SIP/2.0/UDP 10.0.0.4:5090;branch=z9hG4bK5\t,\tSIP/2.0/UDP 10.0.0.5;branch=z9hG4bK6\r\n"
                          "From: <sip:peer@127.0.0.1>;tag=list1\r\n"
                          "To: <sip:test@127.0.0.1>\r\n"
                          "Call-ID: list-1@127.0.0.1\r\n"
                          "CSeq: 1 OPTIONS\r\n"
                          "Content-Length: 0\r\n"
                          "\r\n";
    HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result), {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKtop",
                                       "SIP/2.0/UDP 10.0.0.1:5060;branch=z9hG4bK2",
                                       "SIP/2.0/TCP 10.0.0.2;branch=z9hG4bK3",
                                       "SIP/2.0/UDP 10.0.0.3:5080;received=192.0.2.9;branch=z9hG4bK4",
                                       "SIP/2.0/UDP 10.0.0.4:5090;branch=z9hG4bK5",
                                       "SIP/2.0/UDP 10.0.0.5;branch=z9hG4bK6"},
                                      "<sip:peer@127.0.0.1>;tag=list1",
                                      "<sip:test@127.0.0.1>",
                                      "list-1@127.0.0.1",
                                      "1 OPTIONS"});
    EXPECT_EQ(5070u, result.replyPort) << "only the first Via of the first line decides";
}

TEST(HvSipPeerRequest, FoldedViaToFromCallIdAndCSeqAreUnfolded)
{
    HvSipResponderCore::Result result = handleSip(foldedRequest(5070, "fold-1@127.0.0.1"), sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    // Each line end with the blanks after it counts as one blank (RFC 3261
    // section 7.3.1); the blanks before ';' stay as the peer wrote them.
    expectOptions200(replyText(result),
                     {{"SIP/2.0/UDP 127.0.0.1:5070 ;branch=z9hG4bKfolded ;rport=5070;received=127.0.0.1"},
                      "<sip:peer@127.0.0.1> ;tag=fold1",
                      "<sip:test@127.0.0.1>",
                      "fold-1@127.0.0.1",
                      "7 OPTIONS"});
    EXPECT_EQ(5070u, result.replyPort);
}

TEST(HvSipPeerRequest, OptionsWithAnSdpBodyIsAnswered200WithoutABody)
{
    HvSipResponderCore::Result result = handleSip(bodyRequest(5070, "body-1@127.0.0.1"), sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result), {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKbody;rport=5070;received=127.0.0.1"},
                                      "<sip:peer@127.0.0.1>;tag=body1",
                                      "<sip:test@127.0.0.1>",
                                      "body-1@127.0.0.1",
                                      "11 OPTIONS"});
}

TEST(HvSipPeerRequest, BareLfLineEndsAreAnsweredWithCrLfOnes)
{
    for (const char* peer : {kSofiaUdp, kSipsakUdp, kNetSipUdp, kProxiedUdp}) {
        std::string request = lfOnly(peer);
        ASSERT_EQ(std::string::npos, request.find('\r'));
        HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 40001));
        ASSERT_EQ(Outcome::Replied, result.outcome) << request;
        EXPECT_EQ(200u, result.status) << request;
        EXPECT_EQ(replyText(handleSip(peer, sipSourceAt("127.0.0.1", 40001))), replyText(result))
            << "the same reply as to the CRLF form of " << request;
    }
}

TEST(HvSipPeerRequest, MixedCrLfAndLfLineEndsAreAnswered)
{
    HvSipResponderCore::Result result =
        handleSip(mixedLineEndRequest(5070, "mixed-1@127.0.0.1"), sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result), {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKmixed;rport=5070;received=127.0.0.1"},
                                      "<sip:peer@127.0.0.1>;tag=mixed1",
                                      "<sip:test@127.0.0.1>",
                                      "mixed-1@127.0.0.1",
                                      "1 OPTIONS"});
    // Bare-LF header lines closed by a CRLF blank line.
    std::string crLfBlank = lfLinesCrLfBlank(plainRequest(5070, "mixed-2@127.0.0.1"));
    ASSERT_EQ("Content-Length: 0\n\r\n", crLfBlank.substr(crLfBlank.size() - 20));
    HvSipResponderCore::Result second = handleSip(crLfBlank, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, second.outcome);
    EXPECT_EQ("SIP/2.0 200 OK", statusLineOf(replyText(second)));
    EXPECT_EQ("mixed-2@127.0.0.1", callIdOf(replyText(second)));
}

TEST(HvSipPeerRequest, BlanksBeforeColonsAndTabsAroundValuesAreLegal)
{
    std::string request = "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
                          "Via  :\tSIP/2.0/udp\t127.0.0.1:5070;branch=z9hG4bKblank;rport\t\r\n"
                          "Max-Forwards :\t70\r\n"
                          "From\t:\t<sip:peer@127.0.0.1>;tag=blank1\t\r\n"
                          "To :  <sip:test@127.0.0.1>  \r\n"
                          "Call-ID:\tblank-1@127.0.0.1\r\n"
                          "CSeq:\t4\tOPTIONS\r\n"
                          "Content-Length :\t0\r\n"
                          "\r\n";
    HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result),
                     {{"SIP/2.0/udp\t127.0.0.1:5070;branch=z9hG4bKblank;rport=5070;received=127.0.0.1"},
                      "<sip:peer@127.0.0.1>;tag=blank1",
                      "<sip:test@127.0.0.1>",
                      "blank-1@127.0.0.1",
                      "4\tOPTIONS"});
    EXPECT_EQ(5070u, result.replyPort);
}

TEST(HvSipPeerRequest, BlanksAroundViaSlashesAndColonAreLegal)
{
    // RFC 3261 section 25.1: SLASH = SWS "/" SWS and COLON = SWS ":" SWS.
    std::string request = "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
                          "Via: SIP / 2.0 / UDP 192.0.2.7 : 5072 ;branch=z9hG4bKslash\r\n"
                          "Max-Forwards: 70\r\n"
                          "From: <sip:peer@127.0.0.1>;tag=slash1\r\n"
                          "To: <sip:test@127.0.0.1>\r\n"
                          "Call-ID: slash-1@127.0.0.1\r\n"
                          "CSeq: 1 OPTIONS\r\n"
                          "Content-Length: 0\r\n"
                          "\r\n";
    HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result), {{"SIP / 2.0 / UDP 192.0.2.7 : 5072 ;branch=z9hG4bKslash;received=127.0.0.1"},
                                      "<sip:peer@127.0.0.1>;tag=slash1",
                                      "<sip:test@127.0.0.1>",
                                      "slash-1@127.0.0.1",
                                      "1 OPTIONS"});
    EXPECT_EQ("127.0.0.1", addressOf(result));
    EXPECT_EQ(5072u, result.replyPort);
}

TEST(HvSipPeerRequest, HeaderNamesInAnyLetterCaseAreRead)
{
    std::string request = "OPTIONS sip:test@127.0.0.1 SIP/2.0\r\n"
                          "vIA: SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKcase;RPORT\r\n"
                          "MAX-FORWARDS: 70\r\n"
                          "fRoM: <sip:peer@127.0.0.1>;TAG=case1\r\n"
                          "tO: <sip:test@127.0.0.1>\r\n"
                          "CALL-ID: case-1@127.0.0.1\r\n"
                          "cseq: 1 OPTIONS\r\n"
                          "CONTENT-length: 0\r\n"
                          "\r\n";
    HvSipResponderCore::Result result = handleSip(request, sipSourceAt("127.0.0.1", 5071));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    // Parameter names are case-insensitive too: RPORT is filled.
    expectOptions200(replyText(result), {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bKcase;rport=5071;received=127.0.0.1"},
                                      "<sip:peer@127.0.0.1>;TAG=case1",
                                      "<sip:test@127.0.0.1>",
                                      "case-1@127.0.0.1",
                                      "1 OPTIONS"});
    EXPECT_EQ(5071u, result.replyPort);
}

TEST(HvSipPeerRequest, DatagramWithoutContentLengthIsAnswered)
{
    // RFC 3261 section 18.3: over UDP the body runs to the end of the
    // datagram when Content-Length is absent.
    std::string request = replaced(plainRequest(5070, "nolength-1@127.0.0.1"), "Content-Length: 0\r\n", "");
    ASSERT_EQ(std::string::npos, request.find("Content-Length"));
    HvSipResponderCore::Result result = handleSip(request + "trailing body", sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    expectOptions200(replyText(result),
                     {{"SIP/2.0/UDP 127.0.0.1:5070;branch=z9hG4bK-nolength-1-127.0.0.1;rport=5070;received=127.0.0.1"},
                      "<sip:peer@127.0.0.1>;tag=plain1",
                      "<sip:test@127.0.0.1>",
                      "nolength-1@127.0.0.1",
                      "1 OPTIONS"});
}

TEST(HvSipPeerRequest, CrLfKeepAlivesGetNoReply)
{
    for (const char* ping : {"\r\n\r\n", "\r\n", "\n\n"}) {
        HvSipResponderCore::Result result = handleSip(ping, sipSourceAt("127.0.0.1", 5070));
        EXPECT_EQ(Outcome::MalformedDropped, result.outcome);
        EXPECT_EQ(0u, result.status);
        EXPECT_TRUE(result.reply.isNull());
    }
}

TEST(HvSipPeerRequest, KeepAliveInFrontOfARequestIsSkipped)
{
    // RFC 3261 section 7.5: CRLFs before a start line are ignored.
    HvSipResponderCore::Result result =
        handleSip("\r\n\r\n" + plainRequest(5070, "after-ping@127.0.0.1"), sipSourceAt("127.0.0.1", 5070));
    ASSERT_EQ(Outcome::Replied, result.outcome);
    EXPECT_EQ("after-ping@127.0.0.1", callIdOf(replyText(result)));
}

// ---- through the real program ----

TEST(HvSipPeerRequest, ProgramAnswersEveryPeerFormInOrderOnOneUdpSocket)
{
    Responder responder({"--stats"});
    ASSERT_TRUE(responder.ready());
    hvtest::RawUdpSocket peer;
    const std::string port = std::to_string(peer.port());

    // The peers' requests, their sent-by ports turned into this socket's
    // (the reply goes to the sent-by port when rport is not asked for).
    struct Sent {
        std::string request;
        std::string callId;
    };
    std::vector<Sent> sent{
        {replaced(replaced(kSofiaUdp, "48169", port), "59313", std::to_string(responder.udpPort)),
         "51778402-62f4-1240-018e-aaeb5d8c8220"},
        {replaced(kSipsakUdp, "34804", port), "836368506@127.0.0.1"},
        {replaced(kNetSipUdp, "38246", port), "netsip-30106@127.0.0.1"},
        {replaced(kProxiedUdp, "5070", port), "proxied-1@127.0.0.1"},
        {compactRequest(peer.port(), "udp-compact@127.0.0.1"), "udp-compact@127.0.0.1"},
        {foldedRequest(peer.port(), "udp-folded@127.0.0.1"), "udp-folded@127.0.0.1"},
        {bodyRequest(peer.port(), "udp-body@127.0.0.1"), "udp-body@127.0.0.1"},
        {lfOnly(plainRequest(peer.port(), "udp-lf@127.0.0.1")), "udp-lf@127.0.0.1"},
        {mixedLineEndRequest(peer.port(), "udp-mixed@127.0.0.1"), "udp-mixed@127.0.0.1"},
        {lfLinesCrLfBlank(plainRequest(peer.port(), "udp-lf-crlf@127.0.0.1")), "udp-lf-crlf@127.0.0.1"},
        {lfOnly(bodyRequest(peer.port(), "udp-lf-body@127.0.0.1")), "udp-lf-body@127.0.0.1"},
        {replaced(plainRequest(peer.port(), "udp-nolength@127.0.0.1"), "Content-Length: 0\r\n", ""),
         "udp-nolength@127.0.0.1"},
    };
    for (const Sent& s : sent) {
        ASSERT_TRUE(peer.sendTo(responder.udpPort, s.request));
        std::string reply;
        unsigned int from = 0;
        ASSERT_TRUE(peer.receive(reply, &from, kReplyTimeoutMs)) << "no answer to " << s.callId;
        EXPECT_EQ(responder.udpPort, from);
        EXPECT_EQ("SIP/2.0 200 OK", statusLineOf(reply));
        EXPECT_EQ(s.callId, callIdOf(reply)) << "answers come in the order asked";
        EXPECT_EQ(expectedReply(s.request, peer.port(), true), reply);
    }

    // A keep-alive datagram gets nothing: the next datagram that comes back
    // is the answer to the request sent after it.
    ASSERT_TRUE(peer.sendTo(responder.udpPort, "\r\n\r\n"));
    ASSERT_TRUE(peer.sendTo(responder.udpPort, plainRequest(peer.port(), "udp-after-ping@127.0.0.1")));
    std::string reply = peer.receive(nullptr, kReplyTimeoutMs);
    EXPECT_EQ("SIP/2.0 200 OK", statusLineOf(reply));
    EXPECT_EQ("udp-after-ping@127.0.0.1", callIdOf(reply)) << reply;

    // A datagram is one message (RFC 3261 section 18.3): of two requests
    // written into one, only the first is answered. Datagrams are handled by
    // a pool, so the next request goes out only once that answer is back:
    // the answer after it is then its own, never one to the second request.
    ASSERT_TRUE(peer.sendTo(responder.udpPort, plainRequest(peer.port(), "udp-pair-1@127.0.0.1") +
                                                   plainRequest(peer.port(), "udp-pair-2@127.0.0.1")));
    EXPECT_EQ("udp-pair-1@127.0.0.1", callIdOf(peer.receive(nullptr, kReplyTimeoutMs)));
    ASSERT_TRUE(peer.sendTo(responder.udpPort, plainRequest(peer.port(), "udp-after-pair@127.0.0.1")));
    EXPECT_EQ("udp-after-pair@127.0.0.1", callIdOf(peer.receive(nullptr, kReplyTimeoutMs)));

    EXPECT_TRUE(responder.awaitCounted({{"dropped_malformed", 1}}));
    std::map<std::string, unsigned long> counts = countsOf(responder.stop());
    EXPECT_EQ(sent.size() + 3, counts["replies"]);
    EXPECT_EQ(1u, counts["dropped_malformed"]) << "the keep-alive";
}

TEST(HvSipPeerRequest, ProgramAnswersEveryPeerFormInOrderOnOneTcpConnection)
{
    Responder responder;
    ASSERT_TRUE(responder.ready());
    hvtest::Descriptor connection = hvtest::rawConnect(responder.tcpPort);
    ASSERT_TRUE(connection.valid());
    const int fd = connection.get();
    const unsigned int port = hvtest::localPortOf(fd);

    auto expectAnswer = [&](const std::string& request, const std::string& callId) {
        std::string reply = readSipMessage(fd);
        ASSERT_FALSE(reply.empty()) << "no answer to " << callId;
        EXPECT_EQ("SIP/2.0 200 OK", statusLineOf(reply)) << reply;
        EXPECT_EQ(callId, callIdOf(reply)) << "answers come in the order asked";
        EXPECT_EQ(expectedReply(request, port, false), reply);
    };
    auto ask = [&](const std::string& request, const std::string& callId) {
        ASSERT_TRUE(hvtest::sendAll(fd, request));
        expectAnswer(request, callId);
    };

    ask(replaced(kSofiaTcp, "40911", std::to_string(responder.tcpPort)), "52125928-62f4-1240-ab98-aaeb5d8c8220");
    ask(kSipsakUdp, "836368506@127.0.0.1");
    ask(kNetSipUdp, "netsip-30106@127.0.0.1");
    ask(kProxiedUdp, "proxied-1@127.0.0.1");
    // The compact "l" frames the body that follows.
    ask(compactRequest(port, "tcp-compact@127.0.0.1"), "tcp-compact@127.0.0.1");
    ask(foldedRequest(port, "tcp-folded@127.0.0.1"), "tcp-folded@127.0.0.1");
    // The body is framed away: the request after it is read from its start.
    ask(bodyRequest(port, "tcp-body@127.0.0.1"), "tcp-body@127.0.0.1");
    ask(plainRequest(port, "tcp-after-body@127.0.0.1"), "tcp-after-body@127.0.0.1");
    ask(lfOnly(plainRequest(port, "tcp-lf@127.0.0.1")), "tcp-lf@127.0.0.1");
    ask(mixedLineEndRequest(port, "tcp-mixed@127.0.0.1"), "tcp-mixed@127.0.0.1");
    ask(lfOnly(bodyRequest(port, "tcp-lf-body@127.0.0.1")), "tcp-lf-body@127.0.0.1");

    // Two requests in one write.
    const std::string first = plainRequest(port, "tcp-pipelined-1@127.0.0.1");
    const std::string second = bodyRequest(port, "tcp-pipelined-2@127.0.0.1");
    ASSERT_TRUE(hvtest::sendAll(fd, first + second));
    expectAnswer(first, "tcp-pipelined-1@127.0.0.1");
    expectAnswer(second, "tcp-pipelined-2@127.0.0.1");

    // One byte per write.
    const std::string trickled = bodyRequest(port, "tcp-trickled@127.0.0.1");
    for (char c : trickled)
        ASSERT_TRUE(hvtest::sendAll(fd, std::string(1, c)));
    expectAnswer(trickled, "tcp-trickled@127.0.0.1");

    connection.reset();
    std::map<std::string, unsigned long> counts = countsOf(responder.stop());
    EXPECT_EQ(14u, counts["replies"]);
    EXPECT_EQ(0u, counts["dropped_malformed"]);
}

TEST(HvSipPeerRequest, ProgramSwallowsTcpKeepAlivesWithoutAnyPongAndAnswersTheNextRequest)
{
    Responder responder;
    ASSERT_TRUE(responder.ready());
    hvtest::Descriptor connection = hvtest::rawConnect(responder.tcpPort);
    ASSERT_TRUE(connection.valid());
    const int fd = connection.get();
    const unsigned int port = hvtest::localPortOf(fd);

    // A ping, then a request: the first bytes back are the answer, so neither
    // a SIP message nor a CRLF pong went out for the ping. (Whether the ping
    // is framed alone, and counted as a dropped message, or together with the
    // request, depends on whether both were buffered at once.)
    ASSERT_TRUE(hvtest::sendAll(fd, "\r\n\r\n"));
    const std::string request = plainRequest(port, "tcp-after-ping@127.0.0.1");
    ASSERT_TRUE(hvtest::sendAll(fd, request));
    std::string reply = readSipMessage(fd);
    EXPECT_EQ(0u, reply.find("SIP/2.0 200 OK\r\n")) << "no pong in front of the answer: " << reply;
    EXPECT_EQ("tcp-after-ping@127.0.0.1", callIdOf(reply));

    // A ping between two requests in one write.
    const std::string before = plainRequest(port, "tcp-ping-1@127.0.0.1");
    const std::string after = plainRequest(port, "tcp-ping-2@127.0.0.1");
    ASSERT_TRUE(hvtest::sendAll(fd, before + "\r\n\r\n" + after));
    EXPECT_EQ(expectedReply(before, port, false), readSipMessage(fd));
    std::string next = readSipMessage(fd);
    EXPECT_EQ(0u, next.find("SIP/2.0 200 OK\r\n")) << next;
    EXPECT_EQ("tcp-ping-2@127.0.0.1", callIdOf(next));

    connection.reset();
    std::map<std::string, unsigned long> counts = countsOf(responder.stop());
    EXPECT_EQ(3u, counts["replies"]);
}

// The connection's framing ends a ping at its blank line but, finding no
// Content-Length, takes everything buffered behind it as the same message;
// the responder reads the messages out of it one by one.
TEST(HvSipPeerRequest, ProgramOverTcpAnswersEveryRequestPipelinedBehindAKeepAlive)
{
    Responder responder;
    ASSERT_TRUE(responder.ready());
    hvtest::Descriptor connection = hvtest::rawConnect(responder.tcpPort);
    ASSERT_TRUE(connection.valid());
    const int fd = connection.get();
    const unsigned int port = hvtest::localPortOf(fd);

    const std::string first = plainRequest(port, "tcp-behind-ping-1@127.0.0.1");
    const std::string second = plainRequest(port, "tcp-behind-ping-2@127.0.0.1");
    ASSERT_TRUE(hvtest::sendAll(fd, "\r\n\r\n" + first + second));
    EXPECT_EQ(expectedReply(first, port, false), readSipMessage(fd));
    EXPECT_EQ(expectedReply(second, port, false), readSipMessage(fd));

    connection.reset();
    std::map<std::string, unsigned long> counts = countsOf(responder.stop());
    EXPECT_EQ(2u, counts["requests"]);
    EXPECT_EQ(2u, counts["replies"]);
}

// The connection's framing ends the headers at "\r\n\r\n" or "\n\n" only:
// bare-LF header lines closed by a CRLF blank line ("\n\r\n") run on into
// the next request, so such a request waits for the next one; then both are
// answered, in order.
TEST(HvSipPeerRequest, ProgramOverTcpAnswersBareLfHeadersClosedByACrLfBlankLineOnceTheNextRequestArrives)
{
    Responder responder;
    ASSERT_TRUE(responder.ready());
    hvtest::Descriptor connection = hvtest::rawConnect(responder.tcpPort);
    ASSERT_TRUE(connection.valid());
    const int fd = connection.get();
    const unsigned int port = hvtest::localPortOf(fd);

    const std::string unusual = lfLinesCrLfBlank(plainRequest(port, "tcp-lf-crlf@127.0.0.1"));
    const std::string next = plainRequest(port, "tcp-next@127.0.0.1");
    ASSERT_TRUE(hvtest::sendAll(fd, unusual));
    ASSERT_TRUE(hvtest::sendAll(fd, next));
    std::string reply = readSipMessage(fd);
    EXPECT_EQ("SIP/2.0 200 OK", statusLineOf(reply));
    EXPECT_EQ("tcp-lf-crlf@127.0.0.1", callIdOf(reply));
    EXPECT_EQ(expectedReply(next, port, false), readSipMessage(fd));

    connection.reset();
    std::map<std::string, unsigned long> counts = countsOf(responder.stop());
    EXPECT_EQ(2u, counts["requests"]);
    EXPECT_EQ(2u, counts["replies"]);
}

// The connection's framing knows Content-Length only as that name (any
// case) or a lower-case "l", each right before the colon or blanks. Written
// as an upper-case "L" or with a tab before the colon, it goes unseen and
// the framing hands over everything buffered; the responder reads the
// length itself and answers the request pipelined behind the body too.
TEST(HvSipPeerRequest, ProgramOverTcpAnswersARequestPipelinedBehindAnUpperCaseLOrATabbedContentLength)
{
    Responder responder;
    ASSERT_TRUE(responder.ready());
    for (const char* lengthHeader : {"L: 5\r\n", "Content-Length\t: 5\r\n"}) {
        hvtest::Descriptor connection = hvtest::rawConnect(responder.tcpPort);
        ASSERT_TRUE(connection.valid());
        const int fd = connection.get();
        const unsigned int port = hvtest::localPortOf(fd);

        const std::string request =
            replaced(plainRequest(port, "tcp-unframed@127.0.0.1"), "Content-Length: 0\r\n", lengthHeader) + "hello";
        ASSERT_NE(std::string::npos, request.find(lengthHeader));
        ASSERT_TRUE(hvtest::sendAll(fd, request));
        EXPECT_EQ(expectedReply(request, port, false), readSipMessage(fd)) << lengthHeader;

        const std::string behind = plainRequest(port, "tcp-behind-body@127.0.0.1");
        ASSERT_TRUE(hvtest::sendAll(fd, request + behind));
        EXPECT_EQ(expectedReply(request, port, false), readSipMessage(fd)) << lengthHeader;
        EXPECT_EQ(expectedReply(behind, port, false), readSipMessage(fd)) << lengthHeader;
    }
    std::map<std::string, unsigned long> counts = countsOf(responder.stop());
    EXPECT_EQ(6u, counts["replies"]);
    EXPECT_EQ(0u, counts["dropped_malformed"]);
}
