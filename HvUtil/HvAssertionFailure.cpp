#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvOutputStream.h>

#include <Velmora/Assertion.h>

HvAssertionFailure::HvAssertionFailure(const HvString& message, const char* file, unsigned int line,
                                       const char* timestamp)
    : HvException(message), m_file(file), m_line(line), m_timestamp(timestamp)
{
}

void HvAssertionFailure::sThrow(const char* text, const char* file, unsigned int line,
                                const char* timestamp)
{
    Velmora::Assertion(false, text, file, static_cast<int>(line));
    HvException::sThrow(new HvAssertionFailure(HvStringBuffer::sCreate(text, 0, 0), file, line, timestamp));
}

void HvAssertionFailure::display(HvOutputStream& out) const
{
    out << m_message << "\n" << m_file << " line " << m_line << "\nCompilation : " << m_timestamp << endl;
}
