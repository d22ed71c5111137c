#include <HvUtil/HvParameters.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvStringBuffer.h>

#include <Velmora/Logger.h>
#include <Velmora/MemAllocator.h>
#include <Velmora/TraceScope.h>

#include <strings.h>

#include <cstring>
#include <new>

static Velmora::Logger& fileLogger()
{
    static Velmora::Logger& logger = Velmora::fileScopeLogger("HvParameters");
    return logger;
}

namespace {

const char kTag[] = "HvParameters";
const char kItemTag[] = "HvParameters::Item";
const char kErrorOverflow[] = "HvParameters - Buffer overflow";
const char kErrorInvalid[] = "Invalid Parameter\n";
const char kErrorNoPair[] = "Parameter doesn't have Key/Value pair\n";

// A parameter line longer than this (NUL terminators included) is refused.
const unsigned int kLineBufferSize = 1024;

bool isTrimmed(char c)
{
    return c == '\t' || c == '\n' || c == '\r' || c == ' ';
}

// Trims the NUL-terminated text in place at its end; returns where it
// starts after the leading blanks.
char* trimInPlace(char* text)
{
    std::size_t end = std::strlen(text);
    while (end > 0 && isTrimmed(text[end - 1]))
        --end;
    text[end] = '\0';
    while (isTrimmed(*text))
        ++text;
    return text;
}

// Replaces what an HvConstString holds. It cannot be assigned, so the old
// copy is freed and a new object built in its place; should that fail the
// place holds an empty text, never a freed one.
void replaceText(HvConstString& target, const char* text)
{
    target.~HvConstString();
    try {
        new (&target) HvConstString(text, text ? static_cast<unsigned int>(std::strlen(text)) : 0);
    } catch (...) {
        new (&target) HvConstString(nullptr, 0);
        throw;
    }
}

const char* textOf(const HvConstString& text)
{
    return text.getData() ? text.getData() : "";
}

// Trimmed copy of a caller's key, made before any lock is taken.
HvString trimmedKey(const char* key)
{
    HvString trimmed(key);
    trimmed.trim();
    return trimmed;
}

// Holds two list locks at once, always in the same (address) order, so two
// threads assigning two lists to each other cannot deadlock.
class TwoLocks {
public:
    TwoLocks(HvMutex* a, HvMutex* b) : m_pFirst(a < b ? a : b), m_pSecond(a < b ? b : a)
    {
        m_pFirst->lock();
        try {
            m_pSecond->lock();
        } catch (...) {
            m_pFirst->unlock();
            throw;
        }
    }
    ~TwoLocks()
    {
        m_pSecond->unlock();
        m_pFirst->unlock();
    }
    TwoLocks(const TwoLocks&) = delete;
    TwoLocks& operator=(const TwoLocks&) = delete;

private:
    HvMutex* m_pFirst;
    HvMutex* m_pSecond;
};

} // namespace

// ---------------------------------------------------------------- Item

HvParameters::Item::Item(const char* keyText, const char* valueText)
    : key(keyText, static_cast<unsigned int>(std::strlen(keyText))),
      value(valueText, static_cast<unsigned int>(std::strlen(valueText))), next(nullptr)
{
}

void* HvParameters::Item::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kItemTag);
}

void HvParameters::Item::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kItemTag);
}

// ---------------------------------------------------------------- list

void* HvParameters::operator new(std::size_t size)
{
    return Velmora::DefaultStaticMemAllocator::allocate(size, kTag);
}

void HvParameters::operator delete(void* p, std::size_t size)
{
    Velmora::DefaultStaticMemAllocator::deallocate(p, size, kTag);
}

HvParameters::HvParameters(const char* separators)
    : m_pItems(nullptr), m_pLock(HvMutex::sCreate()), m_count(0),
      m_separators(separators, separators ? static_cast<unsigned int>(std::strlen(separators)) : 0)
{
}

HvParameters::HvParameters(const HvParameters& other)
    : HvObject(other), m_pItems(nullptr), m_pLock(nullptr), m_count(0),
      m_separators(other.m_separators.getData(), other.m_separators.getLength())
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters copy ctor", "HvParameters", __LINE__);
    m_pLock = HvMutex::sCreate();
    try {
        HvMutex::Lock hold(other.m_pLock);
        mCopyItems(other);
    } catch (...) {
        // The destructor does not run for a half-built object.
        mClear();
        HvMutex::sDestroy(m_pLock);
        throw;
    }
}

HvParameters& HvParameters::operator=(const HvParameters& other)
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::operator =", "HvParameters", __LINE__);
    // Clearing first would empty the source, and its lock is this one.
    if (&other == this)
        return *this;
    clear();
    TwoLocks hold(m_pLock, other.m_pLock);
    replaceText(m_separators, other.m_separators.getData());
    mCopyItems(other);
    return *this;
}

HvParameters::~HvParameters()
{
    mClear();
    HvMutex::sDestroy(m_pLock);
}

HvObject* HvParameters::clone() const
{
    return new HvParameters(*this);
}

void HvParameters::mClear()
{
    while (m_pItems) {
        Item* item = m_pItems;
        m_pItems = item->next;
        delete item;
    }
    m_count = 0;
}

void HvParameters::clear()
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::clear", "HvParameters", __LINE__);
    HvMutex::Lock hold(m_pLock);
    mClear();
}

void HvParameters::mAddFirst(const char* key, const char* value)
{
    Item* item = new Item(key, value);
    item->next = m_pItems;
    m_pItems = item;
    ++m_count;
}

HvParameters::Item* HvParameters::mFind(const char* key) const
{
    for (Item* item = m_pItems; item; item = item->next) {
        if (::strcasecmp(textOf(item->key), key) == 0)
            return item;
    }
    return nullptr;
}

void HvParameters::mCopyItems(const HvParameters& other)
{
    for (const Item* item = other.m_pItems; item; item = item->next)
        mAddFirst(textOf(item->key), textOf(item->value));
}

unsigned int HvParameters::getCount() const
{
    HvMutex::Lock hold(m_pLock);
    return m_count;
}

// ---------------------------------------------------------------- parsing

namespace {

// One parameter line being collected: tokens are ended in place by NULs, and
// items are made from them as separators and the line end are met.
class LineParser {
public:
    LineParser(HvInputStream& in, const char* separators) : m_in(in), m_separators(separators) {}

    // Reads the line; `add(key, value)` files each item as it is complete.
    template <class Add>
    void run(Add add)
    {
        for (;;) {
            if (m_position > kLineBufferSize - 1)
                HvException::sThrow(kErrorOverflow);
            m_in.mark(1);
            int c = m_in.read();
            switch (c) {
            case '\r':
                continue;
            case ',':
                // A comma ends the whole list and stays for the caller. The
                // line-end check would only read it again and put it back.
                m_in.reset();
                if (m_position == 0)
                    return;
                endLine(add);
                return;
            case '=':
                if (m_state == '=') {
                    store(c);
                } else {
                    m_buffer[m_position++] = '\0';
                    m_key = m_tokenStart;
                    m_tokenStart = m_position;
                    m_state = '=';
                }
                continue;
            case '"':
                copyQuoted();
                continue;
            case -1:
                endLine(add);
                return;
            case '\n':
                if (lineContinues())
                    continue;
                endLine(add);
                return;
            default:
                if (isSeparator(c))
                    endToken(add);
                else
                    store(c);
                continue;
            }
        }
    }

private:
    static const unsigned int kNoKey = 0xFFFFFFFF;

    bool isSeparator(int c) const { return c > 0 && m_separators && std::strchr(m_separators, c) != nullptr; }

    // Callers have checked the room, except inside quotes (copyQuoted).
    void store(int c) { m_buffer[m_position++] = static_cast<char>(c); }

    // Quoted text is taken as it is, separators included, up to the closing
    // quote; a backslash keeps the next character from closing it. Each
    // character is checked against the room and the end of the stream: a
    // quote that never closes would otherwise run past the buffer.
    void copyQuoted()
    {
        store('"');
        for (;;) {
            int c = quotedCharacter();
            store(c);
            if (c == '"')
                return;
            if (c == '\\')
                store(quotedCharacter());
        }
    }

    int quotedCharacter()
    {
        if (m_position > kLineBufferSize - 1)
            HvException::sThrow(kErrorOverflow);
        int c = m_in.read();
        // A 0xFF data byte is text; only the real end stops an open quote.
        if (c == -1)
            HvException::sThrow(kErrorOverflow);
        return c;
    }

    // After an LF or a comma: a line folded onto the next starts it with a
    // blank or a tab; anything else is put back.
    bool lineContinues()
    {
        m_in.mark(1);
        int c = m_in.read();
        if (c == ' ' || c == '\t')
            return true;
        m_in.reset();
        return false;
    }

    template <class Add>
    void endToken(Add add)
    {
        m_buffer[m_position++] = '\0';
        if (m_state != '=') {
            char* key = trimInPlace(m_buffer + m_tokenStart);
            if (*key == '\0')
                HvException::sThrow(kErrorInvalid);
            add(key, "");
        } else {
            char* key = trimInPlace(m_buffer + m_key);
            char* value = trimInPlace(m_buffer + m_tokenStart);
            add(key, value);
        }
        m_key = kNoKey;
        m_state = ';';
        m_tokenStart = m_position;
    }

    template <class Add>
    void endLine(Add add)
    {
        m_buffer[m_position] = '\0';
        if (m_state != '=') {
            // Untrimmed, and added even when empty (a line ending in a separator).
            add(m_buffer + m_tokenStart, "");
            return;
        }
        char* key = m_buffer + m_key;
        char* value = m_buffer + m_tokenStart;
        if (*key == '\0' || *value == '\0')
            HvException::sThrow(kErrorNoPair);
        add(trimInPlace(key), trimInPlace(value));
    }

    HvInputStream& m_in;
    const char* m_separators;
    unsigned int m_position = 0;
    unsigned int m_tokenStart = 0;
    unsigned int m_key = kNoKey;
    char m_state = '?';
    // Last, so that a write past it leaves the object (where address
    // checkers see it) instead of landing on the positions above.
    char m_buffer[kLineBufferSize] = {};
};

} // namespace

void HvParameters::parse(HvInputStream& in)
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::parse (2)", "HvParameters", __LINE__);
    LineParser parser(in, m_separators.getData());
    parser.run([this](const char* key, const char* value) {
        HvMutex::Lock hold(m_pLock);
        mAddFirst(key, value);
    });
}

void HvParameters::parse(const char* text)
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::parse (1)", "HvParameters", __LINE__);
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(text);
    HvByteArrayInputStream in(bytes.get(), 0, 0);
    parse(in);
}

// ---------------------------------------------------------------- text

HvString HvParameters::getString() const
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::getString", "HvParameters", __LINE__);
    HvString text(HvStringBuffer::sCreate(nullptr, 0, 80));
    HvMutex::Lock hold(m_pLock);
    for (const Item* item = m_pItems; item; item = item->next) {
        text.append(textOf(item->key));
        if (item->value.getLength() != 0) {
            text.append("=");
            text.append(textOf(item->value));
        }
        if (item->next)
            text.append(textOf(m_separators));
    }
    return text;
}

void HvParameters::serialize(HvOutputStream& out) const
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::serialize", "HvParameters", __LINE__);
    HvString text = getString();
    if (text.length() != 0)
        out.write(text.c_str(), text.length(), 0);
}

HvString HvParameters::getValue(const char* key) const
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::getValue", "HvParameters", __LINE__);
    if (!key)
        return HvString();
    HvString wanted = trimmedKey(key);
    HvMutex::Lock hold(m_pLock);
    const Item* item = mFind(wanted.c_str());
    return item ? HvString(item->value.getData()) : HvString();
}

bool HvParameters::isPresent(const char* key) const
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::isPresent", "HvParameters", __LINE__);
    if (!key)
        return false;
    HvString wanted = trimmedKey(key);
    HvMutex::Lock hold(m_pLock);
    return mFind(wanted.c_str()) != nullptr;
}

void HvParameters::setValue(const char* key, const char* value)
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::setValue", "HvParameters", __LINE__);
    if (!value || !key || !*key)
        return;
    HvString wantedKey = trimmedKey(key);
    HvString newValue(value);
    newValue.trim();
    HvMutex::Lock hold(m_pLock);
    Item* item = mFind(wantedKey.c_str());
    if (item)
        replaceText(item->value, newValue.c_str());
    else
        mAddFirst(wantedKey.c_str(), newValue.c_str());
}

void HvParameters::removeValue(const char* key)
{
    Velmora::TraceScope scope(fileLogger(), "HvParameters::removeValue", "HvParameters", __LINE__);
    if (!key)
        return;
    HvString wanted = trimmedKey(key);
    HvMutex::Lock hold(m_pLock);
    for (Item** link = &m_pItems; *link; link = &(*link)->next) {
        Item* item = *link;
        if (::strcasecmp(textOf(item->key), wanted.c_str()) == 0) {
            *link = item->next;
            delete item;
            --m_count;
            return;
        }
    }
}
