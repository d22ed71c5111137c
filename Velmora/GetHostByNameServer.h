// Host-name resolver with a time-out, over c-ares. One process-wide instance
// serves every thread; each look-up runs on the calling thread and blocks it
// for at most the time-out it is given.
//
// A look-up tries, in order: the hosts file (/etc/hosts), the name
// "localhost" (127.0.0.1 when the hosts file does not have it), a numeric
// address text, then the DNS servers of the system's configuration
// (/etc/resolv.conf), or those of the test setting below. Only the DNS step
// uses the network, so hosts-file names and "localhost" resolve without one.
//
// The network library is started for the duration of every look-up
// (Net::initializeLibrary() and closeLibrary() nest), so a look-up works
// whether or not the program started it.
#ifndef VELMORA_GETHOSTBYNAMESERVER_H
#define VELMORA_GETHOSTBYNAMESERVER_H

#include <Velmora/Hostent.h>

#include <ace/Time_Value.h>

#include <atomic>
#include <mutex>
#include <string>

namespace Velmora {

class GetHostByNameServer {
public:
    // The process-wide resolver; made on first use and never destroyed, so
    // that threads still resolving while the process exits find it intact.
    static GetHostByNameServer& getInstance();

    // Resolves `host` to its IPv4 addresses. On success fills `result`
    // (official name, addresses in network byte order, first answer first),
    // sets `status` to GHBN_SUCCESS and returns true. Otherwise returns false
    // with `status` saying why: GHBN_HOST_NOT_FOUND for an unknown name and
    // for a text that cannot be a host name (null, empty, longer than 253
    // characters or with a label longer than 63), GHBN_NO_DATA for a name
    // without IPv4 address, GHBN_TRY_AGAIN when no server could give an
    // answer (refused, server failure), GHBN_TIMEOUT when `timeout` passed
    // first, GHBN_FAILURE for anything else. A time-out of zero or less still
    // answers from the hosts file, "localhost" and numeric texts, and gives
    // GHBN_TIMEOUT where the DNS would have to be asked.
    bool getHostByName(const char* host, Hostent& result, Hostent::GetHostByNameStatus& status,
                       const ACE_Time_Value& timeout);

    // Test setting: every later look-up asks only these DNS servers, in
    // c-ares' list syntax ("127.0.0.1:5300", several separated by commas),
    // and appends no search domains. The hosts file is still read first. An
    // empty text goes back to the system's configuration. Returns false, and
    // changes nothing, when the text is not a server list.
    bool setServers(const std::string& servers);
    // Test setting: back to the system's DNS configuration.
    void resetServers();
    // The servers of the test setting; empty when the system's are used.
    std::string getServers() const;

    // Test setting: called on the calling thread at the start of every
    // getHostByName(), with the host text (null when given null) and the
    // time-out as given. Null turns it off. Returns the previous observer.
    using LookupObserver = void (*)(const char* host, const ACE_Time_Value& timeout);
    LookupObserver setLookupObserver(LookupObserver observer);

    GetHostByNameServer(const GetHostByNameServer&) = delete;
    GetHostByNameServer& operator=(const GetHostByNameServer&) = delete;

private:
    GetHostByNameServer() = default;

    mutable std::mutex m_mutex;
    std::string m_servers;
    std::atomic<LookupObserver> m_observer{nullptr};
};

} // namespace Velmora

#endif
