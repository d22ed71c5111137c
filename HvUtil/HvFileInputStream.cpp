#include <HvUtil/HvFileInputStream.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvCriticalSection.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvThread.h>

#include <Velmora/Logger.h>
#include <Velmora/TraceScope.h>

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <map>
#include <new>
#include <set>

namespace {

const char kSource[] = "HvFileInputStream";

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvFileInputStream");
    return instance;
}

// Enters the library-wide section for one scope. A stream made by a static
// initialiser may come before the section exists; the process has one
// thread then, so nothing needs guarding.
class GlobalSection {
public:
    GlobalSection() : m_pSection(HvCriticalSection::sm_pCriticalSection)
    {
        if (m_pSection)
            m_pSection->enter();
    }
    ~GlobalSection()
    {
        if (m_pSection)
            m_pSection->leave();
    }
    GlobalSection(const GlobalSection&) = delete;
    GlobalSection& operator=(const GlobalSection&) = delete;

private:
    HvCriticalSection* m_pSection;
};

// A descriptor number that live streams read.
struct LiveDescriptor {
    // Streams alive on this number.
    unsigned int streams = 0;
    // sShutdown() closed the file and left a stand-in on the number, which
    // the last of these streams closes.
    bool standIn = false;
};

// Lets threads waiting for a pipe or FIFO be woken by sShutdown(): closing
// a descriptor does not end a poll() or read() already waiting on it. One
// byte written makes the pipe readable for good, so a fired pipe is never
// handed out again; it goes when its last waiter is done with it.
struct WakePipe {
    int readEnd = -1;
    int writeEnd = -1;
    unsigned int users = 0;
    bool fired = false;
};

} // namespace

// Every descriptor registered by a stream and not closed since. Created by
// the first initializer and never destroyed: streams held by other static
// objects may be destroyed after every initializer is gone.
static std::set<int>* fs_pHandleSet = nullptr;
// Numbers in use by live streams.
static std::map<int, LiveDescriptor>* fsp_pLiveDescriptors = nullptr;
// The pipe handed to waiters until the next sShutdown(); made on demand.
static WakePipe* fsp_pWakePipe = nullptr;
// Initializers alive. Plain constant-initialised data, ready before any
// static initialiser of any file runs.
static int fs_Counter = 0;

// Call with the section held, or during static initialisation.
static void fs_createSets()
{
    if (!fs_pHandleSet)
        fs_pHandleSet = new std::set<int>;
    if (!fsp_pLiveDescriptors)
        fsp_pLiveDescriptors = new std::map<int, LiveDescriptor>;
}

static void fs_closeWakePipe(WakePipe* pipe)
{
    ::close(pipe->readEnd);
    ::close(pipe->writeEnd);
    delete pipe;
}

// The pipe to wait on besides a descriptor, null when none can be made.
static WakePipe* fs_acquireWakePipe()
{
    GlobalSection section;
    if (!fsp_pWakePipe) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) == -1)
            return nullptr;
        WakePipe* pipe = new (std::nothrow) WakePipe;
        if (!pipe) {
            ::close(ends[0]);
            ::close(ends[1]);
            return nullptr;
        }
        pipe->readEnd = ends[0];
        pipe->writeEnd = ends[1];
        fsp_pWakePipe = pipe;
    }
    ++fsp_pWakePipe->users;
    return fsp_pWakePipe;
}

static void fs_releaseWakePipe(WakePipe* pipe)
{
    if (!pipe)
        return;
    GlobalSection section;
    if (--pipe->users == 0 && pipe->fired)
        fs_closeWakePipe(pipe);
}

HvFileInputStream::HvInitializer::HvInitializer()
{
    if (fs_Counter++ != 0)
        return;
    fs_createSets();
    HvThread::sSetShutdownHook(HvThread::CLOSE_FILE_INPUT_STREAMS, &HvFileInputStream::sShutdown);
}

HvFileInputStream::HvInitializer::~HvInitializer()
{
    // The sets stay: a stream destroyed later still finds them.
    --fs_Counter;
}

HvFileInputStream::HvFileInputStream(const char* path)
    : m_fd(-1), m_markOffset(0), m_markValid(false), m_seekable(false), m_owner(false)
{
    if (!path)
        HvAssertionFailure::sThrow("filename expected", "HvFileInputStream", 88, HV_COMPILE_TIMESTAMP);
    m_fd = ::open(path, O_RDONLY);
    if (m_fd == -1)
        HvSystemError::sThrow(path, 0);
    m_owner = true;
    m_seekable = ::lseek(m_fd, 0, SEEK_CUR) != -1;
    try {
        registerDescriptor();
    } catch (...) {
        ::close(m_fd);
        throw;
    }
}

HvFileInputStream::HvFileInputStream(int fd)
    : m_fd(fd), m_markOffset(0), m_markValid(false), m_seekable(false), m_owner(false)
{
    m_seekable = ::lseek(m_fd, 0, SEEK_CUR) != -1;
    registerDescriptor();
}

void HvFileInputStream::registerDescriptor()
{
    GlobalSection section;
    fs_createSets();
    fs_pHandleSet->insert(m_fd);
    ++(*fsp_pLiveDescriptors)[m_fd].streams;
}

HvFileInputStream::~HvFileInputStream()
{
    GlobalSection section;
    bool standIn = false;
    bool lastStream = true;
    std::map<int, LiveDescriptor>::iterator live = fsp_pLiveDescriptors->find(m_fd);
    if (live != fsp_pLiveDescriptors->end()) {
        standIn = live->second.standIn;
        lastStream = --live->second.streams == 0;
        if (lastStream)
            fsp_pLiveDescriptors->erase(live);
    }
    if (standIn) {
        // The file went at shutdown; the number holds the stand-in, which
        // nobody else can have been given, and other streams on the same
        // number still need it.
        if (lastStream)
            ::close(m_fd);
        return;
    }
    if (m_owner) {
        fs_pHandleSet->erase(m_fd);
        ::close(m_fd);
    }
}

void HvFileInputStream::waitUntilReadable() const
{
    // Regular files never keep a reader waiting; a descriptor in
    // non-blocking mode answers at once and must keep doing so.
    if (m_seekable)
        return;
    int flags = ::fcntl(m_fd, F_GETFL);
    if (flags == -1 || (flags & O_NONBLOCK))
        return;
    for (;;) {
        WakePipe* wake = fs_acquireWakePipe();
        struct pollfd waitFor[2] = {{m_fd, POLLIN, 0}, {wake ? wake->readEnd : -1, POLLIN, 0}};
        int ready = ::poll(waitFor, 2, -1);
        int error = errno;
        fs_releaseWakePipe(wake);
        if (ready == -1 && error == EINTR)
            continue;
        // Ready, at its end, failed or replaced by a shutdown: the read
        // itself gives the answer.
        if (ready == -1 || waitFor[0].revents != 0)
            return;
        // Woken by a shutdown that left this descriptor alone (it was made
        // after the shutdown had passed): wait again, on a fresh pipe.
    }
}

int HvFileInputStream::read()
{
    unsigned char byte;
    waitUntilReadable();
    ssize_t result = ::read(m_fd, &byte, 1);
    if (result == -1)
        HvSystemError::sThrow("HvFileInputStream::read", 0);
    if (result == 0)
        return -1;
    return byte;
}

int HvFileInputStream::read(void* buffer, unsigned int length, unsigned int offset)
{
    // Nowhere to put bytes: nothing is read, nothing consumed.
    if (!buffer)
        return 0;
    waitUntilReadable();
    ssize_t result = ::read(m_fd, static_cast<unsigned char*>(buffer) + offset, length);
    if (result == 0)
        return -1;
    // Tested against 1, not -1: a block read that yields a single byte
    // fails, and a failed read comes back as -1. Callers rely on both.
    if (result == 1)
        HvSystemError::sThrow("HvFileInputStream::read", 0);
    return static_cast<int>(result);
}

unsigned int HvFileInputStream::skip(unsigned int count)
{
    if (!m_seekable)
        return HvInputStream::skip(count);
    off_t before = ::lseek(m_fd, 0, SEEK_CUR);
    if (before == -1)
        HvSystemError::sThrow("HvFileInputStream::skip", 0);
    off_t after = ::lseek(m_fd, static_cast<off_t>(count), SEEK_CUR);
    if (after == -1)
        HvSystemError::sThrow("HvFileInputStream::skip", 0);
    return static_cast<unsigned int>(after - before);
}

unsigned int HvFileInputStream::available()
{
    return 0;
}

bool HvFileInputStream::markSupported()
{
    return m_seekable;
}

void HvFileInputStream::mark(unsigned int)
{
    if (!m_seekable)
        return;
    m_markValid = true;
    m_markOffset = ::lseek(m_fd, 0, SEEK_CUR);
    if (m_markOffset == -1)
        HvSystemError::sThrow("HvFileInputStream::mark", 0);
}

void HvFileInputStream::reset()
{
    // Unlike the base class, a reset without a mark is silent.
    if (!m_seekable || !m_markValid)
        return;
    if (::lseek(m_fd, m_markOffset, SEEK_SET) == -1)
        HvSystemError::sThrow("HvFileInputStream::reset", 0);
    m_markValid = false;
}

bool HvFileInputStream::block()
{
    if (!m_seekable)
        HvException::sThrow("HvFileInputStream::block implementation pending");
    notifyObservers(HvHandle<HvObject>());
    return true;
}

void HvFileInputStream::sShutdown()
{
    Velmora::TraceScope trace(logger(), "HvFileInputStream::sShutdown", kSource, __LINE__);
    GlobalSection section;
    fs_createSets();
    // A live stream's number is not freed: the stand-in, a descriptor on
    // which reads and seeks fail with EBADF, takes the file's place in one
    // step, so a number reused by some other open can never reach a stream
    // (nor be closed by it). The stream's last user closes the stand-in.
    int standIn = ::open("/", O_PATH | O_CLOEXEC);
    bool standInTaken = false;
    for (std::map<int, LiveDescriptor>::value_type& live : *fsp_pLiveDescriptors) {
        const int fd = live.first;
        if (fd < 0 || live.second.standIn || standIn == -1)
            continue;
        if (fd == standIn) {
            // The number was free, and the stand-in itself landed on it.
            standInTaken = true;
        } else if (::dup2(standIn, fd) == -1) {
            continue;
        }
        live.second.standIn = true;
        fs_pHandleSet->erase(fd);
    }
    if (standIn != -1 && !standInTaken)
        ::close(standIn);
    for (int fd : *fs_pHandleSet)
        ::close(fd);
    // Closed numbers are free for reuse: a later shutdown must not close
    // them again.
    fs_pHandleSet->clear();
    if (WakePipe* pipe = fsp_pWakePipe) {
        fsp_pWakePipe = nullptr;
        const char wake = 0;
        ssize_t written = ::write(pipe->writeEnd, &wake, 1);
        (void)written;
        pipe->fired = true;
        if (pipe->users == 0)
            fs_closeWakePipe(pipe);
    }
}

bool HvFileInputStream::sIsRegistered(int fd)
{
    GlobalSection section;
    return fs_pHandleSet && fs_pHandleSet->count(fd) != 0;
}
