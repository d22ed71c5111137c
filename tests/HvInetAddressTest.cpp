#include <HvUtil/HvInetAddress.h>

#include <HvUtil/HvException.h>
#include <HvUtil/HvGhbnError.h>
#include <HvUtil/HvSocketError.h>

#include <Velmora/GetHostByNameServer.h>
#include <Velmora/Hostent.h>
#include <Velmora/LogCapture.h>

#include <tests/support/HvTestDnsServer.h>
#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Velmora::GetHostByNameServer;
using Velmora::Hostent;

namespace {

const char kSwitch[] = "VELMORA_DISABLE_BUG588FIX";

// The bug-588 switch is read once per process: the test program starts
// without it, whatever the calling shell has, and tests that need it set run
// in a child process of their own (see the death tests below).
class WithoutBug588Switch : public ::testing::Environment {
public:
    void SetUp() override { ::unsetenv(kSwitch); }
};
::testing::Environment* const fs_environment = ::testing::AddGlobalTestEnvironment(new WithoutBug588Switch);
::testing::Environment* const fs_scheduling = hvtest::useDefaultScheduling();

GetHostByNameServer& resolver()
{
    return GetHostByNameServer::getInstance();
}

unsigned int ip(const char* text)
{
    in_addr parsed;
    EXPECT_EQ(1, inet_pton(AF_INET, text, &parsed)) << text;
    return parsed.s_addr;
}

std::string textOf(unsigned int address)
{
    char buffer[INET_ADDRSTRLEN];
    in_addr value;
    value.s_addr = address;
    return inet_ntop(AF_INET, &value, buffer, sizeof buffer) ? buffer : "?";
}

// ------------------------------------------------------------ resolver calls seen

struct Observed {
    std::string host;
    long seconds;
    long micros;
};

std::mutex fs_observedMutex;
std::vector<Observed> fs_observed;

void observeLookup(const char* host, const ACE_Time_Value& timeout)
{
    std::lock_guard<std::mutex> lock(fs_observedMutex);
    fs_observed.push_back(Observed{host != nullptr ? host : "(null)", static_cast<long>(timeout.sec()),
                                   static_cast<long>(timeout.usec())});
}

std::vector<Observed> observed()
{
    std::lock_guard<std::mutex> lock(fs_observedMutex);
    return fs_observed;
}

std::vector<std::string> observedHosts()
{
    std::vector<std::string> hosts;
    for (const Observed& each : observed())
        hosts.push_back(each.host);
    return hosts;
}

// ------------------------------------------------------------ host name seams

std::string fs_hostName;
int fs_hostNameErrno = 0;
int fs_hostNameCalls = 0;
bool fs_hostNameUnterminated = false;

int fakeGetHostName(char* name, std::size_t length)
{
    ++fs_hostNameCalls;
    if (fs_hostNameErrno != 0) {
        errno = fs_hostNameErrno;
        return -1;
    }
    if (fs_hostNameUnterminated) {
        std::memset(name, 'a', length);
        return 0;
    }
    std::snprintf(name, length, "%s", fs_hostName.c_str());
    return 0;
}

struct ReverseCall {
    unsigned int address = 0;
    unsigned int length = 0;
    int type = 0;
    std::size_t bufferLength = 0;
};

ReverseCall fs_reverseCall;
int fs_reverseErrorCode = 0;
int fs_reverseErrno = 0;
int fs_reverseReturn = 0;
bool fs_reverseFillsRecord = true;
const char* fs_reverseName = "seam.hv.test";

int fakeGetHostByAddr(const void* address, unsigned int length, int type, hostent* result, char* buffer,
                      std::size_t bufferLength, hostent** resultPointer, int* errorCode)
{
    std::memcpy(&fs_reverseCall.address, address, sizeof fs_reverseCall.address);
    fs_reverseCall.length = length;
    fs_reverseCall.type = type;
    fs_reverseCall.bufferLength = bufferLength;
    if (fs_reverseFillsRecord) {
        std::snprintf(buffer, bufferLength, "%s", fs_reverseName);
        result->h_name = buffer;
        *resultPointer = result;
    } else {
        *resultPointer = nullptr;
    }
    *errorCode = fs_reverseErrorCode;
    errno = fs_reverseErrno;
    return fs_reverseReturn;
}

// Every test starts with the system calls, the system's DNS setting, no
// observer and no switch; the seams and servers a test sets are undone after it.
class HvInetAddressTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        {
            std::lock_guard<std::mutex> lock(fs_observedMutex);
            fs_observed.clear();
        }
        resolver().setLookupObserver(&observeLookup);
        fs_hostName = "self.hv.test";
        fs_hostNameErrno = 0;
        fs_hostNameCalls = 0;
        fs_hostNameUnterminated = false;
        fs_reverseCall = ReverseCall();
        fs_reverseErrorCode = 0;
        fs_reverseErrno = 0;
        fs_reverseReturn = 0;
        fs_reverseFillsRecord = true;
        fs_reverseName = "seam.hv.test";
    }
    void TearDown() override
    {
        HvInetAddress::sm_pfnGetHostName = nullptr;
        HvInetAddress::sm_pfnGetHostByAddr = nullptr;
        resolver().setLookupObserver(nullptr);
        resolver().resetServers();
    }

    // Makes the resolver ask `server` only.
    void use(const hvtest::TestDnsServer& server) { ASSERT_TRUE(resolver().setServers(server.serverList())); }
    // Makes gethostname() report `name`.
    void hostNamed(const std::string& name)
    {
        fs_hostName = name;
        HvInetAddress::sm_pfnGetHostName = &fakeGetHostName;
    }
};

// The HvGhbnError that `f` throws; fails the test when it throws none or another kind.
template <class F>
HvHandle<HvGhbnError> ghbnErrorOf(F f)
{
    HvHandle<HvException> thrown = hvtest::thrownBy(f);
    EXPECT_FALSE(thrown.isNull()) << "no exception";
    if (thrown.isNull())
        return HvHandle<HvGhbnError>();
    EXPECT_STREQ("HvGhbnError", thrown->getClassName());
    return HvHandle<HvGhbnError>(dynamic_cast<HvGhbnError*>(thrown.get()));
}

// The HvSocketError (and no subclass) that `f` throws.
template <class F>
HvHandle<HvSocketError> socketErrorOf(F f)
{
    HvHandle<HvException> thrown = hvtest::thrownBy(f);
    EXPECT_FALSE(thrown.isNull()) << "no exception";
    if (thrown.isNull())
        return HvHandle<HvSocketError>();
    EXPECT_STREQ("HvSocketError", thrown->getClassName());
    return HvHandle<HvSocketError>(dynamic_cast<HvSocketError*>(thrown.get()));
}

} // namespace

// ------------------------------------------------------------ value type

TEST_F(HvInetAddressTest, DefaultAddressIsZero)
{
    HvInetAddress address;
    EXPECT_EQ(0u, address.m_Address);
    EXPECT_EQ(0u, address.getAddress());
    EXPECT_STREQ("0.0.0.0", address.getHostAddress());
}

TEST_F(HvInetAddressTest, CopiesCarryTheFourBytesAndNothingElse)
{
    HvInetAddress address;
    address.setAddress(ip("10.6.7.8"));
    HvInetAddress copy = address;
    address.setAddress(0);
    EXPECT_EQ(ip("10.6.7.8"), copy.getAddress());
    EXPECT_EQ(sizeof(unsigned int), sizeof(HvInetAddress));
}

// ------------------------------------------------------------ dotted quads

TEST_F(HvInetAddressTest, DottedQuadIsTheAddressInNetworkOrderWithoutTheResolver)
{
    HvInetAddress address("10.1.2.3", 100);
    EXPECT_EQ(ip("10.1.2.3"), address.m_Address);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&address.m_Address);
    EXPECT_EQ(10, bytes[0]);
    EXPECT_EQ(3, bytes[3]);
    EXPECT_STREQ("10.1.2.3", address.getHostAddress());
    EXPECT_TRUE(observedHosts().empty());
}

TEST_F(HvInetAddressTest, LoopbackTextIsTheLoopbackAddressWhenTheSwitchIsUnset)
{
    hostNamed("10.20.30.40");
    HvInetAddress address("127.0.0.1", 100);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.m_Address);
    EXPECT_EQ(0, fs_hostNameCalls);
    EXPECT_TRUE(observedHosts().empty());
}

TEST_F(HvInetAddressTest, BroadcastTextIsHandedToTheResolverAsAName)
{
    HvInetAddress address("255.255.255.255", 100);
    EXPECT_EQ(std::vector<std::string>{"255.255.255.255"}, observedHosts());
    // The resolver reads it as the numeric address it is.
    EXPECT_EQ(0xFFFFFFFFu, address.m_Address);
}

TEST_F(HvInetAddressTest, TextStartingWithADigitButNoQuadIsHandedToTheResolver)
{
    hvtest::TestDnsServer server;
    server.add("1host", {"10.5.5.5"});
    use(server);

    HvInetAddress address("1host", 2000);
    EXPECT_EQ(ip("10.5.5.5"), address.m_Address);
    EXPECT_EQ(std::vector<std::string>{"1host"}, observedHosts());
    EXPECT_EQ(std::vector<std::string>{"1host"}, server.askedNames());
}

TEST_F(HvInetAddressTest, NameResolvesThroughTheResolver)
{
    hvtest::TestDnsServer server;
    server.add("proxy.hv.test", {"10.7.0.1"});
    use(server);

    HvInetAddress address("proxy.hv.test", 2000);
    EXPECT_EQ(ip("10.7.0.1"), address.getAddress());
    EXPECT_STREQ("10.7.0.1", address.getHostAddress());
}

TEST_F(HvInetAddressTest, NameWithSeveralAddressesYieldsTheFirst)
{
    hvtest::TestDnsServer server;
    server.add("many.hv.test", {"10.1.2.7", "10.1.2.3", "10.1.2.5"});
    use(server);

    HvInetAddress address("many.hv.test", 2000);
    EXPECT_EQ(ip("10.1.2.7"), address.m_Address);
}

// ------------------------------------------------------------ time-out

TEST_F(HvInetAddressTest, TimeOutIsSplitIntoSecondsAndMicrosecondsAndNormalised)
{
    hvtest::TestDnsServer server;
    use(server);
    struct Case {
        int timeoutMs;
        long seconds;
        long micros;
    };
    const Case cases[] = {{1500, 1, 500000}, {-1500, -1, -500000}, {-1, 0, -1000},
                          {999, 0, 999000},  {0, 0, 0},            {2000, 2, 0}};
    for (const Case& c : cases) {
        {
            std::lock_guard<std::mutex> lock(fs_observedMutex);
            fs_observed.clear();
        }
        hvtest::thrownBy([&] { HvInetAddress("split.hv.test", c.timeoutMs); });
        std::vector<Observed> seen = observed();
        ASSERT_EQ(1u, seen.size()) << c.timeoutMs;
        EXPECT_EQ(c.seconds, seen[0].seconds) << c.timeoutMs;
        EXPECT_EQ(c.micros, seen[0].micros) << c.timeoutMs;
    }
}

TEST_F(HvInetAddressTest, NegativeTimeOutLeavesTheResolverNoTimeToAsk)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    use(server);
    for (int timeoutMs : {-1500, -1, 0}) {
        HvHandle<HvGhbnError> error = ghbnErrorOf([&] { HvInetAddress("late.hv.test", timeoutMs); });
        ASSERT_FALSE(error.isNull());
        EXPECT_EQ(Hostent::GHBN_TIMEOUT, error->getStatus()) << timeoutMs;
        EXPECT_STREQ("getHostByName failed on host late.hv.test", error->getMessage().c_str());
    }
    // Quads need no time at all.
    EXPECT_EQ(ip("192.0.2.2"), HvInetAddress("192.0.2.2", -1500).m_Address);
}

TEST_F(HvInetAddressTest, SilentServerFailsWithTimeoutAfterTheGivenTime)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    use(server);

    auto start = std::chrono::steady_clock::now();
    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress("slow.hv.test", 300); });
    auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    ASSERT_FALSE(error.isNull());
    EXPECT_EQ(Hostent::GHBN_TIMEOUT, error->getStatus());
    EXPECT_STREQ("getHostByName failed on host slow.hv.test", error->getMessage().c_str());
    EXPECT_EQ(": getHostByName failed on host slow.hv.test (look-up timed out)", hvtest::displayOf(*error));
    EXPECT_GE(elapsed, 250);
    EXPECT_LT(elapsed, 2000);
    EXPECT_GE(server.queryCount(), 1);
}

// ------------------------------------------------------------ failed look-ups

TEST_F(HvInetAddressTest, UnknownNameThrowsGhbnErrorWithErrorNumberZeroAndTheStatus)
{
    hvtest::TestDnsServer server;
    use(server);

    errno = EACCES;
    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress("nosuch.hv.test", 2000); });
    ASSERT_FALSE(error.isNull());
    EXPECT_STREQ("getHostByName failed on host nosuch.hv.test", error->getMessage().c_str());
    EXPECT_EQ(0, error->getErrorNumber());
    EXPECT_EQ(Hostent::GHBN_HOST_NOT_FOUND, error->getStatus());
    EXPECT_EQ(": getHostByName failed on host nosuch.hv.test (host not found)", hvtest::displayOf(*error));
}

TEST_F(HvInetAddressTest, ServerFailureKeepsTheResolversStatus)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SERVFAIL);
    use(server);

    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress("broken.hv.test", 2000); });
    ASSERT_FALSE(error.isNull());
    EXPECT_EQ(Hostent::GHBN_TRY_AGAIN, error->getStatus());
    EXPECT_EQ(": getHostByName failed on host broken.hv.test (temporary failure, try again)",
              hvtest::displayOf(*error));
}

TEST_F(HvInetAddressTest, NameWithoutAddressKeepsNoDataStatus)
{
    hvtest::TestDnsServer server;
    server.add("bare.hv.test", {});
    use(server);

    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress("bare.hv.test", 2000); });
    ASSERT_FALSE(error.isNull());
    EXPECT_EQ(Hostent::GHBN_NO_DATA, error->getStatus());
    EXPECT_EQ(": getHostByName failed on host bare.hv.test (no address for host)", hvtest::displayOf(*error));
}

TEST_F(HvInetAddressTest, EmptyTooLongAndMissingTextsFailAsHostsNotFound)
{
    hvtest::TestDnsServer server(hvtest::TestDnsServer::SILENT);
    use(server);
    hvtest::LeakCheck strings("HvStringBuffer");

    std::string tooLong(300, 'x');
    std::string longLabel = std::string(64, 'y') + ".hv.test";
    for (const std::string& host : {std::string(), tooLong, longLabel}) {
        HvHandle<HvGhbnError> error = ghbnErrorOf([&] { HvInetAddress(host.c_str(), 300); });
        ASSERT_FALSE(error.isNull());
        EXPECT_EQ("getHostByName failed on host " + host, error->getMessage().c_str());
        EXPECT_EQ(Hostent::GHBN_HOST_NOT_FOUND, error->getStatus());
    }
    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress(nullptr, 300); });
    ASSERT_FALSE(error.isNull());
    EXPECT_STREQ("getHostByName failed on host ", error->getMessage().c_str());
    EXPECT_EQ(Hostent::GHBN_HOST_NOT_FOUND, error->getStatus());
    EXPECT_EQ(0, server.queryCount());
}

// ------------------------------------------------------------ the local host

TEST_F(HvInetAddressTest, LocalhostIsTheHostsOwnAddressThroughGethostnameAndALookup)
{
    hvtest::TestDnsServer server;
    server.add("self.hv.test", {"10.9.8.7"});
    use(server);
    hostNamed("self.hv.test");

    HvInetAddress address("localhost", 2000);
    EXPECT_EQ(ip("10.9.8.7"), address.m_Address);
    EXPECT_NE(htonl(INADDR_LOOPBACK), address.m_Address);
    EXPECT_EQ(1, fs_hostNameCalls);
    // "localhost" itself never reaches the resolver; the host's name does,
    // with the same time-out.
    std::vector<Observed> seen = observed();
    ASSERT_EQ(1u, seen.size());
    EXPECT_EQ("self.hv.test", seen[0].host);
    EXPECT_EQ(2, seen[0].seconds);
}

TEST_F(HvInetAddressTest, GetLocalHostResolvesTheHostsName)
{
    hvtest::TestDnsServer server;
    server.add("self.hv.test", {"10.9.8.6"});
    use(server);
    hostNamed("self.hv.test");

    EXPECT_EQ(ip("10.9.8.6"), HvInetAddress::sGetLocalHost(2000).m_Address);
    EXPECT_EQ(std::vector<std::string>{"self.hv.test"}, observedHosts());
}

TEST_F(HvInetAddressTest, LocalhostWithTheMachinesRealNameMatchesALookupOfThatName)
{
    char name[128] = {0};
    ASSERT_EQ(0, gethostname(name, sizeof name - 1));
    // Only the hosts file may answer: the DNS server knows no name.
    hvtest::TestDnsServer server;
    use(server);

    Hostent expected;
    Hostent::GetHostByNameStatus status = Hostent::GHBN_FAILURE;
    bool known = resolver().getHostByName(name, expected, status, ACE_Time_Value(2));
    bool isQuad = std::isdigit(static_cast<unsigned char>(name[0])) && inet_addr(name) != INADDR_NONE;
    if (isQuad) {
        EXPECT_EQ(inet_addr(name), HvInetAddress("localhost", 2000).m_Address);
    } else if (known) {
        EXPECT_EQ(textOf(expected.addresses.front()), textOf(HvInetAddress("localhost", 2000).m_Address));
        EXPECT_EQ(textOf(expected.addresses.front()), textOf(HvInetAddress::sGetLocalHost(2000).m_Address));
    } else {
        HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress("localhost", 2000); });
        ASSERT_FALSE(error.isNull());
        EXPECT_EQ(std::string("getHostByName failed on host ") + name, error->getMessage().c_str());
        EXPECT_EQ(status, error->getStatus());
    }
}

TEST_F(HvInetAddressTest, LocalhostInOtherCaseIsNotSpecialAndGoesToTheResolver)
{
    hvtest::TestDnsServer server;
    server.add("self.hv.test", {"10.9.8.7"});
    use(server);
    hostNamed("self.hv.test");

    HvInetAddress address("LocalHost", 2000);
    EXPECT_EQ(0, fs_hostNameCalls);
    EXPECT_EQ(std::vector<std::string>{"LocalHost"}, observedHosts());
    // Whatever the resolver makes of it, not the host's own address.
    Hostent direct;
    Hostent::GetHostByNameStatus status;
    ASSERT_TRUE(resolver().getHostByName("LocalHost", direct, status, ACE_Time_Value(2)));
    EXPECT_EQ(direct.addresses.front(), address.m_Address);
    EXPECT_NE(ip("10.9.8.7"), address.m_Address);
}

TEST_F(HvInetAddressTest, GethostnameFailureIsSocketErrorWithErrno)
{
    HvInetAddress::sm_pfnGetHostName = &fakeGetHostName;
    fs_hostNameErrno = ENAMETOOLONG;

    HvHandle<HvSocketError> direct = socketErrorOf([] { HvInetAddress::sGetLocalHost(100); });
    ASSERT_FALSE(direct.isNull());
    EXPECT_STREQ("gethostname", direct->getMessage().c_str());
    EXPECT_EQ(ENAMETOOLONG, direct->getErrorNumber());

    HvHandle<HvSocketError> viaName = socketErrorOf([] { HvInetAddress("localhost", 100); });
    ASSERT_FALSE(viaName.isNull());
    EXPECT_STREQ("gethostname", viaName->getMessage().c_str());
    EXPECT_EQ(ENAMETOOLONG, viaName->getErrorNumber());
    EXPECT_EQ(std::string("gethostname: ") + std::strerror(ENAMETOOLONG) + " (" + std::to_string(ENAMETOOLONG) + ")",
              hvtest::displayOf(*viaName));
    EXPECT_TRUE(observedHosts().empty());
}

TEST_F(HvInetAddressTest, HostNameThatFillsTheBufferIsCutAtItsEnd)
{
    HvInetAddress::sm_pfnGetHostName = &fakeGetHostName;
    fs_hostNameUnterminated = true;

    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress::sGetLocalHost(100); });
    ASSERT_FALSE(error.isNull());
    EXPECT_EQ("getHostByName failed on host " + std::string(127, 'a'), error->getMessage().c_str());
    EXPECT_EQ(std::vector<std::string>{std::string(127, 'a')}, observedHosts());
}

TEST_F(HvInetAddressTest, HostCalledLocalhostFailsInsteadOfResolvingItselfForever)
{
    hostNamed("localhost");

    HvHandle<HvGhbnError> error = ghbnErrorOf([] { HvInetAddress("localhost", 100); });
    ASSERT_FALSE(error.isNull());
    EXPECT_STREQ("getHostByName failed on host localhost", error->getMessage().c_str());
    EXPECT_EQ(Hostent::GHBN_FAILURE, error->getStatus());
    EXPECT_EQ(0, error->getErrorNumber());
    EXPECT_EQ(": getHostByName failed on host localhost (look-up failed)", hvtest::displayOf(*error));
    EXPECT_EQ(1, fs_hostNameCalls);

    HvHandle<HvGhbnError> direct = ghbnErrorOf([] { HvInetAddress::sGetLocalHost(100); });
    ASSERT_FALSE(direct.isNull());
    EXPECT_STREQ("getHostByName failed on host localhost", direct->getMessage().c_str());
    EXPECT_EQ(3, fs_hostNameCalls);
    EXPECT_TRUE(observedHosts().empty());

    // Nothing is left behind: a host with a proper name resolves again.
    hostNamed("10.20.30.40");
    EXPECT_EQ(ip("10.20.30.40"), HvInetAddress("localhost", 100).m_Address);
}

// ------------------------------------------------------------ the bug-588 switch

// Each of these runs in a fresh process, which sets the switch before the
// library first reads it, and reports the address it got on stderr.
class HvInetAddressSwitchTest : public HvInetAddressTest {
protected:
    void SetUp() override
    {
        HvInetAddressTest::SetUp();
        ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    }
};

namespace {

// Resolves `host` in this process with the switch set to `value` (null
// unsets it) and gethostname() saying `hostName`; prints the outcome and exits.
[[noreturn]] void resolveWithSwitch(const char* value, const char* hostName, const char* host)
{
    if (value != nullptr)
        ::setenv(kSwitch, value, 1);
    else
        ::unsetenv(kSwitch);
    fs_hostName = hostName;
    HvInetAddress::sm_pfnGetHostName = &fakeGetHostName;
    HvHandle<HvException> thrown = hvtest::thrownBy([&] {
        HvInetAddress address(host, 100);
        std::fprintf(stderr, "address=%s gethostname=%d\n", address.getHostAddress(), fs_hostNameCalls);
    });
    if (!thrown.isNull())
        std::fprintf(stderr, "thrown=%s%s\n", thrown->getClassName(), hvtest::displayOf(*thrown).c_str());
    std::fflush(stderr);
    std::_Exit(0);
}

} // namespace

TEST_F(HvInetAddressSwitchTest, SwitchOnMakesLoopbackTextTheHostsOwnAddress)
{
    EXPECT_EXIT(resolveWithSwitch("1", "10.20.30.40", "127.0.0.1"), ::testing::ExitedWithCode(0),
                "address=10\\.20\\.30\\.40 gethostname=1");
}

TEST_F(HvInetAddressSwitchTest, AnyNonEmptyValueTurnsTheSwitchOn)
{
    EXPECT_EXIT(resolveWithSwitch("0", "10.20.30.41", "127.0.0.1"), ::testing::ExitedWithCode(0),
                "address=10\\.20\\.30\\.41 gethostname=1");
    EXPECT_EXIT(resolveWithSwitch("no", "10.20.30.42", "127.0.0.1"), ::testing::ExitedWithCode(0),
                "address=10\\.20\\.30\\.42 gethostname=1");
}

TEST_F(HvInetAddressSwitchTest, SwitchOnStillMakesLocalhostTheHostsOwnAddress)
{
    EXPECT_EXIT(resolveWithSwitch("1", "10.20.30.43", "localhost"), ::testing::ExitedWithCode(0),
                "address=10\\.20\\.30\\.43 gethostname=1");
}

TEST_F(HvInetAddressSwitchTest, EmptySwitchCountsAsUnset)
{
    EXPECT_EXIT(resolveWithSwitch("", "10.20.30.44", "127.0.0.1"), ::testing::ExitedWithCode(0),
                "address=127\\.0\\.0\\.1 gethostname=0");
    EXPECT_EXIT(resolveWithSwitch(nullptr, "10.20.30.44", "127.0.0.1"), ::testing::ExitedWithCode(0),
                "address=127\\.0\\.0\\.1 gethostname=0");
}

TEST_F(HvInetAddressSwitchTest, SwitchOnWithHostCalledLoopbackFailsInsteadOfLoopingForever)
{
    EXPECT_EXIT(resolveWithSwitch("1", "127.0.0.1", "127.0.0.1"), ::testing::ExitedWithCode(0),
                "thrown=HvGhbnError: getHostByName failed on host 127\\.0\\.0\\.1 \\(look-up failed\\)");
}

TEST_F(HvInetAddressSwitchTest, SwitchIsReadOnceAtFirstNeed)
{
    EXPECT_EXIT(
        {
            ::unsetenv(kSwitch);
            fs_hostName = "10.20.30.45";
            HvInetAddress::sm_pfnGetHostName = &fakeGetHostName;
            HvInetAddress before("127.0.0.1", 100);
            ::setenv(kSwitch, "1", 1);
            HvInetAddress after("127.0.0.1", 100);
            std::fprintf(stderr, "before=%08x after=%08x\n", before.m_Address, after.m_Address);
            std::fflush(stderr);
            std::_Exit(0);
        },
        ::testing::ExitedWithCode(0), "before=0100007f after=0100007f");
}

// ------------------------------------------------------------ initFromAddress

TEST_F(HvInetAddressTest, InitFromAddressStoresAQuadAndSaysSo)
{
    HvInetAddress address;
    EXPECT_TRUE(address.initFromAddress("10.11.12.13"));
    EXPECT_EQ(ip("10.11.12.13"), address.m_Address);
    EXPECT_TRUE(address.initFromAddress("0.0.0.0"));
    EXPECT_EQ(0u, address.m_Address);
}

TEST_F(HvInetAddressTest, InitFromAddressStoresBroadcastButReportsNoAddress)
{
    HvInetAddress address;
    EXPECT_FALSE(address.initFromAddress("255.255.255.255"));
    EXPECT_EQ(0xFFFFFFFFu, address.m_Address);
}

TEST_F(HvInetAddressTest, InitFromAddressStoresTheFailureValueForBadText)
{
    HvInetAddress address;
    address.setAddress(ip("10.0.0.1"));
    EXPECT_FALSE(address.initFromAddress("proxy.hv.test"));
    EXPECT_EQ(0xFFFFFFFFu, address.m_Address);
    address.setAddress(ip("10.0.0.1"));
    EXPECT_FALSE(address.initFromAddress(nullptr));
    EXPECT_EQ(0xFFFFFFFFu, address.m_Address);
    EXPECT_TRUE(observedHosts().empty());
}

// ------------------------------------------------------------ text and names

TEST_F(HvInetAddressTest, HostAddressIsTheDottedQuadInTheSystemsSharedBuffer)
{
    HvInetAddress first("192.0.2.33", 100);
    HvInetAddress second("198.51.100.7", 100);
    const char* one = first.getHostAddress();
    EXPECT_STREQ("192.0.2.33", one);
    const char* two = second.getHostAddress();
    EXPECT_STREQ("198.51.100.7", two);
    // Same buffer: the first text is gone.
    EXPECT_EQ(one, two);
    EXPECT_STREQ("198.51.100.7", one);
    HvInetAddress broadcast;
    broadcast.setAddress(0xFFFFFFFFu);
    EXPECT_STREQ("255.255.255.255", broadcast.getHostAddress());
}

TEST_F(HvInetAddressTest, HostNameOfLoopbackIsWhatTheSystemsReverseLookupSays)
{
    hvtest::LeakCheck strings("HvStringBuffer");
    HvInetAddress loopback("127.0.0.1", 100);

    sockaddr_in socketAddress;
    std::memset(&socketAddress, 0, sizeof socketAddress);
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_addr.s_addr = loopback.m_Address;
    char expected[NI_MAXHOST];
    ASSERT_EQ(0, getnameinfo(reinterpret_cast<sockaddr*>(&socketAddress), sizeof socketAddress, expected,
                             sizeof expected, nullptr, 0, NI_NAMEREQD));
    HvString name = loopback.getHostName();
    EXPECT_STREQ(expected, name.c_str());
}

TEST_F(HvInetAddressTest, HostNameLogsAddressAndNameAtDebugLevel)
{
    Velmora::LogCapture capture("ferrowind.hv.HvInetAddress");
    HvInetAddress::sm_pfnGetHostByAddr = &fakeGetHostByAddr;
    HvInetAddress address("10.1.1.1", 100);

    EXPECT_STREQ("seam.hv.test", address.getHostName().c_str());
    EXPECT_TRUE(capture.contains("getHostName() m_Address=10.1.1.1"));
    EXPECT_TRUE(capture.contains("getHostName() h_name=seam.hv.test"));
}

TEST_F(HvInetAddressTest, HostNameAsksForTheFourBytesAsAnIPv4Address)
{
    HvInetAddress::sm_pfnGetHostByAddr = &fakeGetHostByAddr;
    HvInetAddress address("10.2.3.4", 100);
    address.getHostName();
    EXPECT_EQ(ip("10.2.3.4"), fs_reverseCall.address);
    EXPECT_EQ(4u, fs_reverseCall.length);
    EXPECT_EQ(AF_INET, fs_reverseCall.type);
    EXPECT_EQ(2048u, fs_reverseCall.bufferLength);
}

TEST_F(HvInetAddressTest, ReverseLookupFailureIsSocketErrorWithErrnoNotTheResolverCode)
{
    HvInetAddress::sm_pfnGetHostByAddr = &fakeGetHostByAddr;
    fs_reverseErrorCode = HOST_NOT_FOUND;
    fs_reverseErrno = EHOSTUNREACH;
    fs_reverseReturn = ENOENT;
    fs_reverseFillsRecord = false;

    HvInetAddress address("10.2.3.5", 100);
    HvHandle<HvSocketError> error = socketErrorOf([&] { address.getHostName(); });
    ASSERT_FALSE(error.isNull());
    EXPECT_STREQ("HvInetAddress::HvInetAddress() - gethostbyaddress_r", error->getMessage().c_str());
    EXPECT_EQ(EHOSTUNREACH, error->getErrorNumber());
}

TEST_F(HvInetAddressTest, ReverseLookupSuccessIsJudgedByTheResolverCodeAlone)
{
    HvInetAddress::sm_pfnGetHostByAddr = &fakeGetHostByAddr;
    fs_reverseReturn = ERANGE;
    fs_reverseName = "judged.hv.test";
    EXPECT_STREQ("judged.hv.test", HvInetAddress("10.2.3.6", 100).getHostName().c_str());

    // A record that came back filled is still a failure when the code says so.
    fs_reverseReturn = 0;
    fs_reverseErrorCode = TRY_AGAIN;
    HvHandle<HvSocketError> error = socketErrorOf([] { HvInetAddress("10.2.3.6", 100).getHostName(); });
    ASSERT_FALSE(error.isNull());
    EXPECT_STREQ("HvInetAddress::HvInetAddress() - gethostbyaddress_r", error->getMessage().c_str());
}

TEST_F(HvInetAddressTest, ReverseLookupWithoutARecordFailsRatherThanReadingOne)
{
    HvInetAddress::sm_pfnGetHostByAddr = &fakeGetHostByAddr;
    fs_reverseFillsRecord = false;
    fs_reverseErrno = EINVAL;

    HvHandle<HvSocketError> error = socketErrorOf([] { HvInetAddress("10.2.3.7", 100).getHostName(); });
    ASSERT_FALSE(error.isNull());
    EXPECT_STREQ("HvInetAddress::HvInetAddress() - gethostbyaddress_r", error->getMessage().c_str());
    EXPECT_EQ(EINVAL, error->getErrorNumber());
}

TEST_F(HvInetAddressTest, MulticastTestIsNotImplemented)
{
    HvInetAddress address("224.0.0.1", 100);
    hvtest::expectPlainHvException([&] { address.isMulticastAddress(); }, "Not yet implemented");
    HvInetAddress unicast("10.0.0.1", 100);
    hvtest::expectPlainHvException([&] { unicast.isMulticastAddress(); }, "Not yet implemented");
}

// ------------------------------------------------------------ trace scopes

TEST_F(HvInetAddressTest, EveryOperationOpensATraceScopeWithItsName)
{
    Velmora::LogCapture capture("ferrowind.hv.HvInetAddress");
    HvInetAddress::sm_pfnGetHostByAddr = &fakeGetHostByAddr;
    hostNamed("10.20.30.40");

    HvInetAddress address("10.0.0.9", 100);
    address.initFromAddress("10.0.0.8");
    address.getHostAddress();
    address.getHostName();
    hvtest::thrownBy([&] { address.isMulticastAddress(); });
    HvInetAddress::sGetLocalHost(100);

    for (const char* name : {"HvInetAddress ctor", "HvInetAddress::initFromAddress", "HvInetAddress::getHostAddress",
                             "HvInetAddress::getHostName", "HvInetAddress::isMulticastAddress",
                             "HvInetAddress::sGetLocalHost"}) {
        EXPECT_TRUE(capture.contains(std::string("ENTER: ") + name)) << name;
        EXPECT_TRUE(capture.contains(std::string("EXIT:  ") + name)) << name;
    }
}

TEST_F(HvInetAddressTest, DefaultConstructorTracesNothing)
{
    Velmora::LogCapture capture("ferrowind.hv.HvInetAddress");
    HvInetAddress address;
    EXPECT_TRUE(capture.messages().empty());
    EXPECT_EQ(0u, address.m_Address);
}

// ------------------------------------------------------------ threads

TEST_F(HvInetAddressTest, ThreadsResolveAndReverseLookUpConcurrently)
{
    hvtest::TestDnsServer server;
    const int kThreads = 4;
    for (int t = 0; t < kThreads; ++t)
        server.add("c" + std::to_string(t) + ".hv.test", {"10.8.0." + std::to_string(t + 1)});
    use(server);

    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &right] {
            std::string name = "c" + std::to_string(t) + ".hv.test";
            for (int i = 0; i < 5; ++i) {
                HvHandle<HvException> failure = hvtest::thrownBy([&] {
                    HvInetAddress address(name.c_str(), 5000);
                    HvInetAddress loopback("127.0.0.1", 100);
                    if (address.m_Address == ip(("10.8.0." + std::to_string(t + 1)).c_str()) &&
                        loopback.getHostName().length() > 0)
                        right.fetch_add(1);
                });
                EXPECT_TRUE(failure.isNull());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(kThreads * 5, right.load());
}
