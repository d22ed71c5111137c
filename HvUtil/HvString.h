// The string type: a handle to an HvStringBuffer. An empty handle is the
// empty string. Editing members store the result buffer back into the handle.
#ifndef HVUTIL_HVSTRING_H
#define HVUTIL_HVSTRING_H

#include <HvUtil/HvHandle.h>
#include <HvUtil/HvStringBuffer.h>

#include <iosfwd>
#include <type_traits>

class HvString : public HvHandle<HvStringBuffer> {
public:
    HvString() {}
    // Through HvStringBuffer::sCreate(text, 0, 0): empty for null or "".
    HvString(const char* text) : HvHandle<HvStringBuffer>(HvStringBuffer::sCreate(text, 0, 0)) {}
    HvString(HvStringBuffer* buffer) : HvHandle<HvStringBuffer>(buffer) {}
    HvString(const HvHandle<HvStringBuffer>& other) : HvHandle<HvStringBuffer>(other) {}
    HvString(const HvString& other) : HvHandle<HvStringBuffer>(other) {}
    // Checked conversions from other object types, as for any handle; a
    // wrong type throws HvAssertionFailure.
    template <class U, class = std::enable_if_t<std::is_base_of<HvObject, U>::value>>
    HvString(U* object) : HvHandle<HvStringBuffer>(object) {}
    template <class U>
    HvString(const HvHandle<U>& other) : HvHandle<HvStringBuffer>(other) {}

    HvString& operator=(const HvString& other)
    {
        assign(other.getObject());
        return *this;
    }
    HvString& operator=(HvStringBuffer* buffer)
    {
        assign(buffer);
        return *this;
    }
    HvString& operator=(const char* text) { return *this = HvStringBuffer::sCreate(text, 0, 0); }
    template <class U, class = std::enable_if_t<std::is_base_of<HvObject, U>::value>>
    HvString& operator=(U* object)
    {
        HvHandle<HvStringBuffer>::operator=(object);
        return *this;
    }
    template <class U>
    HvString& operator=(const HvHandle<U>& other)
    {
        HvHandle<HvStringBuffer>::operator=(other);
        return *this;
    }

    // The text, "" for the empty string.
    const char* c_str() const { return isNull() ? "" : get()->getData(); }
    // The length, 0 for the empty string.
    unsigned int length() const { return isNull() ? 0 : get()->getLength(); }

    HvString& append(const char* text, unsigned int n = 0) { return *this = HvStringBuffer::sAppend(get(), text, n); }
    HvString& append(const HvString& other) { return *this = HvStringBuffer::sAppend(get(), other.get()); }
    HvString& toLower() { return *this = HvStringBuffer::sToLower(get()); }
    HvString& toUpper() { return *this = HvStringBuffer::sToUpper(get()); }
    HvString& trim() { return *this = HvStringBuffer::sTrim(get()); }
    HvString substr(unsigned int start, unsigned int count = 0) const
    {
        return HvStringBuffer::sSubstr(get(), start, count);
    }
    int indexOf(const char* needle, int from = 0) const { return HvStringBuffer::sIndexOf(get(), needle, from); }
    int compareWith(const char* text) const { return HvStringBuffer::sCompareWith(get(), text); }
    int compareNoCase(const char* text) const { return HvStringBuffer::sCompareNoCase(get(), text); }
    // 0 for the empty string.
    unsigned int hashCode() const { return isNull() ? 0 : get()->hashCode(); }
};

class HvOutputStream;
// Writes the text; nothing for the empty string.
HvOutputStream& operator<<(HvOutputStream& out, const HvString& text);
std::ostream& operator<<(std::ostream& out, const HvString& text);
// Skips white space and reads up to the next blank, tab, CR or LF.
HvInputStream& operator>>(HvInputStream& in, HvString& text);

#endif
