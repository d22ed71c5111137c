#include <Velmora/GetHostByNameServer.h>

#include <Velmora/Hostent.h>
#include <Velmora/Net.h>

#include <tests/support/HvTestDnsServer.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using Velmora::GetHostByNameServer;
using Velmora::Hostent;

namespace {

using Clock = std::chrono::steady_clock;

GetHostByNameServer& resolver()
{
    return GetHostByNameServer::getInstance();
}

std::string textOf(unsigned int address)
{
    char buffer[INET_ADDRSTRLEN];
    in_addr value;
    value.s_addr = address;
    return inet_ntop(AF_INET, &value, buffer, sizeof buffer) ? buffer : "?";
}

std::vector<std::string> texts(const std::vector<unsigned int>& addresses)
{
    std::vector<std::string> result;
    for (unsigned int address : addresses)
        result.push_back(textOf(address));
    return result;
}

ACE_Time_Value millis(long ms)
{
    return ACE_Time_Value(ms / 1000, (ms % 1000) * 1000);
}

struct Lookup {
    bool ok = false;
    Hostent::GetHostByNameStatus status = Hostent::GHBN_FAILURE;
    Hostent result;
    std::chrono::milliseconds elapsed{0};
};

Lookup lookUp(const char* host, long timeoutMs = 2000)
{
    Lookup lookup;
    // A value no look-up leaves behind, to see that the status is always set.
    lookup.status = static_cast<Hostent::GetHostByNameStatus>(99);
    lookup.result.officialName = "stale";
    lookup.result.addresses.push_back(0x01020304);
    Clock::time_point start = Clock::now();
    lookup.ok = resolver().getHostByName(host, lookup.result, lookup.status, millis(timeoutMs));
    lookup.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return lookup;
}

std::string statusText(Hostent::GetHostByNameStatus status)
{
    return Hostent::getGetHostByNameStatusString(status);
}

// Points the resolver at `servers` for the test's lifetime.
class ServersScope {
public:
    explicit ServersScope(const std::string& servers) { EXPECT_TRUE(resolver().setServers(servers)) << servers; }
    ~ServersScope() { resolver().resetServers(); }
    ServersScope(const ServersScope&) = delete;
    ServersScope& operator=(const ServersScope&) = delete;
};

// A UDP port on 127.0.0.1 with nobody behind it: queries sent there are refused.
unsigned short closedPort()
{
    int s = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_EQ(0, ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length));
    ::close(s);
    return ntohs(address.sin_port);
}

// The IPv4 entries of /etc/hosts, read independently of the resolver: for
// each name its first line's address and that line's first name.
struct HostsEntry {
    unsigned int address;
    std::string officialName;
};

std::map<std::string, HostsEntry> ipv4HostsEntries()
{
    std::map<std::string, HostsEntry> entries;
    std::ifstream file("/etc/hosts");
    std::string line;
    while (std::getline(file, line)) {
        line = line.substr(0, line.find('#'));
        std::istringstream words(line);
        std::string addressText;
        if (!(words >> addressText))
            continue;
        in_addr parsed;
        if (inet_pton(AF_INET, addressText.c_str(), &parsed) != 1)
            continue;
        std::vector<std::string> names;
        std::string name;
        while (words >> name)
            names.push_back(name);
        for (const std::string& each : names) {
            std::string key;
            for (char c : each)
                key += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            if (!entries.count(key))
                entries[key] = HostsEntry{parsed.s_addr, names.front()};
        }
    }
    return entries;
}

std::mutex fs_observedMutex;
std::vector<std::pair<std::string, ACE_Time_Value>> fs_observed;

void observeLookup(const char* host, const ACE_Time_Value& timeout)
{
    std::lock_guard<std::mutex> lock(fs_observedMutex);
    fs_observed.emplace_back(host != nullptr ? host : "(null)", timeout);
}

} // namespace

TEST(GetHostByNameServer, GetInstanceIsOneObjectForTheWholeProcess)
{
    GetHostByNameServer* here = &GetHostByNameServer::getInstance();
    GetHostByNameServer* there = nullptr;
    std::thread other([&] { there = &GetHostByNameServer::getInstance(); });
    other.join();
    EXPECT_EQ(here, there);
}

TEST(GetHostByNameServer, ResolvesANameThroughTheGivenServer)
{
    hvtest::TestDnsServer server;
    server.add("sip.hv.test", {"10.1.2.3"});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("sip.hv.test");
    ASSERT_TRUE(lookup.ok);
    EXPECT_EQ(Hostent::GHBN_SUCCESS, lookup.status);
    EXPECT_EQ("success", statusText(lookup.status));
    EXPECT_EQ("sip.hv.test", lookup.result.officialName);
    EXPECT_EQ(std::vector<std::string>{"10.1.2.3"}, texts(lookup.result.addresses));
    EXPECT_EQ(std::vector<std::string>{"sip.hv.test"}, server.askedNames());
}

TEST(GetHostByNameServer, NameWithoutDotsIsAskedAsItIsUnderTheTestSetting)
{
    hvtest::TestDnsServer server;
    server.add("hvproxy", {"10.1.2.4"});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("hvproxy");
    ASSERT_TRUE(lookup.ok);
    EXPECT_EQ(std::vector<std::string>{"10.1.2.4"}, texts(lookup.result.addresses));
    // No search domain of the machine was tried first.
    EXPECT_EQ(std::vector<std::string>{"hvproxy"}, server.askedNames());
}

TEST(GetHostByNameServer, SeveralAddressesComeBackInTheServersOrder)
{
    hvtest::TestDnsServer server;
    server.add("many.hv.test", {"10.1.2.7", "10.1.2.3", "10.1.2.5"});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("many.hv.test");
    ASSERT_TRUE(lookup.ok);
    EXPECT_EQ((std::vector<std::string>{"10.1.2.7", "10.1.2.3", "10.1.2.5"}), texts(lookup.result.addresses));
}

TEST(GetHostByNameServer, SilentServerGivesTimeoutAfterTheGivenTime)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("silent.hv.test", 300);
    EXPECT_FALSE(lookup.ok);
    EXPECT_EQ(Hostent::GHBN_TIMEOUT, lookup.status);
    EXPECT_EQ("look-up timed out", statusText(lookup.status));
    EXPECT_GE(lookup.elapsed.count(), 250);
    EXPECT_LT(lookup.elapsed.count(), 2000);
    // The time went into asking that server, not into anything else.
    EXPECT_GE(server.queryCount(), 1);
    EXPECT_EQ("silent.hv.test", server.askedNames().front());
    EXPECT_TRUE(lookup.result.addresses.empty());
    EXPECT_EQ("", lookup.result.officialName);
}

TEST(GetHostByNameServer, LongerTimeOutIsWaitedOutToo)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("silent.hv.test", 1200);
    EXPECT_EQ(Hostent::GHBN_TIMEOUT, lookup.status);
    EXPECT_GE(lookup.elapsed.count(), 1100);
    EXPECT_LT(lookup.elapsed.count(), 4000);
    // Retried within the time rather than waiting on one packet.
    EXPECT_GE(server.queryCount(), 2);
}

TEST(GetHostByNameServer, NoTimeLeftGivesTimeoutWithoutWaitingForTheServer)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    for (long timeoutMs : {0L, -1500L}) {
        Lookup lookup = lookUp("silent.hv.test", timeoutMs);
        EXPECT_FALSE(lookup.ok);
        EXPECT_EQ(Hostent::GHBN_TIMEOUT, lookup.status) << timeoutMs;
        EXPECT_LT(lookup.elapsed.count(), 250) << timeoutMs;
    }
}

TEST(GetHostByNameServer, NoTimeLeftStillAnswersNumericTextsAndTheHostsFile)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    Lookup numeric = lookUp("192.0.2.5", 0);
    ASSERT_TRUE(numeric.ok);
    EXPECT_EQ(std::vector<std::string>{"192.0.2.5"}, texts(numeric.result.addresses));
    Lookup local = lookUp("localhost", -1);
    ASSERT_TRUE(local.ok);
    EXPECT_EQ(0, server.queryCount());
}

TEST(GetHostByNameServer, UnknownNameIsHostNotFound)
{
    hvtest::TestDnsServer server;
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("nosuch.hv.test");
    EXPECT_FALSE(lookup.ok);
    EXPECT_EQ(Hostent::GHBN_HOST_NOT_FOUND, lookup.status);
    EXPECT_EQ("host not found", statusText(lookup.status));
    EXPECT_LT(lookup.elapsed.count(), 1500);
    EXPECT_TRUE(lookup.result.addresses.empty());
}

TEST(GetHostByNameServer, NameWithoutIPv4AddressIsNoData)
{
    hvtest::TestDnsServer server;
    server.add("empty.hv.test", {});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("empty.hv.test");
    EXPECT_FALSE(lookup.ok);
    EXPECT_EQ(Hostent::GHBN_NO_DATA, lookup.status);
    EXPECT_EQ("no address for host", statusText(lookup.status));
}

TEST(GetHostByNameServer, ServerFailureIsTryAgain)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SERVFAIL);
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("broken.hv.test", 3000);
    EXPECT_FALSE(lookup.ok);
    EXPECT_EQ(Hostent::GHBN_TRY_AGAIN, lookup.status);
    EXPECT_EQ("temporary failure, try again", statusText(lookup.status));
    EXPECT_LT(lookup.elapsed.count(), 2500);
    EXPECT_GE(server.queryCount(), 1);
}

TEST(GetHostByNameServer, RefusedServerIsTryAgainBeforeTheTimeOut)
{
    ServersScope scope("127.0.0.1:" + std::to_string(closedPort()));

    Lookup lookup = lookUp("refused.hv.test", 3000);
    EXPECT_FALSE(lookup.ok);
    EXPECT_EQ(Hostent::GHBN_TRY_AGAIN, lookup.status);
    EXPECT_LT(lookup.elapsed.count(), 2500);
}

TEST(GetHostByNameServer, SecondServerAnswersWhenTheFirstRefuses)
{
    hvtest::TestDnsServer server;
    server.add("second.hv.test", {"10.2.0.1"});
    ServersScope scope("127.0.0.1:" + std::to_string(closedPort()) + "," + server.serverList());

    Lookup lookup = lookUp("second.hv.test");
    ASSERT_TRUE(lookup.ok);
    EXPECT_EQ(std::vector<std::string>{"10.2.0.1"}, texts(lookup.result.addresses));
}

TEST(GetHostByNameServer, HostsFileNamesResolveWithoutAskingAnyServer)
{
    std::map<std::string, HostsEntry> entries = ipv4HostsEntries();
    ASSERT_FALSE(entries.empty()) << "/etc/hosts has no IPv4 entry";
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    int checked = 0;
    for (const auto& entry : entries) {
        if (entry.first.size() > 253 || ++checked > 20)
            continue;
        Lookup lookup = lookUp(entry.first.c_str(), 300);
        ASSERT_TRUE(lookup.ok) << entry.first << ": " << statusText(lookup.status);
        ASSERT_FALSE(lookup.result.addresses.empty());
        EXPECT_EQ(textOf(entry.second.address), textOf(lookup.result.addresses.front())) << entry.first;
        EXPECT_EQ(entry.second.officialName, lookup.result.officialName) << entry.first;
        EXPECT_LT(lookup.elapsed.count(), 250) << entry.first;
    }
    EXPECT_EQ(0, server.queryCount());
}

TEST(GetHostByNameServer, LocalhostIsLoopbackWithoutAskingAnyServer)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    Lookup plain = lookUp("localhost", 300);
    ASSERT_TRUE(plain.ok);
    EXPECT_EQ("127.0.0.1", textOf(plain.result.addresses.front()));
    // With the root's dot the hosts file has no line for it; it is still the
    // loopback host.
    Lookup rooted = lookUp("LOCALHOST.", 300);
    ASSERT_TRUE(rooted.ok);
    EXPECT_EQ(std::vector<std::string>{"127.0.0.1"}, texts(rooted.result.addresses));
    EXPECT_EQ("localhost", rooted.result.officialName);
    EXPECT_EQ(0, server.queryCount());
}

TEST(GetHostByNameServer, NumericTextIsItsOwnAddressWithoutAQuery)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("192.0.2.5", 300);
    ASSERT_TRUE(lookup.ok);
    EXPECT_EQ(std::vector<std::string>{"192.0.2.5"}, texts(lookup.result.addresses));
    Lookup broadcast = lookUp("255.255.255.255", 300);
    ASSERT_TRUE(broadcast.ok);
    EXPECT_EQ(0xFFFFFFFFu, broadcast.result.addresses.front());
    EXPECT_EQ(0, server.queryCount());
}

TEST(GetHostByNameServer, TextsThatCannotBeHostNamesAreHostNotFoundWithoutAQuery)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    ServersScope scope(server.serverList());

    std::string tooLong;
    while (tooLong.size() < 254)
        tooLong += "abcdefghi.";
    tooLong.resize(254);
    std::string longLabel = std::string(64, 'a') + ".hv.test";
    std::string huge(100000, 'x');
    const char* bad[] = {"", ".", tooLong.c_str(), longLabel.c_str(), huge.c_str(), nullptr};
    for (const char* host : bad) {
        Lookup lookup = lookUp(host, 300);
        EXPECT_FALSE(lookup.ok);
        EXPECT_EQ(Hostent::GHBN_HOST_NOT_FOUND, lookup.status) << (host ? std::string(host).substr(0, 40) : "null");
        EXPECT_LT(lookup.elapsed.count(), 250);
        EXPECT_TRUE(lookup.result.addresses.empty());
    }
    EXPECT_EQ(0, server.queryCount());
}

TEST(GetHostByNameServer, LongestNamesTheDnsCarriesAreStillAsked)
{
    hvtest::TestDnsServer server;
    std::string label63(63, 'b');
    // 4 labels of 63 and the dots between them: 255 characters, too long; 3
    // labels and one of 61 make exactly 253.
    std::string name = label63 + "." + label63 + "." + label63 + "." + std::string(61, 'c');
    ASSERT_EQ(253u, name.size());
    server.add(name, {"10.3.0.1"});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp(name.c_str());
    ASSERT_TRUE(lookup.ok) << statusText(lookup.status);
    EXPECT_EQ(std::vector<std::string>{"10.3.0.1"}, texts(lookup.result.addresses));
    Lookup rooted = lookUp((name + ".").c_str());
    EXPECT_TRUE(rooted.ok) << statusText(rooted.status);
}

TEST(GetHostByNameServer, SetServersRefusesTextThatIsNoServerList)
{
    ServersScope scope("127.0.0.1:5399");
    EXPECT_FALSE(resolver().setServers("not a server"));
    EXPECT_EQ("127.0.0.1:5399", resolver().getServers());
    resolver().resetServers();
    EXPECT_EQ("", resolver().getServers());
    EXPECT_TRUE(resolver().setServers("127.0.0.1:5398"));
    EXPECT_EQ("127.0.0.1:5398", resolver().getServers());
    EXPECT_TRUE(resolver().setServers(""));
    EXPECT_EQ("", resolver().getServers());
}

TEST(GetHostByNameServer, LookupObserverSeesHostAndTimeOutOfEveryLookup)
{
    fs_observed.clear();
    GetHostByNameServer::LookupObserver previous = resolver().setLookupObserver(&observeLookup);
    EXPECT_EQ(nullptr, previous);
    lookUp("192.0.2.9", 1500);
    lookUp(nullptr, 20);
    EXPECT_EQ(&observeLookup, resolver().setLookupObserver(nullptr));
    lookUp("192.0.2.10", 10);

    std::lock_guard<std::mutex> lock(fs_observedMutex);
    ASSERT_EQ(2u, fs_observed.size());
    EXPECT_EQ("192.0.2.9", fs_observed[0].first);
    EXPECT_EQ(1, fs_observed[0].second.sec());
    EXPECT_EQ(500000, fs_observed[0].second.usec());
    EXPECT_EQ("(null)", fs_observed[1].first);
}

TEST(GetHostByNameServer, ConcurrentLookupsFromManyThreadsEachGetTheirOwnAnswer)
{
    hvtest::TestDnsServer server;
    const int kThreads = 6;
    const int kRounds = 10;
    for (int t = 0; t < kThreads; ++t)
        server.add("t" + std::to_string(t) + ".hv.test", {"10.4.0." + std::to_string(t + 1)});
    ServersScope scope(server.serverList());

    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &right] {
            std::string name = "t" + std::to_string(t) + ".hv.test";
            std::string expected = "10.4.0." + std::to_string(t + 1);
            for (int i = 0; i < kRounds; ++i) {
                Hostent result;
                Hostent::GetHostByNameStatus status;
                if (resolver().getHostByName(name.c_str(), result, status, millis(5000)) &&
                    result.addresses.size() == 1 && textOf(result.addresses.front()) == expected)
                    right.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(kThreads * kRounds, right.load());
}

TEST(GetHostByNameServer, LooksUpWithoutTheProgramStartingTheNetworkLibrary)
{
    ASSERT_EQ(0, Velmora::Net::getInitializationCount());
    hvtest::TestDnsServer server;
    server.add("unstarted.hv.test", {"10.5.0.1"});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("unstarted.hv.test");
    ASSERT_TRUE(lookup.ok);
    EXPECT_EQ(std::vector<std::string>{"10.5.0.1"}, texts(lookup.result.addresses));
    // The look-up gives back what it started.
    EXPECT_EQ(0, Velmora::Net::getInitializationCount());
}

TEST(GetHostByNameServer, LeavesTheProgramsStartOfTheNetworkLibraryAsItWas)
{
    ASSERT_TRUE(Velmora::Net::initializeLibrary());
    hvtest::TestDnsServer server;
    server.add("started.hv.test", {"10.5.0.2"});
    ServersScope scope(server.serverList());

    Lookup lookup = lookUp("started.hv.test");
    EXPECT_TRUE(lookup.ok);
    EXPECT_EQ(1, Velmora::Net::getInitializationCount());
    Velmora::Net::closeLibrary();
    EXPECT_EQ(0, Velmora::Net::getInitializationCount());
}
