// A child program under test: spawned with posix_spawn, its stdout and stderr
// captured through pipes, lines read with a time bound, signals sent, and its
// exit waited for with a time bound (a child that overstays is killed with
// SIGKILL and the test fails). Everything the child wrote stays available as
// text. Header-only; one object per child, used from one test thread.
#ifndef HVUTIL_TESTS_HVTESTPROCESS_H
#define HVUTIL_TESTS_HVTESTPROCESS_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

extern char** environ;

namespace hvtest {

// Default bound for reading a line and for waiting for an exit.
constexpr int kProcessTimeoutMs = 20000;

// waitExit() result when the child had to be killed after the time-out.
constexpr int kProcessTimedOut = -1;

class TestProcess {
public:
    // Starts `program` with `arguments` (not counting argv[0], which is the
    // program path). Signals are unblocked and at their default action in the
    // child whatever the test process does with them; stdin is /dev/null.
    // started() tells whether the spawn worked; a failure is also reported.
    TestProcess(const std::string& program, const std::vector<std::string>& arguments)
    {
        int out[2] = {-1, -1};
        int err[2] = {-1, -1};
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe2: " << std::strerror(errno);
            closeAll(out, err);
            return;
        }
        std::vector<std::string> words;
        words.push_back(program);
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(&word[0]);
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigemptyset(&none);
        sigset_t defaults;
        sigemptyset(&defaults);
        for (int sig : {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2})
            sigaddset(&defaults, sig);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &defaults);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

        pid_t child = -1;
        int result = posix_spawn(&child, program.c_str(), &actions, &attributes, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        close(out[1]);
        close(err[1]);
        if (result != 0) {
            ADD_FAILURE() << "posix_spawn " << program << ": " << std::strerror(result);
            close(out[0]);
            close(err[0]);
            return;
        }
        m_pid = child;
        m_out.descriptor = out[0];
        m_err.descriptor = err[0];
    }

    // A child still running is killed with SIGKILL and reaped.
    ~TestProcess()
    {
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            int status = 0;
            while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
            }
        }
        if (m_out.descriptor >= 0)
            close(m_out.descriptor);
        if (m_err.descriptor >= 0)
            close(m_err.descriptor);
    }

    TestProcess(const TestProcess&) = delete;
    TestProcess& operator=(const TestProcess&) = delete;

    bool started() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }

    // The next line the child wrote to stdout, without its line feed. False
    // when none came within the bound or stdout ended first (a last line
    // without a line feed is still given).
    bool readLine(std::string& line, int timeoutMs = kProcessTimeoutMs) { return readLineFrom(m_out, line, timeoutMs); }

    // The same for stderr.
    bool readErrorLine(std::string& line, int timeoutMs = kProcessTimeoutMs)
    {
        return readLineFrom(m_err, line, timeoutMs);
    }

    // Sends `sig` to the child; false when it could not be sent.
    bool signal(int sig) { return started() && !m_reaped && kill(m_pid, sig) == 0; }

    // Waits for the child to end, reading its output meanwhile so that it
    // never blocks on a full pipe. Returns the exit status, 128 + the signal
    // number when a signal ended it, or kProcessTimedOut when it was still
    // running after `timeoutMs` (it is then killed and the test fails).
    int waitExit(int timeoutMs = kProcessTimeoutMs)
    {
        if (!started())
            return kProcessTimedOut;
        if (m_reaped)
            return m_exitStatus;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            int status = 0;
            pid_t done = waitpid(m_pid, &status, WNOHANG);
            if (done == m_pid) {
                m_reaped = true;
                m_exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                // Whatever is still in the pipes; bounded in case a
                // descendant keeps a write end open.
                drainUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(2000));
                return m_exitStatus;
            }
            if (done < 0 && errno != EINTR) {
                ADD_FAILURE() << "waitpid: " << std::strerror(errno);
                return kProcessTimedOut;
            }
            int left = remainingMs(deadline);
            if (left <= 0)
                break;
            pollOnce(std::min(left, 10));
        }
        ADD_FAILURE() << "child " << m_pid << " still running after " << timeoutMs << " ms; killed";
        kill(m_pid, SIGKILL);
        int status = 0;
        while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_reaped = true;
        m_exitStatus = kProcessTimedOut;
        return m_exitStatus;
    }

    // Everything the child wrote to stdout / stderr so far, including what
    // readLine() already gave.
    const std::string& outText() const { return m_out.text; }
    const std::string& errText() const { return m_err.text; }

    // Reads what is ready on both pipes without waiting.
    void collect() { pollOnce(0); }

private:
    struct Pipe {
        int descriptor = -1;
        std::string text;
        std::size_t consumed = 0;
    };

    static int remainingMs(std::chrono::steady_clock::time_point deadline)
    {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        return static_cast<int>(left.count());
    }

    static void closeAll(int* out, int* err)
    {
        for (int* pair : {out, err}) {
            for (int i = 0; i < 2; ++i) {
                if (pair[i] >= 0)
                    close(pair[i]);
            }
        }
    }

    // Appends what one read gives; closes the pipe at its end.
    static void readSome(Pipe& pipe)
    {
        char buffer[8192];
        ssize_t got = ::read(pipe.descriptor, buffer, sizeof buffer);
        if (got > 0) {
            pipe.text.append(buffer, static_cast<std::size_t>(got));
        } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
            close(pipe.descriptor);
            pipe.descriptor = -1;
        }
    }

    // Waits up to `timeoutMs` for either pipe and reads from each one ready.
    // Returns false when both pipes have ended.
    bool pollOnce(int timeoutMs)
    {
        pollfd entries[2] = {{m_out.descriptor, POLLIN, 0}, {m_err.descriptor, POLLIN, 0}};
        if (m_out.descriptor < 0 && m_err.descriptor < 0)
            return false;
        int ready = poll(entries, 2, timeoutMs);
        if (ready <= 0)
            return true;
        if (entries[0].revents != 0 && m_out.descriptor >= 0)
            readSome(m_out);
        if (entries[1].revents != 0 && m_err.descriptor >= 0)
            readSome(m_err);
        return true;
    }

    void drainUntil(std::chrono::steady_clock::time_point deadline)
    {
        while (m_out.descriptor >= 0 || m_err.descriptor >= 0) {
            int left = remainingMs(deadline);
            if (left <= 0)
                return;
            pollOnce(left);
        }
    }

    bool readLineFrom(Pipe& pipe, std::string& line, int timeoutMs)
    {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            std::size_t end = pipe.text.find('\n', pipe.consumed);
            if (end != std::string::npos) {
                line = pipe.text.substr(pipe.consumed, end - pipe.consumed);
                pipe.consumed = end + 1;
                return true;
            }
            if (pipe.descriptor < 0) {
                if (pipe.consumed < pipe.text.size()) {
                    line = pipe.text.substr(pipe.consumed);
                    pipe.consumed = pipe.text.size();
                    return true;
                }
                return false;
            }
            int left = remainingMs(deadline);
            if (left <= 0)
                return false;
            // Both pipes are read, so that a child writing much to the other
            // one never blocks while this one is awaited.
            pollOnce(std::min(left, 50));
        }
    }

    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_exitStatus = kProcessTimedOut;
    Pipe m_out;
    Pipe m_err;
};

// What runProcess() saw.
struct ProcessResult {
    int exitStatus = kProcessTimedOut;
    std::string out;
    std::string err;
};

// Runs `program` to its end (bounded) and gives its exit status and output.
inline ProcessResult runProcess(const std::string& program, const std::vector<std::string>& arguments,
                                int timeoutMs = kProcessTimeoutMs)
{
    TestProcess child(program, arguments);
    ProcessResult result;
    if (!child.started())
        return result;
    result.exitStatus = child.waitExit(timeoutMs);
    result.out = child.outText();
    result.err = child.errText();
    return result;
}

} // namespace hvtest

#endif
