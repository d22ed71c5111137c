#include <Velmora/GetHostByNameServer.h>
#include <Velmora/Logger.h>
#include <Velmora/Net.h>

#include <ares.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <string>

namespace Velmora {

namespace {

const char kSource[] = "GetHostByNameServer.cpp";

// Longest name the DNS can carry (without the trailing dot) and its longest
// label; anything longer cannot name a host, so it is refused before any
// file is read or any packet sent.
const std::size_t kMaxNameLength = 253;
const std::size_t kMaxLabelLength = 63;

// Time-outs beyond a year are taken as a year: the deadline arithmetic must
// not overflow, and nobody waits that long for an answer.
const long long kMaxTimeoutMs = 365LL * 24 * 3600 * 1000;

// The DNS step retries within the caller's time-out rather than c-ares'
// default of several 5-second rounds: the first try gets a third of it (at
// most 5 s), the following tries double that, as c-ares backs off.
const long long kMaxTryMs = 5000;
const int kMaxTries = 8;

using Clock = std::chrono::steady_clock;

AceCleanupLogger& logger()
{
    static AceCleanupLogger& instance = infrastructureLogger("GetHostByNameServer");
    return instance;
}

void logDebug(const std::string& text, int line)
{
    if (logger().isEnabledFor(Logger::DEBUG))
        logger().log(Logger::DEBUG, text, kSource, line);
}

bool isHostNameShaped(const char* host)
{
    if (host == nullptr)
        return false;
    std::size_t length = strnlen(host, kMaxNameLength + 2);
    if (length > 0 && host[length - 1] == '.')
        --length;
    if (length == 0 || length > kMaxNameLength)
        return false;
    std::size_t label = 0;
    for (std::size_t i = 0; i < length; ++i) {
        if (host[i] == '.')
            label = 0;
        else if (++label > kMaxLabelLength)
            return false;
    }
    return true;
}

// RFC 6761: "localhost" is the loopback host even where no file says so.
bool isLocalhost(const char* host)
{
    return strcasecmp(host, "localhost") == 0 || strcasecmp(host, "localhost.") == 0;
}

void fill(Hostent& result, const hostent* entry)
{
    result.officialName = entry->h_name != nullptr ? entry->h_name : "";
    result.addresses.clear();
    if (entry->h_addrtype != AF_INET || entry->h_length != 4 || entry->h_addr_list == nullptr)
        return;
    for (char** address = entry->h_addr_list; *address != nullptr; ++address) {
        unsigned int value;
        std::memcpy(&value, *address, sizeof value);
        result.addresses.push_back(value);
    }
}

Hostent::GetHostByNameStatus statusOf(int aresStatus)
{
    switch (aresStatus) {
    case ARES_SUCCESS:
        return Hostent::GHBN_SUCCESS;
    case ARES_ENOTFOUND:
    case ARES_EBADNAME:
        return Hostent::GHBN_HOST_NOT_FOUND;
    case ARES_ENODATA:
        return Hostent::GHBN_NO_DATA;
    case ARES_ETIMEOUT:
        return Hostent::GHBN_TIMEOUT;
    case ARES_ESERVFAIL:
    case ARES_EREFUSED:
    case ARES_ECONNREFUSED:
        return Hostent::GHBN_TRY_AGAIN;
    default:
        return Hostent::GHBN_FAILURE;
    }
}

// Holds the network library started while it exists.
class LibraryHold {
public:
    LibraryHold() : m_started(Net::initializeLibrary()) {}
    ~LibraryHold()
    {
        if (m_started)
            Net::closeLibrary();
    }
    LibraryHold(const LibraryHold&) = delete;
    LibraryHold& operator=(const LibraryHold&) = delete;
    bool started() const { return m_started; }

private:
    bool m_started;
};

// A channel of one look-up. A channel may not be shared between threads
// without a lock, and one per look-up needs none.
class Channel {
public:
    Channel() = default;
    ~Channel()
    {
        if (m_channel != nullptr)
            ares_destroy(m_channel);
    }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // ARES_SUCCESS or the c-ares failure.
    int open(const std::string& servers, long long timeoutMs)
    {
        long long firstTry = timeoutMs / 3;
        if (firstTry < 1)
            firstTry = 1;
        if (firstTry > kMaxTryMs)
            firstTry = kMaxTryMs;
        int tries = 1;
        long long covered = firstTry;
        long long step = firstTry;
        while (covered < timeoutMs && tries < kMaxTries) {
            step *= 2;
            covered += step;
            ++tries;
        }

        ares_options options;
        std::memset(&options, 0, sizeof options);
        // The hosts file has been read by then; the channel only asks the DNS.
        char lookups[] = "b";
        options.lookups = lookups;
        options.timeout = static_cast<int>(firstTry);
        options.tries = tries;
        int mask = ARES_OPT_LOOKUPS | ARES_OPT_TIMEOUTMS | ARES_OPT_TRIES;
        if (!servers.empty()) {
            // Test servers answer the name as given, not with the machine's
            // search domains appended.
            options.domains = nullptr;
            options.ndomains = 0;
            mask |= ARES_OPT_DOMAINS;
        }
        int status = ares_init_options(&m_channel, &options, mask);
        if (status != ARES_SUCCESS) {
            m_channel = nullptr;
            return status;
        }
        if (!servers.empty())
            status = ares_set_servers_ports_csv(m_channel, servers.c_str());
        return status;
    }

    ares_channel get() const { return m_channel; }

private:
    ares_channel m_channel = nullptr;
};

struct Pending {
    Hostent* result;
    bool done = false;
    int status = ARES_SUCCESS;
};

void onHost(void* argument, int status, int /*timeouts*/, hostent* entry)
{
    Pending* pending = static_cast<Pending*>(argument);
    pending->done = true;
    pending->status = status;
    if (status == ARES_SUCCESS && entry != nullptr)
        fill(*pending->result, entry);
}

// Waits for the channel's sockets or its next retry, never past `left`, and
// lets c-ares handle what happened. poll() rather than select(): descriptors
// above FD_SETSIZE are common in a process full of sockets. Returns 0, or
// the errno of a wait that failed.
int waitAndProcess(ares_channel channel, Clock::duration left)
{
    ares_socket_t sockets[ARES_GETSOCK_MAXNUM];
    int bits = ares_getsock(channel, sockets, ARES_GETSOCK_MAXNUM);
    pollfd fds[ARES_GETSOCK_MAXNUM];
    nfds_t count = 0;
    for (int i = 0; i < ARES_GETSOCK_MAXNUM; ++i) {
        short events = 0;
        if (ARES_GETSOCK_READABLE(bits, i))
            events |= POLLIN;
        if (ARES_GETSOCK_WRITABLE(bits, i))
            events |= POLLOUT;
        if (events != 0) {
            fds[count].fd = sockets[i];
            fds[count].events = events;
            fds[count].revents = 0;
            ++count;
        }
    }

    long long leftUs = std::chrono::duration_cast<std::chrono::microseconds>(left).count();
    timeval limit;
    limit.tv_sec = static_cast<time_t>(leftUs / 1000000);
    limit.tv_usec = static_cast<suseconds_t>(leftUs % 1000000);
    timeval next;
    timeval* wait = ares_timeout(channel, &limit, &next);
    // Rounded up: waking a little early would only spin until the time came.
    long long waitMs = (static_cast<long long>(wait->tv_sec) * 1000000 + wait->tv_usec + 999) / 1000;
    if (waitMs > INT_MAX)
        waitMs = INT_MAX;

    int ready = poll(fds, count, static_cast<int>(waitMs));
    if (ready < 0)
        return errno == EINTR ? 0 : errno;
    if (ready == 0) {
        // Nothing arrived: c-ares resends or gives up on what is due.
        ares_process_fd(channel, ARES_SOCKET_BAD, ARES_SOCKET_BAD);
        return 0;
    }
    for (nfds_t i = 0; i < count; ++i) {
        ares_socket_t readable = (fds[i].revents & (POLLIN | POLLERR | POLLHUP)) ? fds[i].fd : ARES_SOCKET_BAD;
        ares_socket_t writable = (fds[i].revents & POLLOUT) ? fds[i].fd : ARES_SOCKET_BAD;
        if (readable != ARES_SOCKET_BAD || writable != ARES_SOCKET_BAD)
            ares_process_fd(channel, readable, writable);
    }
    return 0;
}

long long timeoutMsOf(const ACE_Time_Value& timeout)
{
    long long seconds = static_cast<long long>(timeout.sec());
    long long micros = static_cast<long long>(timeout.usec());
    if (seconds < 0 || (seconds == 0 && micros <= 0))
        return 0;
    if (seconds >= kMaxTimeoutMs / 1000)
        return kMaxTimeoutMs;
    // Rounded up, so that a time-out of a few microseconds is not none.
    return seconds * 1000 + (micros + 999) / 1000;
}

} // namespace

GetHostByNameServer& GetHostByNameServer::getInstance()
{
    static GetHostByNameServer* instance = new GetHostByNameServer;
    return *instance;
}

bool GetHostByNameServer::getHostByName(const char* host, Hostent& result, Hostent::GetHostByNameStatus& status,
                                        const ACE_Time_Value& timeout)
{
    if (LookupObserver observer = m_observer.load(std::memory_order_relaxed))
        observer(host, timeout);

    Clock::time_point start = Clock::now();
    long long timeoutMs = timeoutMsOf(timeout);
    Clock::time_point deadline = start + std::chrono::milliseconds(timeoutMs);

    result.officialName.clear();
    result.addresses.clear();
    if (!isHostNameShaped(host)) {
        status = Hostent::GHBN_HOST_NOT_FOUND;
        logDebug(std::string("not a host name: \"") + (host != nullptr ? host : "(null)") + "\"", __LINE__);
        return false;
    }

    LibraryHold library;
    if (!library.started()) {
        status = Hostent::GHBN_FAILURE;
        return false;
    }
    Pending pending;
    pending.result = &result;
    // Declared after `pending`: destroying the channel may still call back
    // into it.
    Channel channel;
    int opened = channel.open(getServers(), timeoutMs);
    if (opened != ARES_SUCCESS) {
        status = Hostent::GHBN_FAILURE;
        logDebug(std::string("resolver set-up failed: ") + ares_strerror(opened), __LINE__);
        return false;
    }

    hostent* fromFile = nullptr;
    if (ares_gethostbyname_file(channel.get(), host, AF_INET, &fromFile) == ARES_SUCCESS && fromFile != nullptr) {
        fill(result, fromFile);
        ares_free_hostent(fromFile);
        status = result.addresses.empty() ? Hostent::GHBN_NO_DATA : Hostent::GHBN_SUCCESS;
        return status == Hostent::GHBN_SUCCESS;
    }
    if (isLocalhost(host)) {
        result.officialName = "localhost";
        result.addresses.push_back(htonl(INADDR_LOOPBACK));
        status = Hostent::GHBN_SUCCESS;
        return true;
    }

    // Numeric texts are answered inside this call; names send a query.
    ares_gethostbyname(channel.get(), host, AF_INET, &onHost, &pending);
    bool timedOut = false;
    int waitError = 0;
    while (!pending.done) {
        Clock::time_point now = Clock::now();
        if (now >= deadline) {
            timedOut = true;
            break;
        }
        waitError = waitAndProcess(channel.get(), deadline - now);
        if (waitError != 0)
            break;
    }
    if (!pending.done)
        ares_cancel(channel.get());

    if (timedOut)
        status = Hostent::GHBN_TIMEOUT;
    else if (waitError != 0)
        status = Hostent::GHBN_FAILURE;
    else
        status = statusOf(pending.status);
    if (status == Hostent::GHBN_SUCCESS && result.addresses.empty())
        status = Hostent::GHBN_NO_DATA;
    if (status != Hostent::GHBN_SUCCESS) {
        result.officialName.clear();
        result.addresses.clear();
        logDebug(std::string("look-up of \"") + host + "\" failed: " +
                     (timedOut ? "timed out" : (waitError != 0 ? std::strerror(waitError) : ares_strerror(pending.status))),
                 __LINE__);
        return false;
    }
    return true;
}

bool GetHostByNameServer::setServers(const std::string& servers)
{
    if (!servers.empty()) {
        // c-ares parses the list into a channel; a list it refuses there
        // would fail every look-up, so it is refused here instead.
        LibraryHold library;
        if (!library.started())
            return false;
        Channel probe;
        if (probe.open(servers, 1000) != ARES_SUCCESS)
            return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_servers = servers;
    return true;
}

void GetHostByNameServer::resetServers()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_servers.clear();
}

std::string GetHostByNameServer::getServers() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_servers;
}

GetHostByNameServer::LookupObserver GetHostByNameServer::setLookupObserver(LookupObserver observer)
{
    return m_observer.exchange(observer, std::memory_order_relaxed);
}

} // namespace Velmora
