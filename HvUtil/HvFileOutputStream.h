// Output stream over a POSIX file descriptor.
#ifndef HVUTIL_HVFILEOUTPUTSTREAM_H
#define HVUTIL_HVFILEOUTPUTSTREAM_H

#include <HvUtil/HvOutputStream.h>

#include <vector>

class HvFileOutputStream : public HvOutputStream {
public:
    // Opens (creating with mode 0644) `path` for reading and writing; the
    // stream owns the descriptor. The file is neither truncated nor appended
    // to: writing starts at its beginning and leaves any longer tail in
    // place (callers rely on this; empty() truncates). Throws
    // HvAssertionFailure "filename expected" (file "HvFileOutputStream", line
    // 50) for a nil path and HvSystemError named after the path when the
    // open fails.
    explicit HvFileOutputStream(const char* path);
    // Wraps an open descriptor without owning it.
    explicit HvFileOutputStream(int fd);
    // Closes every descriptor the stream opened itself.
    ~HvFileOutputStream() override;

    // Reopens `path` truncated, write-only, and writes there from now on.
    // The previous descriptor is not closed here; one the stream opened
    // itself is closed with the stream. Throws HvAssertionFailure "filename
    // expected" (file "HvFileOutputStream", line 90) for a nil path and
    // HvSystemError named after the path when the open fails.
    void empty(const char* path);

    // Writes the low byte.
    void write(int byte) override;
    // Writes all `length` bytes from buffer + offset, going on after partial
    // writes. Throws HvSystemError "HvFileOutputStream::write" when a write
    // fails. A nil buffer writes nothing.
    void write(const void* buffer, unsigned int length, unsigned int offset) override;
    using HvOutputStream::write;

    // The descriptor written to.
    int getDescriptor() const { return m_fd; }
    // Whether the stream opened its current descriptor itself and closes it.
    bool isOwner() const { return m_owner; }

private:
    int m_fd;
    bool m_owner;
    // Descriptors this stream opened and empty() replaced.
    std::vector<int> m_replaced;
};

#endif
