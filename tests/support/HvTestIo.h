// Whole transfers over a descriptor for tests and benchmarks: each call
// retries short reads and writes until everything has moved. Header-only and
// free of GoogleTest, so that benchmarks can use it too.
#ifndef HVUTIL_TESTS_HVTESTIO_H
#define HVUTIL_TESTS_HVTESTIO_H

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

namespace hvtest {

// Calls `transfer(bytes, left)` until `size` bytes have moved; false when it
// fails (other than by a signal) or moves nothing.
template <typename Byte, typename Transfer>
bool transferAll(Byte* bytes, std::size_t size, Transfer transfer)
{
    while (size > 0) {
        ssize_t done = transfer(bytes, size);
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return false;
        bytes += done;
        size -= static_cast<std::size_t>(done);
    }
    return true;
}

// Sends all of `data` on a socket, without SIGPIPE; false when a send fails.
inline bool sendAll(int descriptor, const std::string& data)
{
    return transferAll(data.data(), data.size(), [descriptor](const char* bytes, std::size_t size) {
        return ::send(descriptor, bytes, size, MSG_NOSIGNAL);
    });
}

inline bool writeAll(int descriptor, const void* data, std::size_t size)
{
    return transferAll(static_cast<const char*>(data), size,
                       [descriptor](const char* bytes, std::size_t left) { return ::write(descriptor, bytes, left); });
}

// False also when the other end closes before `size` bytes came.
inline bool readAll(int descriptor, void* data, std::size_t size)
{
    return transferAll(static_cast<char*>(data), size,
                       [descriptor](char* bytes, std::size_t left) { return ::read(descriptor, bytes, left); });
}

} // namespace hvtest

#endif
