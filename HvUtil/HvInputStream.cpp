#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvBufferedInputStream.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvFileInputStream.h>
#include <HvUtil/HvOutputStream.h>

static HvHandle<HvInputStream> fs_hInputStream;

int HvInputStream::read(void* buffer, unsigned int length, unsigned int offset)
{
    // Nowhere to put bytes: nothing is read, nothing consumed.
    if (!buffer)
        return 0;
    unsigned char* target = static_cast<unsigned char*>(buffer) + offset;
    unsigned int count = 0;
    try {
        for (; count < length; ++count) {
            int byte = read();
            if (byte == -1)
                break;
            target[count] = static_cast<unsigned char>(byte);
        }
    } catch (HvHandle<HvException>& e) {
        *HvErrorStream::sGetDefault()->getDebugStream(HvString(HvException::sDebugToken), 0)
            << "catch exception in HvInputStream::read(): " << e->getMessage() << endl;
        if (count == 0)
            throw;
        return static_cast<int>(count);
    }
    if (count == 0 && length != 0)
        return -1;
    return static_cast<int>(count);
}

unsigned int HvInputStream::skip(unsigned int count)
{
    if (count == 0)
        return 0;
    unsigned char scratch[64];
    unsigned int remaining = count;
    while (remaining > 0) {
        unsigned int n = remaining < sizeof(scratch) ? remaining : static_cast<unsigned int>(sizeof(scratch));
        int got = read(scratch, n, 0);
        // A source that gives nothing now would otherwise be asked forever.
        if (got <= 0)
            break;
        if (static_cast<unsigned int>(got) >= remaining) {
            remaining = 0;
            break;
        }
        remaining -= static_cast<unsigned int>(got);
    }
    return count - remaining;
}

unsigned int HvInputStream::available()
{
    return 0;
}

bool HvInputStream::markSupported()
{
    return false;
}

void HvInputStream::mark(unsigned int)
{
}

void HvInputStream::reset()
{
    HvAssertionFailure::sThrow("HvInputStream::reset()", "HvInputStream.cpp", 102, HV_COMPILE_TIMESTAMP);
}

int HvInputStream::read(HvHandle<HvByteArray> array, unsigned int offset, unsigned int length)
{
    // No array, no room: nothing is read and the stream is left as it is.
    if (array.isNull())
        return 0;
    array->clipWindow(offset, length);
    return read(array->getData(), length, offset);
}

HvHandle<HvInputStream> HvInputStream::sGetDefault()
{
    // Made without a lock: the first call is expected before threads share
    // the default.
    if (fs_hInputStream.isNull()) {
        HvHandle<HvFileInputStream> standardInput(new HvFileInputStream(0));
        fs_hInputStream = new HvBufferedInputStream(standardInput.get(), 0);
    }
    return fs_hInputStream;
}

HvHandle<HvInputStream> HvInputStream::sSetDefault(HvInputStream& stream)
{
    HvHandle<HvInputStream> previous = fs_hInputStream;
    fs_hInputStream = &stream;
    return previous;
}
