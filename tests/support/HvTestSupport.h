// Helpers that several test programs share: reading back what was written,
// catching thrown HvExceptions, recording Velmora assertions, bounded waits,
// destruction counters, leak checks and thread-test fixtures. Header-only;
// each test file includes it after the header under test.
#ifndef HVUTIL_TESTS_HVTESTSUPPORT_H
#define HVUTIL_TESTS_HVTESTSUPPORT_H

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvThread.h>

#include <Velmora/Assertion.h>
#include <Velmora/MemAllocator.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace hvtest {

// ---------------------------------------------------------------- written text

// The bytes collected by `out`, as a string.
inline std::string textOf(const HvByteArrayOutputStream& out)
{
    HvHandle<HvByteArray> bytes = out.toByteArray();
    if (bytes.isNull()) {
        ADD_FAILURE() << "toByteArray() gave no array";
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
}

// What the one-argument display(out) of `object` writes.
template <class T>
std::string displayOf(const T& object)
{
    HvByteArrayOutputStream out(0);
    object.display(out);
    return textOf(out);
}

// What HvObject::display(out, verbose) writes for `object`.
inline std::string displayOf(const HvObject& object, bool verbose)
{
    HvByteArrayOutputStream out(0);
    object.display(out, verbose);
    return textOf(out);
}

// An address as the library prints it: at least eight upper-case hex digits.
inline std::string hexAddress(const void* p)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%08lX", reinterpret_cast<unsigned long>(p));
    return buffer;
}

// True for the compiler's __DATE__ " " __TIME__, e.g. "Jan  1 2024 12:00:00".
inline bool looksLikeCompileTimestamp(const char* timestamp)
{
    return timestamp &&
           std::regex_match(timestamp, std::regex("[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}"));
}

// Installs, for its lifetime, a default error stream that writes into memory
// with the "HvException" debug mode set (unless told not to); puts the
// previous default back.
class DebugOutputCapture {
public:
    explicit DebugOutputCapture(bool withMode = true) : m_target(0), m_stream(new HvErrorStream(&m_target))
    {
        if (withMode)
            m_stream->setDebugMode(HvString(HvException::sDebugToken));
        m_previous = HvErrorStream::sSetDefault(m_stream.get());
    }
    ~DebugOutputCapture() { HvErrorStream::sSetDefault(m_previous); }
    DebugOutputCapture(const DebugOutputCapture&) = delete;
    DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

    // What was written to the stream so far.
    std::string text() const { return textOf(m_target); }
    HvErrorStream& stream() { return *m_stream; }

private:
    HvByteArrayOutputStream m_target;
    HvHandle<HvErrorStream> m_stream;
    HvErrorStream* m_previous = nullptr;
};

// ---------------------------------------------------------------- exceptions

// Runs f and returns the HvException it threw, or an empty handle.
template <class F>
HvHandle<HvException> thrownBy(F f)
{
    try {
        f();
    } catch (HvHandle<HvException>& e) {
        return e;
    }
    return HvHandle<HvException>();
}

// Runs f on a thread of its own and returns the HvException it threw there,
// or an empty handle.
template <class F>
HvHandle<HvException> thrownOnOtherThread(F f)
{
    HvHandle<HvException> thrown;
    std::thread other([&] { thrown = thrownBy(f); });
    other.join();
    return thrown;
}

// The message of the HvException that f throws, or "<no exception>".
template <class F>
std::string messageOf(F f)
{
    HvHandle<HvException> e = thrownBy(f);
    return e.isNull() ? std::string("<no exception>") : std::string(e->getMessage().c_str());
}

// Checks that f throws an HvException of no subclass, with this message.
template <class F>
void expectPlainHvException(F f, const char* message)
{
    HvHandle<HvException> e = thrownBy(f);
    ASSERT_FALSE(e.isNull()) << "no exception";
    EXPECT_STREQ("HvException", e->getClassName());
    EXPECT_STREQ(message, e->getMessage().c_str());
}

// ---------------------------------------------------------------- assertions

// One call of the Velmora assertion handler.
struct AssertionRecord {
    std::string text;
    std::string file;
    int line = 0;
};

// Every assertion recorded since the last clear; handlers may run on any thread.
inline std::mutex fs_assertionMutex;
inline std::vector<AssertionRecord> fs_assertions;

// Assertion handler that records text, file and line and lets the caller go on.
inline void recordAssertion(const char* text, const char* file, int line)
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    fs_assertions.push_back(AssertionRecord{text ? text : "", file ? file : "", line});
}

// Assertion handler that does nothing, for tests that provoke assertions on purpose.
inline void ignoreAssertion(const char*, const char*, int) {}

// Forgets the assertions recorded so far.
inline void clearAssertions()
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    fs_assertions.clear();
}

// The assertions recorded so far, oldest first.
inline std::vector<AssertionRecord> recordedAssertions()
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    return fs_assertions;
}

// How many assertions were recorded so far.
inline std::size_t assertionCount()
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    return fs_assertions.size();
}

// The latest recorded assertion; an empty record when there is none.
inline AssertionRecord lastAssertion()
{
    std::lock_guard<std::mutex> lock(fs_assertionMutex);
    return fs_assertions.empty() ? AssertionRecord() : fs_assertions.back();
}

// Checks a recorded assertion's text, file and line.
inline void expectAssertion(const AssertionRecord& record, const std::string& text, const std::string& file, int line)
{
    EXPECT_EQ(text, record.text);
    EXPECT_EQ(file, record.file);
    EXPECT_EQ(line, record.line);
}

// Installs an assertion handler (recordAssertion unless told) with an empty
// record for its lifetime, then puts the previous handler back.
class AssertionScope {
public:
    explicit AssertionScope(Velmora::Assertion::Handler handler = &recordAssertion)
    {
        clearAssertions();
        m_previous = Velmora::Assertion::sSetHandler(handler);
    }
    ~AssertionScope() { Velmora::Assertion::sSetHandler(m_previous); }
    AssertionScope(const AssertionScope&) = delete;
    AssertionScope& operator=(const AssertionScope&) = delete;

private:
    Velmora::Assertion::Handler m_previous = nullptr;
};

// ---------------------------------------------------------------- leaks

// Blocks of an allocation tag ("HvStringBuffer", "HvMutex", ...) alive now.
inline long liveCount(const char* tag)
{
    return Velmora::allocationStats(tag).liveCount;
}

// HvStringBuffer blocks alive now.
inline long liveStringBuffers()
{
    return liveCount("HvStringBuffer");
}

// Live HvMutex blocks, counted after the object mutex pool exists so that
// building the pool on first use does not show as a leak.
inline long liveMutexesBeyondPool()
{
    HvMutex::sInitialize();
    return liveCount("HvMutex");
}

// Declared first in a test, so that it is checked after every handle of the
// test is gone: the test must give back every block of `tag` it made.
class LeakCheck {
public:
    explicit LeakCheck(const char* tag) : m_tag(tag), m_before(liveCount(tag)) {}
    ~LeakCheck() { EXPECT_EQ(liveCount(m_tag), m_before) << m_tag << " blocks leaked"; }
    LeakCheck(const LeakCheck&) = delete;
    LeakCheck& operator=(const LeakCheck&) = delete;

private:
    const char* m_tag;
    long m_before;
};

// ---------------------------------------------------------------- counted objects

// Base, made to add one to a counter the test owns when it is destroyed.
template <class Base, class Counter = int>
class Counted : public Base {
public:
    template <class... Args>
    explicit Counted(Counter& destroyed, Args&&... args) : Base(std::forward<Args>(args)...), m_destroyed(destroyed)
    {
    }
    ~Counted() override { ++m_destroyed; }

private:
    Counter& m_destroyed;
};

using CountingObject = Counted<HvObject>;
using CountingObservable = Counted<HvObservable>;

// A table value with an id; every destruction adds one to sDestroyed.
class CountedValue : public HvObject {
public:
    explicit CountedValue(int id = 0) : m_id(id) {}
    ~CountedValue() override { ++sDestroyed; }
    int id() const { return m_id; }

    static inline std::atomic<int> sDestroyed{0};

private:
    int m_id;
};

// One notification as an observer saw it: addresses only, so that keeping
// it holds no count on the sender or the object.
struct Note {
    const HvObservable* sender;
    const HvObject* object;
    // The exception's message when the object is an HvException.
    std::string message;
};

// Keeps a Note per notification; throws HvException throwText when it is set.
class NoteTakingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        Note note{source.get(), object.get(), std::string()};
        if (const HvException* e = dynamic_cast<const HvException*>(object.get()))
            note.message = e->getMessage().c_str();
        notes.push_back(note);
        if (throwText)
            HvException::sThrow(throwText);
    }

    std::vector<Note> notes;
    const char* throwText = nullptr;
};

using CountingObserver = Counted<NoteTakingObserver>;

// Checks that notes[index] came from `sender` and carried `object`.
template <class NoteType>
void expectNote(const std::vector<NoteType>& notes, std::size_t index, const HvObservable* sender,
                const HvObject* object)
{
    ASSERT_LT(index, notes.size());
    EXPECT_EQ(sender, notes[index].sender);
    EXPECT_EQ(object, notes[index].object);
}

// ---------------------------------------------------------------- threads

// Polls `condition` every millisecond until it holds or `limit` has passed;
// returns whether it held.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = std::chrono::milliseconds(10000))
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// How long a waiter is given to (wrongly) get through a lock that is held.
constexpr std::chrono::milliseconds kHoldWindow(50);

// What runExclusively() saw: the final counter and how often two threads were inside at once.
struct ExclusionResult {
    long counter = 0;
    int overlaps = 0;
};

// Runs `threads` threads that each add one to a plain counter `rounds` times
// between enter() and leave(); a working lock leaves no overlaps.
inline ExclusionResult runExclusively(int threads, int rounds, const std::function<void()>& enter,
                                      const std::function<void()>& leave)
{
    long counter = 0;
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                enter();
                if (inside.fetch_add(1) != 0)
                    overlaps.fetch_add(1);
                ++counter;
                inside.fetch_sub(1);
                leave();
            }
        });
    }
    for (std::thread& thread : running)
        thread.join();
    return ExclusionResult{counter, overlaps.load()};
}

// Test environment that turns real-time scheduling off: tests run without
// privilege, so threads inherit the default scheduling unless a test asks.
class DefaultScheduling : public ::testing::Environment {
public:
    void SetUp() override { HvThread::sm_bRealTimeScheduling = false; }
};

// Registers DefaultScheduling for the test program; call once at namespace scope.
inline ::testing::Environment* useDefaultScheduling()
{
    return ::testing::AddGlobalTestEnvironment(new DefaultScheduling);
}

// A thread whose body is given by the test; counts how often run() ran.
class LambdaThread : public HvThread {
public:
    explicit LambdaThread(std::function<void(LambdaThread&)> body = nullptr) : m_body(std::move(body)) {}
    void run() override
    {
        runCount.fetch_add(1);
        if (m_body)
            m_body(*this);
    }
    std::atomic<int> runCount{0};

private:
    std::function<void(LambdaThread&)> m_body;
};

// A thread built with the process object's constructor.
class ProcessStyleThread : public HvThread {
public:
    ProcessStyleThread() : HvThread(nullptr) {}
    void run() override {}
};

// True once the thread's main() has ended and it has left the thread table.
inline bool hasEnded(HvThread* thread)
{
    return thread->getState() == HvThread::DETACHED && thread->getToken() != 0 &&
           HvThread::sGetByToken(thread->getToken()) != thread;
}

} // namespace hvtest

#endif
