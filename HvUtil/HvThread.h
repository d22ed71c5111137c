// Base of every thread of the library: an observable that owns one POSIX
// thread, runs the subclass's run() on it, sleeps in wait() until signal(),
// and is registered in the process-wide thread table while it runs. The
// static shutdown protocol stops every registered thread, wakes the
// dispatchers' queues and closes files and sockets.
#ifndef HVUTIL_HVTHREAD_H
#define HVUTIL_HVTHREAD_H

#include <HvUtil/HvObservable.h>

#include <pthread.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>

class HvTokenTable;

// Start routine given to pthread_create: calls main() on its argument.
extern "C" void* HvThread_StartProc(void* thread);

class HvThread : public HvObservable {
public:
    enum State {
        DETACHED = 0,
        INITIALIZING = 1,
        RUNNING = 2,
        BLOCKED = 3,
        EXITING = 4
    };

    // wait() argument meaning "no time-out".
    static constexpr unsigned int kNoTimeout = 4294967295u;

    // Only destroys the bases (and the wait mutex and condition variable).
    ~HvThread() override;

    HvThread(const HvThread&) = delete;
    HvThread& operator=(const HvThread&) = delete;

    // Not a blockable source: throws HvException "Not yet implemented".
    bool block() override;
    // The thread's work; runs on the thread started by fork().
    virtual void run() = 0;
    // Stop request: sets EXITING; a RUNNING or BLOCKED thread is also
    // signalled so that a wait() in progress returns and sees the request.
    virtual void terminate();
    // Wakes one wait(); a signal that comes before the wait() is kept.
    virtual void signal();
    // Verbose object display, a tab, the token, a tab, the state's display
    // name and a line end.
    virtual void display(HvOutputStream& out) const;
    using HvObject::display;

    // Starts the detached POSIX thread that runs main(). Throws
    // HvAssertionFailure "HvThread::fork() on already running thread" unless
    // the state is DETACHED, and HvSystemError named after the failed call
    // ("pthread_attr_init", "pthread_attr_setdetachstate",
    // "pthread_attr_setinheritsched", "pthread_attr_setschedpolicy",
    // "pthread_create", "pthread_attr_destroy"); after a failure the state
    // stays INITIALIZING. With sm_bRealTimeScheduling the thread runs
    // SCHED_RR at the middle of that policy's priority range.
    void fork();

    // Body of every thread: registers it, runs run() unless the thread was
    // terminated first, catches HvException escaping run(), unregisters.
    // On the process object it runs the shutdown protocol after run().
    void main();

    // Sleeps until signalled or until the time-out (kNoTimeout: none).
    // Returns at once when the state is EXITING or a signal is pending; one
    // wait consumes every pending signal. The time-out is measured on the
    // wall clock (HvTime::sReadWallClock), or on CLOCK_MONOTONIC while
    // HvTime::sm_bMonotonicClock is set.
    void wait(unsigned int milliseconds);

    // A thread that sees a state also sees what the thread wrote before it
    // entered that state (a worker seen BLOCKED has finished its last job).
    State getState() const { return m_state.load(std::memory_order_acquire); }
    void setState(State state) { m_state.store(state, std::memory_order_release); }
    // Id of the POSIX thread; 0 until the thread has started.
    pthread_t getToken() const { return m_token.load(std::memory_order_relaxed); }
    // Signals received and not yet consumed by wait().
    unsigned int getSignalCount() const;

    // Display name of a state; "UNKNOWN STATE" for any other value.
    static const char* sGetStateName(int state);

    // pthread_self() of the caller.
    static pthread_t sGetCurrentThreadToken();
    // The registered thread with this token (null if none); the process
    // object when no thread table exists yet. The pointer is borrowed.
    static HvThread* sGetByToken(pthread_t token);
    // The calling thread's own object while it is registered by main(), else
    // null: the same answer as sGetByToken(sGetCurrentThreadToken()) for
    // forked threads, without a table look-up.
    static HvThread* sGetCurrentRegistered();
    // Table maintenance; the table holds one reference on each thread.
    static void sAddThread(HvThread* thread);
    static void sRemoveThread(HvThread* thread);
    // Creates the thread table once; the first call also makes the default
    // error stream, before any thread is forked, so that threads never race
    // to create it.
    static void initialize();
    // Number of threads in the table (0 without a table).
    static unsigned int sGetThreadCount();
    // True once the shutdown protocol has begun; never cleared.
    static bool sShuttingDown();
    // Number of HvThread objects ever constructed.
    static int sGetThreadNum();
    // Displays every registered thread, one line each.
    static void sDisplayThreads(HvOutputStream& out);

    // Shutdown protocol. sInitiateShutdown: sets the shutdown flag (no
    // HvThread may be constructed afterwards), terminates every registered
    // thread but the process, then runs the installed shutdown hooks in slot
    // order. sAsyncShutdown: only that. sWaitUntilDone: waits on the process
    // object (or sleeps, when there is none) in rounds of at most 100 ms
    // until no thread is registered or starting or finishing; a registered
    // thread that calls it does not wait for itself. True when done.
    // sShutdown: initiate, then wait.
    static void sShutdown();
    static void sInitiateShutdown();
    static void sAsyncShutdown();
    static bool sWaitUntilDone();
    // True when no thread is registered, starting or finishing main().
    static bool sIsShutdownCompleted();

    // Shutdown steps that belong to classes built on threads. Their owners
    // install one function per slot (typically when they are first created);
    // sInitiateShutdown() calls the installed ones after terminating the
    // threads, in slot order: the five dispatcher queues are woken so that
    // consumers blocked in getItem() return, then file input streams and
    // sockets are closed so that blocked reads return. An empty slot is
    // skipped, and a hook is expected to do nothing when its object does not
    // exist. Installing returns the previous function of the slot.
    enum ShutdownHook {
        WAKE_TIMER_DISPATCHER_QUEUE = 0,
        WAKE_UDP_INPUT_DISPATCHER_QUEUE,
        WAKE_TCP_INPUT_DISPATCHER_QUEUE,
        WAKE_UDP_OUTPUT_DISPATCHER_QUEUE,
        WAKE_TCP_OUTPUT_DISPATCHER_QUEUE,
        CLOSE_FILE_INPUT_STREAMS,
        CLOSE_SOCKETS,
        SHUTDOWN_HOOK_COUNT
    };
    using ShutdownHookFunction = void (*)();
    static ShutdownHookFunction sSetShutdownHook(ShutdownHook slot, ShutdownHookFunction hook);

    // Absolute wait() deadline: now plus milliseconds, nanoseconds carried
    // into the next second when they pass 999999999.
    static struct timespec sComputeDeadline(const struct timeval& now, unsigned int milliseconds);

    // Scheduling of threads started by fork(). Default true: explicit
    // SCHED_RR at the middle real-time priority, so that the library's
    // threads are not starved by ordinary work. Creating such threads needs
    // privilege (CAP_SYS_NICE or an RLIMIT_RTPRIO allowance); an unprivileged
    // process gets HvSystemError "pthread_create" (EPERM) from fork(). A
    // program without that privilege sets this to false before forking, and
    // its threads then inherit the creator's scheduling. fork() never falls
    // back from one to the other by itself.
    static std::atomic<bool> sm_bRealTimeScheduling;

    // Thread table: token to HvThread; created by initialize(), its
    // reference is never released. Guarded by the module's table lock.
    static HvTokenTable* sm_pThreadTable;

    // Test seam, null unless a test installs one: called on a forked thread
    // near the end of main(), after it has set DETACHED and before it leaves
    // the thread table, the moment from which the object may be forked again.
    static std::atomic<void (*)(HvThread*)> sm_pDetachedHook;

protected:
    // For threads that will be forked; makes sure the process object exists.
    // Raises Velmora::Assertion "!fs_bShutDown" after shutdown began.
    HvThread();
    // For the process object; the argument is not used. Creates the thread
    // table. Raises Velmora::Assertion "!fs_bShutDown" after shutdown began.
    explicit HvThread(HvThread* unused);

    void setToken(pthread_t token) { m_token.store(token, std::memory_order_relaxed); }

    // Called on the thread at the end of main(), after run() returned or was
    // skipped and before the thread leaves the table. Does nothing here.
    virtual void onMainExit();

private:
    // First table key tried for a thread id: pthread_t is wider than the
    // table's token, so two ids may fold to one key; registration then takes
    // the next free one.
    static unsigned int sKeyOf(pthread_t token);
    // Removes the entry registered for `token` if it is `thread`'s.
    static void mRemoveThread(HvThread* thread, pthread_t token);
    void initializeWaiting();
    // The steps of main(); forkReference tells whether fork() took the
    // reference that is given back at the end.
    void mMain(bool forkReference);

    std::atomic<pthread_t> m_token;
    std::atomic<State> m_state;
    unsigned int m_signals;
    mutable pthread_mutex_t m_waitMutex;
    pthread_cond_t m_wakeup;
    // Set by fork() when it takes the reference that main() gives back;
    // main() takes it over and clears it, so that a later direct call of
    // main() gives back nothing.
    std::atomic<bool> m_bForkReference;
};

#endif
