#include "HvSipLoadOptions.h"

#include "support/HvTestProcess.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace {

// Parses "hv-sip-load" followed by `words`.
HvSipLoadOptions::Action parse(HvSipLoadOptions& options, std::vector<std::string> words)
{
    words.insert(words.begin(), "hv-sip-load");
    std::vector<const char*> argv;
    for (const std::string& word : words)
        argv.push_back(word.c_str());
    argv.push_back(nullptr);
    return options.parse(static_cast<int>(words.size()), argv.data());
}

// The usage error that parsing `words` gives ("" when it gives none).
std::string errorOf(std::vector<std::string> words)
{
    HvSipLoadOptions options;
    if (parse(options, std::move(words)) != HvSipLoadOptions::Action::Error)
        return std::string();
    return options.getError();
}

} // namespace

TEST(HvSipLoadOptions, NoArgumentsGiveTheDocumentedDefaults)
{
    HvSipLoadOptions options;
    ASSERT_EQ(HvSipLoadOptions::Action::Run, parse(options, {}));
    EXPECT_EQ("127.0.0.1", options.targetHost);
    EXPECT_EQ(5060u, options.targetPort);
    EXPECT_FALSE(options.tcp);
    EXPECT_EQ(1u, options.connections);
    EXPECT_FALSE(options.openLoop);
    EXPECT_EQ(10u, options.concurrency);
    EXPECT_EQ(0.0, options.rate);
    EXPECT_FALSE(options.countMode);
    EXPECT_EQ(10.0, options.durationSeconds);
    EXPECT_EQ(32000u, options.timeoutMs);
    EXPECT_EQ(500u, options.t1Ms);
    EXPECT_TRUE(options.retransmit);
    EXPECT_FALSE(options.json);
    EXPECT_EQ("", options.getError());
}

TEST(HvSipLoadOptions, EveryValuedOptionIsRead)
{
    HvSipLoadOptions options;
    ASSERT_EQ(HvSipLoadOptions::Action::Run,
              parse(options, {"--target", "sip.example.org:5070", "--transport", "tcp", "--connections", "4",
                              "--concurrency", "25", "--count", "1000", "--timeout", "800", "--t1", "100",
                              "--no-retransmit", "--json"}))
        << options.getError();
    EXPECT_EQ("sip.example.org", options.targetHost);
    EXPECT_EQ(5070u, options.targetPort);
    EXPECT_TRUE(options.tcp);
    EXPECT_EQ(4u, options.connections);
    EXPECT_FALSE(options.openLoop);
    EXPECT_EQ(25u, options.concurrency);
    EXPECT_TRUE(options.countMode);
    EXPECT_EQ(1000u, options.count);
    EXPECT_EQ(800u, options.timeoutMs);
    EXPECT_EQ(100u, options.t1Ms);
    EXPECT_FALSE(options.retransmit);
    EXPECT_TRUE(options.json);
}

TEST(HvSipLoadOptions, RateSelectsTheOpenLoopAndDurationTakesDecimals)
{
    HvSipLoadOptions options;
    ASSERT_EQ(HvSipLoadOptions::Action::Run,
              parse(options, {"--rate=250.5", "--duration=1.5", "--transport=udp", "--target=10.0.0.1:5061"}))
        << options.getError();
    EXPECT_TRUE(options.openLoop);
    EXPECT_EQ(250.5, options.rate);
    EXPECT_FALSE(options.countMode);
    EXPECT_EQ(1.5, options.durationSeconds);
    EXPECT_FALSE(options.tcp);
    EXPECT_EQ("10.0.0.1", options.targetHost);
    EXPECT_EQ(5061u, options.targetPort);
}

TEST(HvSipLoadOptions, HelpAndVersionWinOverWhatFollows)
{
    HvSipLoadOptions options;
    EXPECT_EQ(HvSipLoadOptions::Action::Help, parse(options, {"--help", "--bogus"}));
    EXPECT_EQ(HvSipLoadOptions::Action::Version, parse(options, {"--version"}));
    EXPECT_EQ(HvSipLoadOptions::Action::Error, parse(options, {"--bogus", "--help"}));
}

TEST(HvSipLoadOptions, ExclusivePairsAreUsageErrors)
{
    EXPECT_EQ("--rate and --concurrency cannot be used together", errorOf({"--rate", "10", "--concurrency", "5"}));
    EXPECT_EQ("--rate and --concurrency cannot be used together", errorOf({"--concurrency", "5", "--rate", "10"}));
    EXPECT_EQ("--duration and --count cannot be used together", errorOf({"--duration", "3", "--count", "5"}));
}

TEST(HvSipLoadOptions, EachUsageErrorNamesWhatWasWrong)
{
    EXPECT_EQ("unknown option '--bogus'", errorOf({"--bogus"}));
    EXPECT_EQ("unknown option '--bogus'", errorOf({"--bogus=1"}));
    EXPECT_EQ("unexpected argument 'extra'", errorOf({"extra"}));
    EXPECT_EQ("unexpected argument '-c'", errorOf({"-c"}));
    EXPECT_EQ("unexpected argument '--'", errorOf({"--"}));
    EXPECT_EQ("option --target needs a value", errorOf({"--target"}));
    EXPECT_EQ("option --json takes no value", errorOf({"--json=yes"}));
    EXPECT_EQ("option --no-retransmit takes no value", errorOf({"--no-retransmit=1"}));
    EXPECT_EQ("invalid --target 'example.org': expected HOST:PORT with PORT from 1 to 65535",
              errorOf({"--target", "example.org"}));
    EXPECT_EQ("invalid --target ':5060': expected HOST:PORT with PORT from 1 to 65535", errorOf({"--target", ":5060"}));
    EXPECT_EQ("invalid --target 'h:0': expected HOST:PORT with PORT from 1 to 65535", errorOf({"--target", "h:0"}));
    EXPECT_EQ("invalid --target 'h:65536': expected HOST:PORT with PORT from 1 to 65535",
              errorOf({"--target", "h:65536"}));
    EXPECT_EQ("invalid --transport 'sctp': expected udp or tcp", errorOf({"--transport", "sctp"}));
    EXPECT_EQ("invalid --connections '0': expected a whole number from 1 to 1000", errorOf({"--connections", "0"}));
    EXPECT_EQ("invalid --concurrency '-3': expected a whole number from 1 to 100000",
              errorOf({"--concurrency", "-3"}));
    EXPECT_EQ("invalid --concurrency '1e3': expected a whole number from 1 to 100000",
              errorOf({"--concurrency", "1e3"}));
    EXPECT_EQ("invalid --rate '0': expected transactions per second above 0 and at most 1000000",
              errorOf({"--rate", "0"}));
    EXPECT_EQ("invalid --rate 'inf': expected transactions per second above 0 and at most 1000000",
              errorOf({"--rate", "inf"}));
    EXPECT_EQ("invalid --duration '0': expected seconds above 0 and at most 86400", errorOf({"--duration", "0"}));
    EXPECT_EQ("invalid --duration '1.2.3': expected seconds above 0 and at most 86400",
              errorOf({"--duration", "1.2.3"}));
    EXPECT_EQ("invalid --count '': expected a whole number from 1 to 1000000000", errorOf({"--count="}));
    EXPECT_EQ("invalid --count '99999999999': expected a whole number from 1 to 1000000000",
              errorOf({"--count", "99999999999"}));
    EXPECT_EQ("invalid --timeout '0': expected milliseconds from 1 to 3600000", errorOf({"--timeout", "0"}));
    EXPECT_EQ("invalid --t1 '60001': expected milliseconds from 1 to 60000", errorOf({"--t1", "60001"}));
}

TEST(HvSipLoadOptions, ProgramExitsTwoWithTheErrorOnStderrForAUsageError)
{
    hvtest::ProcessResult result = hvtest::runProcess(HV_SIP_LOAD, {"--count", "5", "--duration", "2"});
    EXPECT_EQ(2, result.exitStatus);
    EXPECT_EQ("", result.out);
    EXPECT_EQ("hv-sip-load: --duration and --count cannot be used together\n"
              "Try 'hv-sip-load --help' for more information.\n",
              result.err);

    result = hvtest::runProcess(HV_SIP_LOAD, {"--transport", "sctp"});
    EXPECT_EQ(2, result.exitStatus);
    EXPECT_EQ("hv-sip-load: invalid --transport 'sctp': expected udp or tcp\n"
              "Try 'hv-sip-load --help' for more information.\n",
              result.err);
}

TEST(HvSipLoadOptions, ProgramPrintsHelpAndVersionAndExitsZero)
{
    hvtest::ProcessResult help = hvtest::runProcess(HV_SIP_LOAD, {"--help"});
    EXPECT_EQ(0, help.exitStatus);
    EXPECT_EQ(HvSipLoadOptions::sUsage(), help.out);
    EXPECT_EQ("", help.err);

    hvtest::ProcessResult version = hvtest::runProcess(HV_SIP_LOAD, {"--version"});
    EXPECT_EQ(0, version.exitStatus);
    EXPECT_TRUE(std::regex_match(version.out, std::regex("hv-sip-load [0-9]+\\.[0-9]+\\.[0-9]+\n"))) << version.out;
    EXPECT_EQ("", version.err);
}
