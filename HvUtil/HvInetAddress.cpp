#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvGhbnError.h>
#include <HvUtil/HvSocketError.h>
#include <HvUtil/HvStringBuffer.h>

#include <Velmora/GetHostByNameServer.h>
#include <Velmora/Hostent.h>
#include <Velmora/Logger.h>
#include <Velmora/TraceScope.h>

#include <ace/Time_Value.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

HvInetAddress::GetHostNameFunction HvInetAddress::sm_pfnGetHostName = nullptr;
HvInetAddress::GetHostByAddrFunction HvInetAddress::sm_pfnGetHostByAddr = nullptr;

namespace {

const char kSource[] = "HvInetAddress";

// Size of the buffer gethostname() writes into, and of the reverse look-up's
// work buffer.
const std::size_t kHostNameSize = 128;
const std::size_t kReverseBufferSize = 2048;

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvInetAddress");
    return instance;
}

void logDebug(const std::string& text, int line)
{
    logger().log(Velmora::Logger::DEBUG, text, kSource, line);
}

// Value of VELMORA_DISABLE_BUG588FIX, read once: deployments set it before
// start, and every address built afterwards must agree on it.
const std::string& bug588Switch()
{
    static const std::string value = [] {
        const char* text = std::getenv("VELMORA_DISABLE_BUG588FIX");
        return std::string(text != nullptr ? text : "");
    }();
    return value;
}

// Set while this thread resolves a local-host name through sGetLocalHost().
// A host that calls itself "localhost" would otherwise send the two into
// each other until the stack runs out.
thread_local bool fs_bResolvingLocalHost = false;

class LocalHostResolution {
public:
    LocalHostResolution() { fs_bResolvingLocalHost = true; }
    ~LocalHostResolution() { fs_bResolvingLocalHost = false; }
    LocalHostResolution(const LocalHostResolution&) = delete;
    LocalHostResolution& operator=(const LocalHostResolution&) = delete;
};

[[noreturn]] void throwLookupFailure(const char* host, Velmora::Hostent::GetHostByNameStatus status)
{
    std::string message = std::string("getHostByName failed on host ") + host;
    // The error number is 0 on purpose: the resolver's status says what went
    // wrong, errno does not.
    HvException::sThrow(new HvGhbnError(message.c_str(), 0, status));
}

int systemGetHostByAddr(const void* address, unsigned int length, int type, hostent* result, char* buffer,
                        std::size_t bufferLength, hostent** resultPointer, int* errorCode)
{
    return gethostbyaddr_r(address, length, type, result, buffer, bufferLength, resultPointer, errorCode);
}

} // namespace

HvInetAddress::HvInetAddress(const char* host, int timeoutMs) : m_Address(0)
{
    Velmora::TraceScope trace(logger(), "HvInetAddress ctor", kSource, __LINE__);
    // No text is no host: it goes to the resolver, which knows no such name.
    const char* text = host != nullptr ? host : "";

    bool localNames127 = !bug588Switch().empty();
    if (std::strcmp(text, "localhost") == 0 || (localNames127 && std::strcmp(text, "127.0.0.1") == 0)) {
        if (fs_bResolvingLocalHost)
            throwLookupFailure(text, Velmora::Hostent::GHBN_FAILURE);
        LocalHostResolution guard;
        m_Address = sGetLocalHost(timeoutMs).m_Address;
        return;
    }

    if (std::isdigit(static_cast<unsigned char>(text[0]))) {
        in_addr_t parsed = inet_addr(text);
        if (parsed != INADDR_NONE) {
            m_Address = parsed;
            return;
        }
    }

    Velmora::Hostent record;
    Velmora::Hostent::GetHostByNameStatus status = Velmora::Hostent::GHBN_FAILURE;
    ACE_Time_Value timeout(timeoutMs / 1000, (timeoutMs % 1000) * 1000);
    if (!Velmora::GetHostByNameServer::getInstance().getHostByName(text, record, status, timeout))
        throwLookupFailure(text, status);
    // A resolver that reports success must have an address; if it has none,
    // there is nothing to read.
    if (record.addresses.empty())
        throwLookupFailure(text, Velmora::Hostent::GHBN_NO_DATA);
    m_Address = record.addresses.front();
}

bool HvInetAddress::initFromAddress(const char* text)
{
    Velmora::TraceScope trace(logger(), "HvInetAddress::initFromAddress", kSource, __LINE__);
    // The field takes the parse result whatever it is; callers look at the
    // return value, and 255.255.255.255 is stored yet reported as no address.
    m_Address = text != nullptr ? inet_addr(text) : INADDR_NONE;
    return m_Address != INADDR_NONE;
}

const char* HvInetAddress::getHostAddress() const
{
    Velmora::TraceScope trace(logger(), "HvInetAddress::getHostAddress", kSource, __LINE__);
    sockaddr_in address;
    std::memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_port = 0;
    address.sin_addr.s_addr = m_Address;
    const char* text = inet_ntoa(address.sin_addr);
    if (text == nullptr)
        HvSocketError::sThrow("getHostAddress", 0);
    return text;
}

HvString HvInetAddress::getHostName() const
{
    Velmora::TraceScope trace(logger(), "HvInetAddress::getHostName", kSource, __LINE__);
    bool debug = logger().isEnabledFor(Velmora::Logger::DEBUG);
    if (debug)
        logDebug(std::string("getHostName() m_Address=") + getHostAddress(), __LINE__);

    hostent record;
    std::memset(&record, 0, sizeof record);
    char buffer[kReverseBufferSize];
    hostent* resultPointer = nullptr;
    int errorCode = 0;
    GetHostByAddrFunction reverse = sm_pfnGetHostByAddr != nullptr ? sm_pfnGetHostByAddr : &systemGetHostByAddr;
    reverse(&m_Address, sizeof m_Address, AF_INET, &record, buffer, sizeof buffer, &resultPointer, &errorCode);
    // The resolver's code alone decides success; a result without a record
    // or a name is taken as the failure it is rather than read. The text
    // names the constructor and spells the call "gethostbyaddress_r": log
    // readers search for it as it is.
    if (errorCode != 0 || resultPointer == nullptr || record.h_name == nullptr)
        HvSocketError::sThrow("HvInetAddress::HvInetAddress() - gethostbyaddress_r", 0);

    if (debug)
        logDebug(std::string("getHostName() h_name=") + record.h_name, __LINE__);
    return HvString(HvStringBuffer::sCreate(record.h_name, 0, 0));
}

bool HvInetAddress::isMulticastAddress() const
{
    Velmora::TraceScope trace(logger(), "HvInetAddress::isMulticastAddress", kSource, __LINE__);
    // Left unimplemented on purpose: no caller needs it, and a wrong answer
    // would be worse than none.
    HvException::sThrow("Not yet implemented");
}

HvInetAddress HvInetAddress::sGetLocalHost(int timeoutMs)
{
    Velmora::TraceScope trace(logger(), "HvInetAddress::sGetLocalHost", kSource, __LINE__);
    char name[kHostNameSize];
    int failed = sm_pfnGetHostName != nullptr ? sm_pfnGetHostName(name, sizeof name) : gethostname(name, sizeof name);
    if (failed != 0)
        HvSocketError::sThrow("gethostname", 0);
    // A name that fills the buffer comes back without its terminator.
    name[sizeof name - 1] = '\0';
    return HvInetAddress(name, timeoutMs);
}
