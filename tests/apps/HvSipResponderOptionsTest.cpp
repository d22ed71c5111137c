#include "HvSipResponderOptions.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <string>
#include <vector>

namespace {

using Action = HvSipResponderOptions::Action;

// Parses `words` into a fresh object.
HvSipResponderOptions parsed(const std::vector<std::string>& words, Action expected)
{
    HvSipResponderOptions options;
    EXPECT_EQ(expected, options.parse(words)) << options.getError();
    return options;
}

// The error text of a command line that must be refused.
std::string errorOf(const std::vector<std::string>& words)
{
    HvSipResponderOptions options;
    EXPECT_EQ(Action::UsageError, options.parse(words));
    return options.getError();
}

} // namespace

TEST(HvSipResponderOptions, DefaultsAreLoopbackPort5060NoStatsNotVerbose)
{
    HvSipResponderOptions options = parsed({}, Action::Run);
    EXPECT_EQ("127.0.0.1", options.getAddress());
    EXPECT_EQ(htonl(INADDR_LOOPBACK), options.getAddressValue());
    EXPECT_EQ(5060u, options.getUdpPort());
    EXPECT_EQ(5060u, options.getTcpPort());
    EXPECT_FALSE(options.getStats());
    EXPECT_FALSE(options.getVerbose());
    EXPECT_FALSE(options.getRealTime());
    EXPECT_EQ("", options.getError());
}

TEST(HvSipResponderOptions, ArgvFormSkipsTheProgramName)
{
    const char* argv[] = {"hv-sip-responder", "--port", "7000", "--stats"};
    HvSipResponderOptions options;
    EXPECT_EQ(Action::Run, options.parse(4, argv));
    EXPECT_EQ(7000u, options.getUdpPort());
    EXPECT_EQ(7000u, options.getTcpPort());
    EXPECT_TRUE(options.getStats());
}

TEST(HvSipResponderOptions, AddressIsTakenAsADottedQuad)
{
    HvSipResponderOptions options = parsed({"--address", "10.1.2.3"}, Action::Run);
    EXPECT_EQ("10.1.2.3", options.getAddress());
    EXPECT_EQ(htonl(0x0A010203u), options.getAddressValue());
    options = parsed({"--address=0.0.0.0"}, Action::Run);
    EXPECT_EQ(0u, options.getAddressValue());
    options = parsed({"--address", "255.255.255.255"}, Action::Run);
    EXPECT_EQ(0xFFFFFFFFu, options.getAddressValue());
}

TEST(HvSipResponderOptions, PortSetsBothTransportsAndZeroMeansAnyFreePort)
{
    HvSipResponderOptions options = parsed({"--port", "0"}, Action::Run);
    EXPECT_EQ(0u, options.getUdpPort());
    EXPECT_EQ(0u, options.getTcpPort());
    options = parsed({"--port=65535"}, Action::Run);
    EXPECT_EQ(65535u, options.getUdpPort());
    EXPECT_EQ(65535u, options.getTcpPort());
}

TEST(HvSipResponderOptions, UdpAndTcpPortsOverridePortWhateverTheOrder)
{
    HvSipResponderOptions options = parsed({"--udp-port", "6000", "--port", "7000"}, Action::Run);
    EXPECT_EQ(6000u, options.getUdpPort());
    EXPECT_EQ(7000u, options.getTcpPort());
    options = parsed({"--port", "7000", "--tcp-port=8000"}, Action::Run);
    EXPECT_EQ(7000u, options.getUdpPort());
    EXPECT_EQ(8000u, options.getTcpPort());
    options = parsed({"--tcp-port", "1", "--udp-port", "2"}, Action::Run);
    EXPECT_EQ(2u, options.getUdpPort());
    EXPECT_EQ(1u, options.getTcpPort());
}

TEST(HvSipResponderOptions, StatsAndVerboseAreFlags)
{
    HvSipResponderOptions options = parsed({"--verbose", "--stats"}, Action::Run);
    EXPECT_TRUE(options.getStats());
    EXPECT_TRUE(options.getVerbose());
    EXPECT_FALSE(options.getRealTime());
}

TEST(HvSipResponderOptions, RealTimeIsAskedForByItsFlagAlone)
{
    EXPECT_TRUE(parsed({"--realtime"}, Action::Run).getRealTime());
    EXPECT_EQ("option '--realtime' takes no value", errorOf({"--realtime=1"}));
}

TEST(HvSipResponderOptions, HelpAndVersionAreActions)
{
    parsed({"--help"}, Action::Help);
    parsed({"-h"}, Action::Help);
    parsed({"--version"}, Action::Version);
    parsed({"--port", "1", "--version", "--bogus"}, Action::Version);
}

TEST(HvSipResponderOptions, UsageHelpNamesEveryOption)
{
    const std::string usage = HvSipResponderOptions::sUsage();
    EXPECT_EQ(0u, usage.find("Usage: hv-sip-responder [options]\n"));
    for (const char* option : {"--address", "--port", "--udp-port", "--tcp-port", "--stats", "--verbose", "--realtime",
                               "--help", "--version"})
        EXPECT_NE(std::string::npos, usage.find(option)) << option;
    EXPECT_EQ('\n', usage.back());
}

TEST(HvSipResponderOptions, UnknownOptionAndStrayArgumentAreNamed)
{
    EXPECT_EQ("unknown option '--bogus'", errorOf({"--bogus"}));
    EXPECT_EQ("unknown option '-p'", errorOf({"-p", "5060"}));
    EXPECT_EQ("unexpected argument 'extra'", errorOf({"extra"}));
    EXPECT_EQ("unknown option '--bogus'", errorOf({"--bogus=1"}));
}

TEST(HvSipResponderOptions, MissingValueIsNamed)
{
    EXPECT_EQ("option '--port' needs a value", errorOf({"--port"}));
    EXPECT_EQ("option '--address' needs a value", errorOf({"--stats", "--address"}));
    EXPECT_EQ("option '--udp-port' needs a value", errorOf({"--udp-port"}));
    EXPECT_EQ("option '--tcp-port' needs a value", errorOf({"--tcp-port"}));
}

TEST(HvSipResponderOptions, BadPortsAreRefusedWithTheWordGiven)
{
    EXPECT_EQ("invalid port '65536' for --port (expected 0 to 65535)", errorOf({"--port", "65536"}));
    EXPECT_EQ("invalid port 'abc' for --udp-port (expected 0 to 65535)", errorOf({"--udp-port", "abc"}));
    EXPECT_EQ("invalid port '-1' for --tcp-port (expected 0 to 65535)", errorOf({"--tcp-port", "-1"}));
    EXPECT_EQ("invalid port '' for --port (expected 0 to 65535)", errorOf({"--port="}));
    EXPECT_EQ("invalid port '99999999999' for --port (expected 0 to 65535)", errorOf({"--port", "99999999999"}));
    EXPECT_EQ("invalid port '50 60' for --port (expected 0 to 65535)", errorOf({"--port", "50 60"}));
}

TEST(HvSipResponderOptions, BadAddressesAreRefusedWithTheWordGiven)
{
    const char* tail = "' for --address (expected a dotted quad such as 127.0.0.1)";
    for (const char* word : {"localhost", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", "0x7f.0.0.1", "1..2.3",
                             "", "1.2.3.0004"})
        EXPECT_EQ(std::string("invalid address '") + word + tail, errorOf({"--address", word})) << word;
}

TEST(HvSipResponderOptions, FlagsRefuseAValue)
{
    EXPECT_EQ("option '--stats' takes no value", errorOf({"--stats=1"}));
    EXPECT_EQ("option '--verbose' takes no value", errorOf({"--verbose=yes"}));
    EXPECT_EQ("option '--help' takes no value", errorOf({"--help=x"}));
    EXPECT_EQ("option '--version' takes no value", errorOf({"--version=x"}));
}

TEST(HvSipResponderOptions, PortParserTakesDecimalDigitsOnly)
{
    unsigned int port = 77;
    EXPECT_TRUE(HvSipResponderOptions::sParsePort("0", port));
    EXPECT_EQ(0u, port);
    EXPECT_TRUE(HvSipResponderOptions::sParsePort("05060", port));
    EXPECT_EQ(5060u, port);
    port = 77;
    EXPECT_FALSE(HvSipResponderOptions::sParsePort("+1", port));
    EXPECT_FALSE(HvSipResponderOptions::sParsePort("1e3", port));
    EXPECT_FALSE(HvSipResponderOptions::sParsePort("000001", port));
    EXPECT_EQ(77u, port);
}
