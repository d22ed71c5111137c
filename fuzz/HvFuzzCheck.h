// What every fuzz target uses to fail: a broken invariant prints what
// differed and aborts, which libFuzzer records as a crash with its input and
// the replay driver turns into a failing test.
#ifndef HVUTIL_FUZZ_HVFUZZCHECK_H
#define HVUTIL_FUZZ_HVFUZZCHECK_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

// For the target's own checking code: comparisons there are not the code
// under test, and tracing each one for the fuzzer's feedback only slows it.
#if defined(__clang__)
#define HV_FUZZ_NOT_TRACED __attribute__((no_sanitize("coverage")))
#else
#define HV_FUZZ_NOT_TRACED
#endif

namespace hvfuzz {

[[noreturn]] inline void fail(const char* file, int line, const char* what, const std::string& detail)
{
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, what);
    if (!detail.empty())
        std::fprintf(stderr, "  %s\n", detail.c_str());
    std::fflush(stderr);
    std::abort();
}

// Printable form of bytes for the failure report: control bytes and bytes
// above 126 as \xNN, so that CRs, NULs and binary data stay visible.
inline std::string quoted(const std::string& bytes)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string out = "\"";
    for (unsigned char c : bytes) {
        if (c >= 32 && c < 127 && c != '\\' && c != '"') {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += kDigits[c >> 4];
            out += kDigits[c & 15];
        }
    }
    return out + "\"";
}

} // namespace hvfuzz

#define HV_FUZZ_CHECK(condition, detail)                                                                   \
    do {                                                                                                   \
        if (!(condition))                                                                                  \
            ::hvfuzz::fail(__FILE__, __LINE__, #condition, (detail));                                      \
    } while (0)

#endif
