#include <HvUtil/HvStreamTokenizer.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInputStream.h>

#include <cstring>

static const char fs_ErrorCanNotMark[] = "Can only tokenize streams where mark supported";

namespace {

const unsigned int kNoLimit = 0xFFFFFFFF;

bool isWhite(int c)
{
    return c == '\r' || c == ' ' || c == '\t' || c == '\n';
}

bool isDelimiter(int c, const char* delimiters)
{
    return c != 0 && delimiters && std::strchr(delimiters, c) != nullptr;
}

} // namespace

int HvStreamTokenizer::sDiscardWhite(HvInputStream& in)
{
    if (!in.markSupported())
        HvException::sThrow(fs_ErrorCanNotMark);
    for (;;) {
        in.mark(1);
        int c = in.read();
        if (!isWhite(c)) {
            in.reset();
            return c;
        }
    }
}

unsigned int HvStreamTokenizer::sLookAhead(HvInputStream& in, const char* delimiters)
{
    sDiscardWhite(in);
    in.mark(kNoLimit);
    unsigned int count = 0;
    for (int c = in.read(); c != -1 && !isDelimiter(c, delimiters); c = in.read())
        ++count;
    in.reset();
    return count;
}
