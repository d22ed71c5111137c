// Input stream over a POSIX file descriptor. Every descriptor a stream uses
// is registered process-wide, so that sShutdown() can close them all and
// threads blocked reading them get out at shutdown.
#ifndef HVUTIL_HVFILEINPUTSTREAM_H
#define HVUTIL_HVFILEINPUTSTREAM_H

#include <HvUtil/HvInputStream.h>

#include <sys/types.h>

class HvFileInputStream : public HvInputStream {
public:
    // Opens `path` read-only; the stream owns the descriptor. Throws
    // HvAssertionFailure "filename expected" (file "HvFileInputStream", line
    // 88) for a nil path and HvSystemError named after the path when the
    // open fails.
    explicit HvFileInputStream(const char* path);
    // Wraps an open descriptor without owning it: the stream never closes
    // it, and it stays registered after the stream is gone, so that
    // sShutdown() still closes it.
    explicit HvFileInputStream(int fd);
    // An owning stream unregisters and closes its descriptor; a descriptor
    // that sShutdown() already closed is not closed a second time.
    ~HvFileInputStream() override;

    // One byte as 0 to 255, -1 at the end of the file. Throws HvSystemError
    // "HvFileInputStream::read" when the read fails.
    int read() override;
    // One read of up to `length` bytes to buffer + offset: the count, -1 at
    // the end of the file or when the read fails. A read that yields exactly
    // one byte throws HvSystemError "HvFileInputStream::read" (callers rely
    // on this; the byte is consumed). A nil buffer reads nothing and gives 0.
    int read(void* buffer, unsigned int length, unsigned int offset) override;
    using HvInputStream::read;
    // Seeks forward by `count` on a seekable file (even past its end) and
    // returns the distance moved; reads and discards otherwise. Throws
    // HvSystemError "HvFileInputStream::skip" when a seek fails.
    unsigned int skip(unsigned int count) override;
    // Always 0.
    unsigned int available() override;
    // True when the descriptor is seekable.
    bool markSupported() override;
    // Remembers the file offset (seekable files only; the limit is ignored).
    // Throws HvSystemError "HvFileInputStream::mark" when it cannot be read.
    void mark(unsigned int readLimit) override;
    // Seeks back to the mark and forgets it; silent without a mark or on a
    // descriptor that cannot seek. Throws HvSystemError
    // "HvFileInputStream::reset" when the seek fails.
    void reset() override;
    // Seekable files: notifies the observer with a nil tick and returns
    // true. Otherwise throws HvException "HvFileInputStream::block
    // implementation pending".
    bool block() override;

    // The descriptor the stream reads.
    int getDescriptor() const { return m_fd; }
    // Whether lseek() worked on the descriptor when the stream was made.
    bool isSeekable() const { return m_seekable; }
    // Whether the stream opened the descriptor itself and closes it.
    bool isOwner() const { return m_owner; }

    // Closes every registered descriptor, under the library-wide critical
    // section; the process-exit clean-up for files that streams still hold.
    // Streams still alive keep their descriptor number, which then refers to
    // nothing readable (their reads fail, their seeks throw), so that no
    // stream ever reads, seeks or closes a file that reused the number; a
    // thread blocked reading a pipe or FIFO returns from its read. Installed
    // as the shutdown protocol's file step.
    static void sShutdown();
    // Whether `fd` is in the registered set now.
    static bool sIsRegistered(int fd);

    // Nifty counter: one static instance in every file that includes this
    // header; the first one made creates the descriptor set and installs
    // sShutdown() as the shutdown protocol's file step.
    class HvInitializer {
    public:
        HvInitializer();
        ~HvInitializer();
        HvInitializer(const HvInitializer&) = delete;
        HvInitializer& operator=(const HvInitializer&) = delete;
    };

private:
    // Descriptors of pipes, FIFOs and terminals: waits until the read will
    // not block, or until a shutdown replaced the descriptor.
    void waitUntilReadable() const;
    void registerDescriptor();

    int m_fd;
    off_t m_markOffset;
    bool m_markValid;
    bool m_seekable;
    bool m_owner;
};

static HvFileInputStream::HvInitializer fs_fileInputStreamInitializer;

#endif
