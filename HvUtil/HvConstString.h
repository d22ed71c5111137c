// A small value class owning one heap copy of a text.
#ifndef HVUTIL_HVCONSTSTRING_H
#define HVUTIL_HVCONSTSTRING_H

class HvConstString {
public:
    // Copies `length` characters of text. A null text gives length 0 and
    // null data; length 0 with a text points at a shared empty text.
    HvConstString(const char* text, unsigned int length);
    ~HvConstString() { releaseBuffer(); }

    HvConstString(const HvConstString&) = delete;
    HvConstString& operator=(const HvConstString&) = delete;

    // Frees the copy (if any); data becomes null.
    void releaseBuffer();
    // Frees the copy and returns a new copy of text for the caller, who owns
    // it (release it with sFreeCopy). The object keeps only the new length;
    // its data stays null. Existing callers depend on exactly this.
    char* assign(const char* text);
    // Gives back a copy returned by assign() for a text of this length.
    static void sFreeCopy(char* copy, unsigned int length);

    void toUpper();
    void toLower();
    int indexOf(const char* needle, int from) const;
    // An equality test: 1 when equal, else 0.
    int compare(const char* text) const;

    const char* getData() const { return m_pData; }
    unsigned int getLength() const { return m_length; }

private:
    static char* copyOf(const char* text, unsigned int length);
    void changeCase(char from, char to);

    unsigned int m_length;
    char* m_pData;
};

#endif
