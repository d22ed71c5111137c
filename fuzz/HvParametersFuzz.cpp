// HvParameters: parse -> getString -> parse.
//
// Invariant: when a line parses, parsing its getString() text gives a list
// of the same items. Parsing adds at the head, so the second list is the
// first one reversed; the copy constructor reverses it back, and the copy
// must then format to exactly the first list's text, with the same count,
// and give every key of the first list the same value.
//
// Narrowed where the parser is lossy by its own rules: the last item of a
// line without '=' keeps its blanks and may be empty, while the same text
// in front of a separator is trimmed and must not be empty, and a
// separator-ended "=value" is taken with an empty key that ends the line
// with an error. Lists holding an empty key or a key with blanks at either
// end are therefore only required not to fail in any other way.
//
// The separator is one character from a fixed set: getString() joins items
// with the whole separator text, which reads back as one separator only
// when it is one character, and '=', '"', ',', CR and LF have meanings of
// their own in the line.
#include <HvUtil/HvParameters.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvException.h>

#include "HvFuzzCheck.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const kSeparators[] = {";", "&", "|", " ", ":", "/"};

bool isKnownFailure(const char* text)
{
    return std::strcmp(text, "HvParameters - Buffer overflow") == 0 || std::strcmp(text, "Invalid Parameter\n") == 0 ||
           std::strcmp(text, "Parameter doesn't have Key/Value pair\n") == 0;
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The keys of a list, read back from the text getString() wrote: the text
// is split at separators outside quotes, and the key is what comes before
// the first '=' outside quotes.
std::vector<std::string> keysOf(const std::string& text, char separator)
{
    std::vector<std::string> keys;
    std::string key;
    bool quoted = false;
    bool inValue = false;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        const char c = i < text.size() ? text[i] : separator;
        if (quoted) {
            if (!inValue)
                key += c;
            if (c == '\\' && i + 1 < text.size()) {
                if (!inValue)
                    key += text[i + 1];
                ++i;
            } else if (c == '"') {
                quoted = false;
            }
        } else if (c == separator) {
            keys.push_back(key);
            key.clear();
            inValue = false;
        } else if (c == '"') {
            quoted = true;
            if (!inValue)
                key += c;
        } else if (c == '=' && !inValue) {
            inValue = true;
        } else if (!inValue) {
            key += c;
        }
    }
    return keys;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const char* separators = kSeparators[data[0] % (sizeof kSeparators / sizeof kSeparators[0])];
    // Keys and values are kept as C texts, so a NUL byte would cut the one
    // that holds it (an open quote included) and the text written back would
    // differ for that reason alone: the line ends at the first NUL.
    const std::size_t length = strnlen(reinterpret_cast<const char*>(data) + 1, size - 1);
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(length), data + 1);

    HvHandle<HvParameters> first(new HvParameters(separators));
    try {
        HvByteArrayInputStream in(bytes.get(), 0, 0);
        first->parse(in);
    } catch (const HvHandle<HvException>& e) {
        HV_FUZZ_CHECK(isKnownFailure(e->getMessage().c_str()), hvfuzz::quoted(e->getMessage().c_str()));
        return 0;
    }
    const HvString text = first->getString();
    const std::string formatted(text.c_str(), text.length());

    const std::vector<std::string> keys = keysOf(formatted, separators[0]);
    bool lossy = false;
    for (const std::string& key : keys)
        lossy = lossy || key.empty() || isBlank(key.front()) || isBlank(key.back());

    HvHandle<HvParameters> second(new HvParameters(separators));
    try {
        second->parse(text.c_str());
    } catch (const HvHandle<HvException>& e) {
        HV_FUZZ_CHECK(isKnownFailure(e->getMessage().c_str()), hvfuzz::quoted(e->getMessage().c_str()));
        HV_FUZZ_CHECK(lossy, "formatted " + hvfuzz::quoted(formatted) + " does not parse: " +
                                 hvfuzz::quoted(e->getMessage().c_str()));
        return 0;
    }
    if (lossy)
        return 0;
    HvHandle<HvParameters> back(new HvParameters(*second));
    const HvString again = back->getString();
    HV_FUZZ_CHECK(std::string(again.c_str(), again.length()) == formatted && back->getCount() == first->getCount() &&
                      second->getCount() == first->getCount(),
                  "first " + hvfuzz::quoted(formatted) + " (" + std::to_string(first->getCount()) + "), again " +
                      hvfuzz::quoted(std::string(again.c_str(), again.length())) + " (" +
                      std::to_string(back->getCount()) + ")");
    HV_FUZZ_CHECK(keys.size() == first->getCount(), "keys " + std::to_string(keys.size()) + " in " +
                                                         hvfuzz::quoted(formatted));
    // Equal keys (ASCII case ignored) find the newest item, so values are
    // compared on lists in the same order.
    for (const std::string& key : keys) {
        const HvString a = first->getValue(key.c_str());
        const HvString b = back->getValue(key.c_str());
        HV_FUZZ_CHECK(std::strcmp(a.c_str(), b.c_str()) == 0 && back->isPresent(key.c_str()),
                      "key " + hvfuzz::quoted(key) + ": " + hvfuzz::quoted(a.c_str()) + " against " +
                          hvfuzz::quoted(b.c_str()));
    }
    return 0;
}
