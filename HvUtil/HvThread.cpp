#include <HvUtil/HvThread.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvTime.h>
#include <HvUtil/HvTokenTable.h>

#include <Velmora/Assertion.h>
#include <Velmora/Logger.h>
#include <Velmora/TraceScope.h>

#include <cxxabi.h>
#include <errno.h>
#include <sched.h>

#include <exception>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

std::atomic<bool> HvThread::sm_bRealTimeScheduling{true};
HvTokenTable* HvThread::sm_pThreadTable = nullptr;
std::atomic<void (*)(HvThread*)> HvThread::sm_pDetachedHook{nullptr};

static std::atomic<bool> fs_bShutDown{false};
static std::atomic<int> fs_threadNum{0};
// Forked threads whose main() has not finished, registered or not yet: the
// shutdown waits for them too, so that none registers after it reported
// completion and none still uses the process object (or anything else that
// goes at exit) once it has.
static std::atomic<int> fs_liveThreads{0};
// Serialises every use of the thread table: the shutdown iterates it while
// threads add and remove themselves.
static std::mutex fs_tableMutex;
// The shutdown hooks. Classes install theirs from static initialisers of
// other files, which may run before this file's: a function-local array is
// ready whenever it is first asked for.
static std::atomic<HvThread::ShutdownHookFunction>* shutdownHooks()
{
    static std::atomic<HvThread::ShutdownHookFunction> hooks[HvThread::SHUTDOWN_HOOK_COUNT];
    return hooks;
}
// The calling thread's own object while main() has it registered.
static thread_local HvThread* fs_pCurrentThread = nullptr;
// True while the calling thread runs the main() of a fork(), so that it is
// one of fs_liveThreads.
static thread_local bool fs_bCurrentIsLive = false;

namespace {

const char kSource[] = "HvThread";

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvThread");
    return instance;
}

void logTrace(const char* text, int line)
{
    logger().log(Velmora::Logger::TRACE, text, kSource, line);
}

void logDebug(const std::string& text, int line)
{
    logger().log(Velmora::Logger::DEBUG, text, kSource, line);
}

// Every registered thread, each held by a handle, taken under the table lock
// so that the caller can work on them without it.
std::vector<HvHandle<HvThread>> snapshotThreads()
{
    std::vector<HvHandle<HvThread>> threads;
    std::lock_guard<std::mutex> lock(fs_tableMutex);
    if (!HvThread::sm_pThreadTable)
        return threads;
    HvTokenTable::Iterator walk(*HvThread::sm_pThreadTable);
    while (walk.next()) {
        HvHandle<HvObject> value = walk.getValue();
        HvThread* thread = dynamic_cast<HvThread*>(value.get());
        if (thread)
            threads.push_back(HvHandle<HvThread>(thread));
    }
    return threads;
}

// Table key of every registered thread id, so that ids folding to the same
// key never share an entry. Guarded by fs_tableMutex. Never destroyed: a
// detached thread may still leave the table while the program exits.
std::unordered_map<pthread_t, unsigned int>& tableKeys()
{
    static std::unordered_map<pthread_t, unsigned int>* keys = new std::unordered_map<pthread_t, unsigned int>;
    return *keys;
}

} // namespace

extern "C" void* HvThread_StartProc(void* thread)
{
    static_cast<HvThread*>(thread)->main();
    return nullptr;
}

HvThread::HvThread()
    : m_token(0), m_state(DETACHED), m_signals(0), m_bForkReference(false)
{
    Velmora::TraceScope trace(logger(), "HvThread::HvThread()", kSource, __LINE__);
    if (fs_bShutDown.load(std::memory_order_relaxed))
        Velmora::Assertion(false, "!fs_bShutDown", kSource, 105);
    HvProcess::sGetCurrent();
    fs_threadNum.fetch_add(1, std::memory_order_relaxed);
    initializeWaiting();
}

HvThread::HvThread(HvThread*)
    : m_token(0), m_state(DETACHED), m_signals(0), m_bForkReference(false)
{
    Velmora::TraceScope trace(logger(), "HvThread::HvThread(HvThread *)", kSource, __LINE__);
    if (fs_bShutDown.load(std::memory_order_relaxed))
        Velmora::Assertion(false, "!fs_bShutDown", kSource, 124);
    initialize();
    fs_threadNum.fetch_add(1, std::memory_order_relaxed);
    initializeWaiting();
}

void HvThread::initializeWaiting()
{
    // Default attributes cannot fail on this platform; the results are not checked.
    pthread_mutex_init(&m_waitMutex, nullptr);
    pthread_cond_init(&m_wakeup, nullptr);
}

HvThread::~HvThread()
{
    pthread_cond_destroy(&m_wakeup);
    pthread_mutex_destroy(&m_waitMutex);
}

void HvThread::initialize()
{
    Velmora::TraceScope trace(logger(), "HvThread::initialize", kSource, __LINE__);
    std::lock_guard<std::mutex> lock(fs_tableMutex);
    if (!sm_pThreadTable) {
        sm_pThreadTable = new HvTokenTable;
        sm_pThreadTable->AddRef();
        // Thread bodies write failures to the default error stream, whose
        // creation is not guarded against two first callers: it is made
        // here, on the thread that builds the process object or the first
        // thread object, before any thread is forked.
        HvErrorStream::sGetDefault();
    }
}

void HvThread::fork()
{
    State expected = DETACHED;
    if (!m_state.compare_exchange_strong(expected, INITIALIZING, std::memory_order_acq_rel))
        HvAssertionFailure::sThrow("HvThread::fork() on already running thread", kSource, 644,
                                   HV_COMPILE_TIMESTAMP);

    pthread_attr_t attr;
    HvSystemError::sCheck(pthread_attr_init(&attr), "pthread_attr_init");
    // The attributes are given back before a failure is thrown; the name of
    // the failed call is what callers see.
    auto check = [&attr](int result, const char* name) {
        if (result != 0) {
            pthread_attr_destroy(&attr);
            HvSystemError::sThrow(name, result);
        }
    };
    // Threads are never joined.
    check(pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED), "pthread_attr_setdetachstate");
    // This platform may refuse the process scope; that is not a failure.
    (void)pthread_attr_setscope(&attr, PTHREAD_SCOPE_PROCESS);
    if (sm_bRealTimeScheduling.load(std::memory_order_relaxed)) {
        check(pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED), "pthread_attr_setinheritsched");
        check(pthread_attr_setschedpolicy(&attr, SCHED_RR), "pthread_attr_setschedpolicy");
        int policy = 0;
        struct sched_param param;
        param.sched_priority = 0;
        (void)pthread_getschedparam(pthread_self(), &policy, &param);
        param.sched_priority = (sched_get_priority_max(SCHED_RR) + sched_get_priority_min(SCHED_RR)) / 2;
        (void)pthread_attr_setschedparam(&attr, &param);
    }

    // The new thread owns a reference until main() ends, so that the object
    // outlives its thread whatever the creator does with its own handles.
    AddRef();
    m_bForkReference.store(true, std::memory_order_relaxed);
    fs_liveThreads.fetch_add(1, std::memory_order_relaxed);
    pthread_t token;
    int result = pthread_create(&token, &attr, HvThread_StartProc, this);
    if (result != 0) {
        fs_liveThreads.fetch_sub(1, std::memory_order_relaxed);
        m_bForkReference.store(false, std::memory_order_relaxed);
        Release(false);
        check(result, "pthread_create");
    }
    // From here on the thread may have ended and the object be gone: main()
    // records the token itself, and nothing here touches this object again.
    HvSystemError::sCheck(pthread_attr_destroy(&attr), "pthread_attr_destroy");
}

void HvThread::main()
{
    // Taken over once: the reference belongs to this run only.
    const bool forkReference = m_bForkReference.exchange(false, std::memory_order_acq_rel);
    {
        Velmora::TraceScope trace(logger(), "HvThread::main", kSource, __LINE__);
        const bool wasLive = fs_bCurrentIsLive;
        if (forkReference)
            fs_bCurrentIsLive = true;
        mMain(forkReference);
        fs_bCurrentIsLive = wasLive;
    }
    // Nothing of the library is used after this.
    if (forkReference)
        fs_liveThreads.fetch_sub(1, std::memory_order_release);
}

void HvThread::mMain(bool forkReference)
{
    const bool isProcess = this == HvProcess::sm_pTheOneAndOnly.load();

    // The creator's pthread_create may not have stored the id yet. This run
    // leaves the table by its own id: once the state is DETACHED the object
    // may be forked again, and the new run stores its id here.
    const pthread_t token = pthread_self();
    setToken(token);
    if (!isProcess) {
        sAddThread(this);
        fs_pCurrentThread = this;
        // A thread that registers after the shutdown walked the table was
        // not terminated by it: it stops itself.
        if (fs_bShutDown.load(std::memory_order_relaxed))
            terminate();
    }

    if (getState() != EXITING) {
        initialize();
        // The state only moves to RUNNING if no terminate() came first.
        State state = getState();
        while (state != EXITING && !m_state.compare_exchange_weak(state, RUNNING, std::memory_order_acq_rel)) {
        }
        if (state != EXITING) {
            logTrace("Invoking run", __LINE__);
            try {
                run();
                logTrace("1", __LINE__);
            } catch (HvHandle<HvException>& e) {
                HvOutputStream* out =
                    HvErrorStream::sGetDefault()->getDebugStream(HvString(HvException::sDebugToken), 0);
                *out << "catch exception in HvThread::block(): "
                     << (e.isNull() ? HvString() : e->getMessage()) << endl;
            } catch (abi::__forced_unwind&) {
                throw;
            } catch (std::exception& e) {
                // Not a library failure, but it must not end the process either.
                HvOutputStream* out =
                    HvErrorStream::sGetDefault()->getDebugStream(HvString(HvException::sDebugToken), 0);
                *out << "catch exception in HvThread::block(): " << e.what() << endl;
            }
        }
    }

    if (isProcess) {
        logTrace("this == HvProcess::sm_pTheOneAndOnly", __LINE__);
        sShutdown();
    }

    onMainExit();
    setState(DETACHED);
    if (!isProcess) {
        logTrace("this != HvProcess::sm_pTheOneAndOnly", __LINE__);
        fs_pCurrentThread = nullptr;
        if (void (*hook)(HvThread*) = sm_pDetachedHook.load())
            hook(this);
        mRemoveThread(this, token);
    }

    if (fs_bShutDown.load(std::memory_order_relaxed) && !isProcess) {
        logTrace("fs_bShutDown && this != HvProcess::sm_pTheOneAndOnly", __LINE__);
        // Lets the process's sWaitUntilDone() look at the table again at once.
        HvProcess* process = HvProcess::sm_pTheOneAndOnly.load();
        if (process)
            process->signal();
    }
    logTrace("3", __LINE__);
    logDebug("HvThread Exiting main", __LINE__);
    // Last use of this object: the reference may be the last one.
    if (forkReference)
        Release(true);
}

void HvThread::onMainExit()
{
}

struct timespec HvThread::sComputeDeadline(const struct timeval& now, unsigned int milliseconds)
{
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(milliseconds / 1000);
    long nanoseconds = (static_cast<long>(now.tv_usec) + static_cast<long>(milliseconds % 1000) * 1000) * 1000;
    if (nanoseconds > 999999999) {
        deadline.tv_sec += 1;
        nanoseconds -= 1000000000;
    }
    deadline.tv_nsec = nanoseconds;
    return deadline;
}

void HvThread::wait(unsigned int milliseconds)
{
    // BLOCKED only replaces a state that is not EXITING, so a terminate()
    // that comes in meanwhile is never overwritten.
    State state = getState();
    do {
        if (state == EXITING)
            return;
    } while (!m_state.compare_exchange_weak(state, BLOCKED, std::memory_order_acq_rel));

    bool invalidTimeout = false;
    HvMutex::sSpinThenLock(&m_waitMutex);
    if (m_signals == 0) {
        if (milliseconds == kNoTimeout) {
            while (m_signals == 0)
                pthread_cond_wait(&m_wakeup, &m_waitMutex);
        } else {
            const bool monotonic = HvTime::sm_bMonotonicClock.load(std::memory_order_relaxed);
            // Zero when the clock cannot be read: the deadline is then long
            // past and the wait times out at once instead of reading garbage.
            struct timeval now = {0, 0};
            if (monotonic) {
                struct timespec precise;
                if (clock_gettime(CLOCK_MONOTONIC, &precise) == 0) {
                    now.tv_sec = precise.tv_sec;
                    now.tv_usec = static_cast<suseconds_t>(precise.tv_nsec / 1000);
                }
            } else {
                long long offset = 0;
                HvTime::sReadWallClock(&now, &offset);
                // The system measures the deadline on its own clock, which a
                // test offset of the library's clock does not move.
                if (offset != 0) {
                    long long microseconds = static_cast<long long>(now.tv_sec) * 1000000LL + now.tv_usec - offset;
                    if (microseconds >= 0) {
                        now.tv_sec = static_cast<time_t>(microseconds / 1000000LL);
                        now.tv_usec = static_cast<suseconds_t>(microseconds % 1000000LL);
                    }
                }
            }
            struct timespec deadline = sComputeDeadline(now, milliseconds);
            while (m_signals == 0) {
                // The monotonic clock is chosen per wait rather than fixed in
                // the condition variable's attributes: the switch may be set
                // after threads (and their condition variables) exist, and
                // with it off every wait stays pthread_cond_timedwait as it was.
                int result = monotonic
                                 ? pthread_cond_clockwait(&m_wakeup, &m_waitMutex, CLOCK_MONOTONIC, &deadline)
                                 : pthread_cond_timedwait(&m_wakeup, &m_waitMutex, &deadline);
                if (result == ETIMEDOUT)
                    break;
                if (result == EINVAL) {
                    invalidTimeout = true;
                    break;
                }
            }
        }
    }
    // One wait consumes every pending signal.
    m_signals = 0;
    pthread_mutex_unlock(&m_waitMutex);

    if (invalidTimeout)
        *HvErrorStream::sGetDefault() << " Invalid Timeout value in wait\n";

    state = getState();
    while (state != EXITING && !m_state.compare_exchange_weak(state, RUNNING, std::memory_order_acq_rel)) {
    }
}

void HvThread::signal()
{
    Velmora::TraceScope trace(logger(), "HvThread::signal", kSource, __LINE__);
    HvMutex::sSpinThenLock(&m_waitMutex);
    ++m_signals;
    pthread_cond_signal(&m_wakeup);
    pthread_mutex_unlock(&m_waitMutex);
}

unsigned int HvThread::getSignalCount() const
{
    HvMutex::sSpinThenLock(&m_waitMutex);
    unsigned int count = m_signals;
    pthread_mutex_unlock(&m_waitMutex);
    return count;
}

void HvThread::terminate()
{
    Velmora::TraceScope trace(logger(), "HvThread::terminate", kSource, __LINE__);
    State previous = m_state.exchange(EXITING, std::memory_order_acq_rel);
    if (logger().isEnabledFor(Velmora::Logger::DEBUG))
        logDebug("m_State=" + std::to_string(static_cast<int>(previous)), 219);
    // A thread that has not reached run() checks the state before it does.
    if (previous != DETACHED && previous != INITIALIZING)
        signal();
}

bool HvThread::block()
{
    HvException::sThrow("Not yet implemented");
}

const char* HvThread::sGetStateName(int state)
{
    switch (state) {
    case DETACHED:
        return "DETACHED";
    case INITIALIZING:
        return "INITIALIZING";
    case RUNNING:
        return "RUNNING";
    case BLOCKED:
        return "BLOCKED";
    case EXITING:
        return "EXITING";
    default:
        return "UNKNOWN STATE";
    }
}

void HvThread::display(HvOutputStream& out) const
{
    HvObject::display(out, true);
    out << "\t" << static_cast<unsigned long>(getToken()) << "\t" << sGetStateName(getState()) << endl;
}

pthread_t HvThread::sGetCurrentThreadToken()
{
    return pthread_self();
}

unsigned int HvThread::sKeyOf(pthread_t token)
{
    // Both halves take part, so that ids differing only above bit 31 still
    // get different keys; the full id is compared on every look-up.
    unsigned long long value = static_cast<unsigned long long>(token);
    return static_cast<unsigned int>(value ^ (value >> 32));
}

HvThread* HvThread::sGetByToken(pthread_t token)
{
    {
        std::lock_guard<std::mutex> lock(fs_tableMutex);
        if (sm_pThreadTable) {
            std::unordered_map<pthread_t, unsigned int>::const_iterator found = tableKeys().find(token);
            if (found == tableKeys().end())
                return nullptr;
            // The table keeps its reference, so the object outlives this handle.
            HvHandle<HvObject> value = sm_pThreadTable->get(found->second);
            return dynamic_cast<HvThread*>(value.get());
        }
    }
    return HvProcess::sGetCurrent();
}

HvThread* HvThread::sGetCurrentRegistered()
{
    return fs_pCurrentThread;
}

void HvThread::sAddThread(HvThread* thread)
{
    // Released after the lock: it may be the last reference.
    HvHandle<HvObject> replaced;
    std::lock_guard<std::mutex> lock(fs_tableMutex);
    if (!sm_pThreadTable) {
        sm_pThreadTable = new HvTokenTable;
        sm_pThreadTable->AddRef();
    }
    const pthread_t token = thread->getToken();
    unsigned int key;
    std::unordered_map<pthread_t, unsigned int>::const_iterator found = tableKeys().find(token);
    if (found != tableKeys().end()) {
        // The same thread id again: its entry now names this object.
        key = found->second;
    } else {
        // Another live thread may hold the key this id folds to: the next
        // free one is taken, so that no two threads share an entry.
        key = sKeyOf(token);
        while (sm_pThreadTable->containsKey(key))
            ++key;
        tableKeys().emplace(token, key);
    }
    replaced = sm_pThreadTable->put(key, thread);
}

void HvThread::sRemoveThread(HvThread* thread)
{
    mRemoveThread(thread, thread->getToken());
}

void HvThread::mRemoveThread(HvThread* thread, pthread_t token)
{
    // Released after the lock: it may be the last reference.
    HvHandle<HvObject> removed;
    std::lock_guard<std::mutex> lock(fs_tableMutex);
    if (!sm_pThreadTable)
        return;
    std::unordered_map<pthread_t, unsigned int>::iterator found = tableKeys().find(token);
    if (found == tableKeys().end())
        return;
    removed = sm_pThreadTable->get(found->second);
    // Only the thread's own entry goes.
    if (removed.get() == thread) {
        sm_pThreadTable->remove(found->second);
        tableKeys().erase(found);
    } else {
        removed = HvHandle<HvObject>();
    }
}

unsigned int HvThread::sGetThreadCount()
{
    std::lock_guard<std::mutex> lock(fs_tableMutex);
    return sm_pThreadTable ? sm_pThreadTable->getCount() : 0;
}

bool HvThread::sShuttingDown()
{
    return fs_bShutDown.load(std::memory_order_relaxed);
}

int HvThread::sGetThreadNum()
{
    return fs_threadNum.load(std::memory_order_relaxed);
}

void HvThread::sDisplayThreads(HvOutputStream& out)
{
    for (const HvHandle<HvThread>& thread : snapshotThreads())
        thread->display(out);
}

HvThread::ShutdownHookFunction HvThread::sSetShutdownHook(ShutdownHook slot, ShutdownHookFunction hook)
{
    if (slot < 0 || slot >= SHUTDOWN_HOOK_COUNT)
        return nullptr;
    return shutdownHooks()[slot].exchange(hook);
}

void HvThread::sInitiateShutdown()
{
    Velmora::TraceScope trace(logger(), "HvThread::sInitiateShutdown", kSource, __LINE__);
    fs_bShutDown.store(true, std::memory_order_relaxed);
    HvThread* process = HvProcess::sm_pTheOneAndOnly.load();
    {
        // Terminated outside the table lock: terminate() is virtual and may do anything.
        std::vector<HvHandle<HvThread>> threads = snapshotThreads();
        for (const HvHandle<HvThread>& thread : threads) {
            if (thread.get() != process)
                thread->terminate();
        }
    }
    // Queues first, so that dispatchers blocked in getItem() see their
    // termination; then files and sockets, so that blocked reads return.
    for (int slot = 0; slot < SHUTDOWN_HOOK_COUNT; ++slot) {
        ShutdownHookFunction hook = shutdownHooks()[slot].load();
        if (hook)
            hook();
    }
}

void HvThread::sAsyncShutdown()
{
    Velmora::TraceScope trace(logger(), "HvThread::sAsyncShutdown", kSource, __LINE__);
    sInitiateShutdown();
}

bool HvThread::sIsShutdownCompleted()
{
    Velmora::TraceScope trace(logger(), "HvThread::sIsShutdownCompleted", kSource, __LINE__);
    return sGetThreadCount() == 0 && fs_liveThreads.load(std::memory_order_acquire) == 0;
}

bool HvThread::sWaitUntilDone()
{
    Velmora::TraceScope trace(logger(), "HvThread::sWaitUntilDone", kSource, __LINE__);
    // Never made here: no thread may be constructed once the shutdown began.
    HvProcess* process = HvProcess::sm_pTheOneAndOnly.load();
    // A registered thread waiting for the others cannot wait for itself: it
    // leaves the table only after this returns.
    const unsigned int ownEntry = fs_pCurrentThread ? 1 : 0;
    const int ownLive = fs_bCurrentIsLive ? 1 : 0;
    for (;;) {
        const unsigned int tableSize = sGetThreadCount();
        const unsigned int count = tableSize > ownEntry ? tableSize - ownEntry : 0;
        const int live = fs_liveThreads.load(std::memory_order_acquire) - ownLive;
        if (count == 0 && live <= 0)
            break;
        if (count == 0) {
            // Threads about to register or finishing main(): a matter of
            // moments, and none of them signals the process again.
            struct timespec pause = {0, 1000 * 1000};
            nanosleep(&pause, nullptr);
            continue;
        }
        if (logger().isEnabledFor(Velmora::Logger::DEBUG))
            logDebug("Waiting 100ms for HvProcess. Thread table size = " + std::to_string(tableSize), 268);
        if (!process || process->getState() == EXITING) {
            // Without a process object, or with a terminated one that does
            // not sleep in wait(): pause here instead of spinning.
            struct timespec pause = {0, 100 * 1000 * 1000};
            nanosleep(&pause, nullptr);
        } else {
            process->wait(100);
        }
    }
    return true;
}

void HvThread::sShutdown()
{
    Velmora::TraceScope trace(logger(), "HvThread::sShutdown", kSource, __LINE__);
    sInitiateShutdown();
    if (logger().isEnabledFor(Velmora::Logger::DEBUG))
        logDebug("threadNum=" + std::to_string(fs_threadNum.load(std::memory_order_relaxed)), 253);
    sWaitUntilDone();
}
