// A small list of key/value pairs read from and written back to one line of
// text such as key1=value1;key2;key3="a;b", with configurable separator
// characters. Keys compare without regard to ASCII case. The list has a
// mutex of its own, so one list may be read and changed from several threads.
//
// Items are kept newest first: parsing and copying insert at the head, so a
// parsed list, its copy's order and getString() are all reversed against the
// text. Callers compare keys, never positions.
#ifndef HVUTIL_HVPARAMETERS_H
#define HVUTIL_HVPARAMETERS_H

#include <HvUtil/HvConstString.h>
#include <HvUtil/HvObject.h>
#include <HvUtil/HvString.h>

#include <cstddef>

class HvInputStream;
class HvMutex;
class HvOutputStream;

class HvParameters : public HvObject {
public:
    // An empty list. parse() treats each character of `separators` as a
    // separator; getString() writes the whole string between items. The
    // default ";" is the separator of SIP header parameters.
    // Throws HvSystemError naming the failed pthread call of the lock.
    explicit HvParameters(const char* separators = ";");
    // Copies the separators and the items (in reverse order) under the
    // source's lock, into a list with a lock of its own.
    HvParameters(const HvParameters& other);
    // Clears this list, then copies the separators and the items (reversed)
    // holding both locks. Assigning a list to itself changes nothing.
    HvParameters& operator=(const HvParameters& other);
    ~HvParameters() override;

    // A new list made by the copy constructor (items reversed), count 0.
    HvObject* clone() const override;

    // Frees every item.
    void clear();
    // Reads one parameter line from the stream and adds its items at the
    // head. The line ends at LF (unless the next line starts with a blank or
    // tab), at the end of the stream, or before a ',' that stays in the
    // stream. Items added before a failure stay in the list.
    // Throws HvException "HvParameters - Buffer overflow" for more than 1023
    // characters (an unterminated quoted value counts as one), "Invalid
    // Parameter\n" for an empty separator-ended token without '=', and
    // "Parameter doesn't have Key/Value pair\n" when the line ends after '='
    // with an empty key or value. Needs mark support for ',' and line ends.
    void parse(HvInputStream& in);
    // The stream form over the text's bytes; throws what it throws.
    void parse(const char* text);

    // key[=value] for each item from the first, joined by the separators;
    // values are written as stored, quotes included.
    HvString getString() const;
    // Writes getString() to the stream; nothing for an empty list.
    void serialize(HvOutputStream& out) const;

    // The value of the first item whose key equals the trimmed key (ASCII
    // case ignored); the empty string when absent, valueless or key is null.
    HvString getValue(const char* key) const;
    // True when an item has the trimmed key (ASCII case ignored).
    bool isPresent(const char* key) const;
    // Replaces the value of the item with the trimmed key, or adds the
    // trimmed key and value at the head. Ignored for a null value or an
    // empty key.
    void setValue(const char* key, const char* value);
    // Unlinks and frees the first item with the trimmed key.
    void removeValue(const char* key);

    // The number of items.
    unsigned int getCount() const;

    // Lists come from the tagged allocator ("HvParameters").
    static void* operator new(std::size_t size);
    static void operator delete(void* p, std::size_t size);

    // One key/value pair; its storage is tagged "HvParameters::Item".
    struct Item {
        Item(const char* keyText, const char* valueText);
        HvConstString key;
        // Empty for a key without value.
        HvConstString value;
        Item* next;

        static void* operator new(std::size_t size);
        static void operator delete(void* p, std::size_t size);
    };

private:
    // Unlocked twins of the public operations; the caller holds m_pLock.
    void mClear();
    void mAddFirst(const char* key, const char* value);
    Item* mFind(const char* key) const;
    // Adds copies of the items of `other` (whose lock the caller holds) at the head.
    void mCopyItems(const HvParameters& other);

    Item* m_pItems;
    HvMutex* m_pLock;
    unsigned int m_count;
    HvConstString m_separators;
};

#endif
