#include <HvUtil/HvSocketImpl.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvSocketError.h>
#include <HvUtil/HvSocketFactory.h>

#include <Velmora/Logger.h>
#include <Velmora/MemAllocator.h>
#include <Velmora/TraceScope.h>

#include <ace/OS_NS_string.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const char kSource[] = "HvSocketImpl";
const char kTag[] = "HvSocketImpl";

// Line the connect failure is reported from; log readers search for it.
const int kConnectFailureLine = 284;

// Traffic is copied to the error stream only above this level.
const unsigned int kTrafficLevel = 5;

// The datagram sCloseAll() sends each socket to wake its receiver.
const char kUnblockMessage[] = "UNBLOCK";
const unsigned int kUnblockLength = 7;

// Every send passes MSG_NOSIGNAL: a peer that has gone must fail the one
// send with EPIPE, which closes that socket, instead of raising SIGPIPE,
// whose default action ends the whole process.
const int kSendFlags = MSG_NOSIGNAL;

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvSocketImpl");
    return instance;
}

// Serialises traffic banners. The error stream's own object mutex cannot
// serve: it is a shared, non-recursive pool entry, and the writes under it
// take the object mutexes of the target's buffers, which may be that entry.
std::mutex& bannerMutex()
{
    static std::mutex instance;
    return instance;
}

bool trafficLogged()
{
    return HvErrorStream::sGetDefault()->getLevel() > kTrafficLevel;
}

sockaddr_in makeAddress(HvInetAddress address, unsigned int port)
{
    sockaddr_in result;
    std::memset(&result, 0, sizeof result);
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<unsigned short>(port));
    result.sin_addr.s_addr = address.getAddress();
    return result;
}

HvInetAddress addressOf(const sockaddr_in& address)
{
    HvInetAddress result;
    result.setAddress(address.sin_addr.s_addr);
    return result;
}

} // namespace

std::atomic<int> HvSocketImpl::sm_SO_SNDBUF{245760};
std::atomic<int> HvSocketImpl::sm_SO_RCVBUF{245760};

void* HvSocketImpl::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvSocketImpl::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvSocketImpl::HvSocketImpl()
    : m_pMutex(HvMutex::sCreate()), m_descriptor(-1), m_localPort(0), m_localAddress(0), m_remotePort(0),
      m_remoteAddress(0), m_callers(0), m_pendingClose(-1)
{
}

HvSocketImpl::HvSocketImpl(unsigned int localPort, HvInetAddress localAddress)
    : m_pMutex(HvMutex::sCreate()), m_descriptor(-1), m_localPort(localPort),
      m_localAddress(localAddress.getAddress()), m_remotePort(0), m_remoteAddress(0), m_callers(0),
      m_pendingClose(-1)
{
}

HvSocketImpl::~HvSocketImpl()
{
    if (getDescriptor() != -1)
        close();
    HvMutex::sDestroy(m_pMutex);
}

HvInetAddress HvSocketImpl::getLocalAddress() const
{
    HvInetAddress result;
    result.setAddress(m_localAddress.load(std::memory_order_relaxed));
    return result;
}

void HvSocketImpl::setLocalAddress(HvInetAddress address)
{
    m_localAddress.store(address.getAddress(), std::memory_order_relaxed);
}

void HvSocketImpl::setRemote(HvInetAddress address, unsigned int port)
{
    m_remoteAddress.store(address.getAddress(), std::memory_order_relaxed);
    m_remotePort.store(port, std::memory_order_relaxed);
}

void HvSocketImpl::applyBufferSizes(int descriptor)
{
    int sendSize = sm_SO_SNDBUF.load(std::memory_order_relaxed);
    int receiveSize = sm_SO_RCVBUF.load(std::memory_order_relaxed);
    // The system may clamp or refuse the sizes; the socket works either way.
    (void)::setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &sendSize, sizeof sendSize);
    (void)::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &receiveSize, sizeof receiveSize);
}

void HvSocketImpl::bind(unsigned int port, HvInetAddress address, bool stream)
{
    if (getDescriptor() != -1)
        HvException::sThrow("socket alrady created"); // spelt so; callers match the text
    int descriptor = ::socket(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (descriptor == -1)
        HvSocketError::sThrow("socket(AF_INET, aType, 0)", 0);
    m_descriptor.store(descriptor, std::memory_order_relaxed);
    applyBufferSizes(descriptor);
    int on = 1;
    if (::setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0)
        HvSocketError::sThrow("HvSocketImpl::setsockopt(...)", 0);
    if (trafficLogged())
        *HvErrorStream::sGetDefault() << "Binding socket to port " << port << endl;
    sockaddr_in local = makeAddress(address, port);
    if (::bind(descriptor, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0)
        HvSocketError::sThrow("bind", 0);
    // Stored as given: a socket bound to port 0 keeps 0, not the port the
    // system chose.
    setLocalPort(port);
    setLocalAddress(address);
    HvSocketFactory::sAddHandle(descriptor, this);
}

void HvSocketImpl::listen(int backlog)
{
    if (::listen(getDescriptor(), backlog) != 0)
        HvSocketError::sThrow("listen", 0);
}

void HvSocketImpl::accept(HvSocketImpl* server)
{
    sockaddr_in peer;
    socklen_t peerLength = sizeof peer;
    std::memset(&peer, 0, sizeof peer);
    int listening = server->beginCall();
    int descriptor = ::accept(listening, reinterpret_cast<sockaddr*>(&peer), &peerLength);
    server->endCall(listening);
    m_descriptor.store(descriptor, std::memory_order_relaxed);
    // A failed accept is not an error here: the caller gets a socket without
    // descriptor, whose transfers fail.
    if (descriptor == -1)
        return;
    applyBufferSizes(descriptor);
    setTcpNoDelay(true);
    setLocalPort(server->getLocalPort());
    setLocalAddress(server->getLocalAddress());
    setRemote(addressOf(peer), ntohs(peer.sin_port));
    HvSocketFactory::sAddHandle(descriptor, this);
}

void HvSocketImpl::connect(HvInetAddress address, unsigned int port, bool stream)
{
    Velmora::TraceScope trace(logger(), "HvSocketImpl::connect", kSource, __LINE__);
    int descriptor = getDescriptor();
    if (descriptor == -1) {
        descriptor = ::socket(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, 0);
        // The same wording for both kinds: callers match this text.
        if (descriptor == -1)
            HvSocketError::sThrow("socket(AF_INET, SOCK_STREAM, 0)", 0);
        m_descriptor.store(descriptor, std::memory_order_relaxed);
    }
    applyBufferSizes(descriptor);
    sockaddr_in remote = makeAddress(address, port);
    if (::connect(descriptor, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) {
        int error = errno;
        std::string text = "HvSocketImpl::connect";
        text += " : failed to connect socket : errno=";
        text += std::to_string(error);
        text += " errmsg=";
        const char* reason = ACE_OS::strerror(error);
        text += reason ? reason : "";
        logger().log(Velmora::Logger::ERROR, text, kSource, kConnectFailureLine);
        // The exception records the current errno: logging must not replace it.
        errno = error;
        HvSocketError::sThrow(text.c_str(), 0);
    }
    // Applied to every kind of socket: a datagram socket refuses it and the
    // connect then fails here, after the system connect has succeeded.
    setTcpNoDelay(true);
    setRemote(address, port);
    HvSocketFactory::sAddHandle(descriptor, this);
    sockaddr_in local;
    socklen_t localLength = sizeof local;
    std::memset(&local, 0, sizeof local);
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &localLength) != 0)
        HvSocketError::sThrow("getsockname()", 0);
    setLocalPort(ntohs(local.sin_port));
    setLocalAddress(addressOf(local));
}

int HvSocketImpl::send(const void* data, unsigned int length)
{
    int descriptor = beginCall();
    if (descriptor == -1)
        return -1;
    ssize_t result = ::send(descriptor, data, length, kSendFlags);
    endCall(descriptor);
    if (result == -1) {
        close();
        return -1;
    }
    TCPlog("TCP", "Sent", data, static_cast<unsigned int>(result));
    return static_cast<int>(result);
}

int HvSocketImpl::receive(void* buffer, unsigned int length)
{
    int descriptor = beginCall();
    if (descriptor == -1)
        return -1;
    ssize_t result = ::recv(descriptor, buffer, length, 0);
    endCall(descriptor);
    if (result == -1) {
        close();
        return -1;
    }
    // 0 is the peer's orderly close: the socket stays open for the caller
    // to decide.
    TCPlog("TCP", "Received", buffer, static_cast<unsigned int>(result));
    return static_cast<int>(result);
}

void HvSocketImpl::sendTo(const void* data, unsigned int length, HvInetAddress address, unsigned int port)
{
    if (trafficLogged()) {
        HvErrorStream& out = *HvErrorStream::sGetDefault();
        out << "UDP Sending " << length << " bytes to " << address.getHostAddress() << ":" << port;
        out.write(data, length, 0);
    }
    sockaddr_in remote = makeAddress(address, port);
    int descriptor = beginCall();
    (void)::sendto(descriptor, data, length, kSendFlags, reinterpret_cast<sockaddr*>(&remote), sizeof remote);
    endCall(descriptor);
}

int HvSocketImpl::receiveFrom(void* buffer, unsigned int length, HvInetAddress& address, unsigned int& port)
{
    sockaddr_in sender;
    socklen_t senderLength = sizeof sender;
    std::memset(&sender, 0, sizeof sender);
    int descriptor = beginCall();
    ssize_t result = ::recvfrom(descriptor, buffer, length, 0, reinterpret_cast<sockaddr*>(&sender), &senderLength);
    endCall(descriptor);
    if (result == -1)
        return -1;
    address = addressOf(sender);
    port = ntohs(sender.sin_port);
    if (trafficLogged()) {
        HvErrorStream& out = *HvErrorStream::sGetDefault();
        out << "UDP Received " << static_cast<unsigned int>(result) << " bytes from " << address.getHostAddress()
            << ":" << port;
        out.write(buffer, static_cast<unsigned int>(result), 0);
    }
    return static_cast<int>(result);
}

int HvSocketImpl::available()
{
    unsigned char scratch[4];
    int descriptor = beginCall();
    ssize_t result = ::recv(descriptor, scratch, sizeof scratch, MSG_PEEK);
    endCall(descriptor);
    if (result == -1) {
        int error = errno;
        *HvErrorStream::sGetDefault()->getDebugStream(kTrafficLevel)
            << "\nHvSocketImpl::available(): " << std::strerror(error) << endl;
        return 0;
    }
    return static_cast<int>(result);
}

void HvSocketImpl::setTcpNoDelay(bool on)
{
    int value = on ? 1 : 0;
    if (::setsockopt(getDescriptor(), IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) != 0)
        HvSocketError::sThrow("HvSocketImpl::setsockopt(...)", 0);
}

HvInetAddress HvSocketImpl::getRemoteAddress()
{
    if (m_remotePort.load(std::memory_order_relaxed) == 0) {
        HvInetAddress address;
        unsigned int port = 0;
        getRemoteInfo(address, port);
        setRemote(address, port);
    }
    HvInetAddress result;
    result.setAddress(m_remoteAddress.load(std::memory_order_relaxed));
    return result;
}

unsigned int HvSocketImpl::getRemotePort()
{
    if (m_remotePort.load(std::memory_order_relaxed) == 0) {
        HvInetAddress address;
        unsigned int port = 0;
        getRemoteInfo(address, port);
        setRemote(address, port);
    }
    return m_remotePort.load(std::memory_order_relaxed);
}

void HvSocketImpl::getRemoteInfo(HvInetAddress& address, unsigned int& port)
{
    sockaddr_in peer;
    socklen_t peerLength = sizeof peer;
    std::memset(&peer, 0, sizeof peer);
    if (::getpeername(getDescriptor(), reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
        address.setAddress(0);
        port = 0;
        // Forgotten, not closed: the number stays allocated to the process.
        m_descriptor.store(-1, std::memory_order_relaxed);
        return;
    }
    address = addressOf(peer);
    port = ntohs(peer.sin_port);
}

void HvSocketImpl::sendLocalUnblockMessage()
{
    int descriptor = beginCall();
    if (descriptor == -1)
        return;
    sockaddr_in local = makeAddress(getLocalAddress(), getLocalPort());
    // Never waits: on a connection whose peer stopped reading the send
    // buffer is full, and a blocking send here would stall the shutdown that
    // is about to close this very socket.
    (void)::sendto(descriptor, kUnblockMessage, kUnblockLength, kSendFlags | MSG_DONTWAIT,
                   reinterpret_cast<sockaddr*>(&local), sizeof local);
    endCall(descriptor);
}

void HvSocketImpl::close()
{
    if (getDescriptor() == -1)
        return;
    if (trafficLogged()) {
        HvErrorStream& out = *HvErrorStream::sGetDefault();
        out << "Closing a socket" << endl;
        unsigned int localPort = getLocalPort();
        if (localPort != 0)
            out << "Closing socket with local port " << localPort << endl;
    }
    // Taken out of the field first: a second closer (the shutdown's
    // sCloseAll against a failing receive) then finds nothing and can never
    // close a number that has meanwhile been given to a new socket.
    int descriptor;
    bool deferred;
    {
        HvMutex::Lock lock(m_pMutex);
        descriptor = m_descriptor.exchange(-1, std::memory_order_relaxed);
        if (descriptor == -1)
            return;
        // Closing a descriptor that another thread waits on does not wake
        // that thread on Linux, and would free the number for reuse under
        // it. The waiters are woken by a shutdown instead, and the last one
        // out closes.
        deferred = m_callers != 0;
        if (deferred)
            m_pendingClose = descriptor;
    }
    if (deferred)
        (void)::shutdown(descriptor, SHUT_RDWR);
    else
        closeDescriptor(descriptor);
}

void HvSocketImpl::closeDescriptor(int descriptor)
{
    // After a successful close the entry stays until the number is reused;
    // users of sFromHandle() rely on finding the closed socket there. Last:
    // the entry may hold the final reference to the socket.
    if (::close(descriptor) != 0)
        HvSocketFactory::sRemoveHandle(descriptor);
}

int HvSocketImpl::beginCall()
{
    HvMutex::Lock lock(m_pMutex);
    int descriptor = m_descriptor.load(std::memory_order_relaxed);
    if (descriptor != -1)
        ++m_callers;
    return descriptor;
}

void HvSocketImpl::endCall(int descriptor)
{
    if (descriptor == -1)
        return;
    int pending = -1;
    {
        HvMutex::Lock lock(m_pMutex);
        --m_callers;
        if (m_callers == 0) {
            pending = m_pendingClose;
            m_pendingClose = -1;
        }
    }
    if (pending != -1)
        closeDescriptor(pending);
}

void HvSocketImpl::TCPlog(const char* transport, const char* direction, const void* data, unsigned int length)
{
    if (!trafficLogged() || getDescriptor() == -1 || length == 0)
        return;
    HvErrorStream& out = *HvErrorStream::sGetDefault();
    std::lock_guard<std::mutex> lock(bannerMutex());
    HvInetAddress remote = getRemoteAddress();
    unsigned int remotePort = getRemotePort();
    out << "\n================" << transport << " " << direction << " " << length << " bytes Host: "
        << remote.getHostAddress() << ":" << remotePort << "================\n\n";
    out.write(data, length, 0);
    out << "================================================\n" << endl;
}

std::optional<HvSocketImpl::NetTransport> HvSocketImpl::convertTransport(Transport transport)
{
    switch (transport) {
    case TCP:
        return NetTransport::TCP;
    case UDP:
        return NetTransport::UDP;
    }
    return std::nullopt;
}

void HvSocketImpl::unregisterWhileConstructing()
{
    int descriptor = getDescriptor();
    if (descriptor == -1)
        return;
    HvHandle<HvSocketImpl> registered = HvSocketFactory::sFromHandle(descriptor);
    if (registered.get() != this)
        return;
    registered = HvHandle<HvSocketImpl>();
    // The registry's reference must go without deleting: the object is still
    // being constructed and the failing constructor frees it.
    AddRef();
    HvSocketFactory::sRemoveHandle(descriptor);
    Release(false);
}
