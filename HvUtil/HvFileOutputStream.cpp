#include <HvUtil/HvFileOutputStream.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvSystemError.h>

#include <fcntl.h>
#include <unistd.h>

HvFileOutputStream::HvFileOutputStream(const char* path) : m_fd(-1), m_owner(false)
{
    if (!path)
        HvAssertionFailure::sThrow("filename expected", "HvFileOutputStream", 50, HV_COMPILE_TIMESTAMP);
    // No O_TRUNC and no O_APPEND: callers rely on overwriting from the start.
    m_fd = ::open(path, O_RDWR | O_CREAT, 0644);
    if (m_fd == -1)
        HvSystemError::sThrow(path, 0);
    m_owner = true;
}

HvFileOutputStream::HvFileOutputStream(int fd) : m_fd(fd), m_owner(false)
{
}

HvFileOutputStream::~HvFileOutputStream()
{
    if (m_owner)
        ::close(m_fd);
    for (int fd : m_replaced)
        ::close(fd);
}

void HvFileOutputStream::empty(const char* path)
{
    if (!path)
        HvAssertionFailure::sThrow("filename expected", "HvFileOutputStream", 90, HV_COMPILE_TIMESTAMP);
    // Room first, so that keeping the old descriptor cannot fail once the
    // new one is open.
    if (m_owner)
        m_replaced.reserve(m_replaced.size() + 1);
    int fd = ::open(path, O_WRONLY | O_TRUNC, 0644);
    if (fd == -1)
        HvSystemError::sThrow(path, 0);
    // The previous descriptor stays open: a wrapped one belongs to the
    // caller, and one of our own is only closed with the stream, so that
    // its number cannot be handed to another file while it may still be
    // in use. Keeping the list means it is never lost either.
    if (m_owner)
        m_replaced.push_back(m_fd);
    m_fd = fd;
    m_owner = true;
}

void HvFileOutputStream::write(int byte)
{
    unsigned char low = static_cast<unsigned char>(byte);
    write(&low, 1, 0);
}

void HvFileOutputStream::write(const void* buffer, unsigned int length, unsigned int offset)
{
    if (length == 0 || !buffer)
        return;
    const unsigned char* bytes = static_cast<const unsigned char*>(buffer) + offset;
    unsigned int done = 0;
    while (done < length) {
        ssize_t written = ::write(m_fd, bytes + done, length - done);
        if (written == -1)
            HvSystemError::sThrow("HvFileOutputStream::write", 0);
        done += static_cast<unsigned int>(written);
    }
}
