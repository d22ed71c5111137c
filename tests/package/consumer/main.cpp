// Uses the installed library the way a program above it would: objects,
// handles, strings, exceptions and a memory stream, all through the
// umbrella header.
#include <HvUtil/HvUtil.h>

#include <cstdio>
#include <cstring>

int main()
{
    HvString text("installed");
    text.append(" library");
    HvByteArrayOutputStream out(0);
    try {
        HvException::sThrow(text.c_str());
    } catch (HvHandle<HvException>& e) {
        e->display(out);
    }
    HvHandle<HvByteArray> bytes = out.toByteArray();
    std::string shown(reinterpret_cast<const char*>(bytes->getData()), bytes->getSize());
    if (shown != "installed library") {
        std::fprintf(stderr, "unexpected display: '%s'\n", shown.c_str());
        return 1;
    }
    std::printf("consumer ok: %s\n", shown.c_str());
    return 0;
}
