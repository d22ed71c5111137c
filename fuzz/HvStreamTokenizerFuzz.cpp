// HvStreamTokenizer over arbitrary bytes with a delimiter set and token
// buffer size taken from the input.
//
// Invariant: reading the text as white space, token, delimiter, again and
// again with sDiscardWhite, sGetToken and read() gives back the text when
// the pieces are joined: the skipped bytes are white space, each token is
// what sGetToken stored (bytes of the token up to the buffer size, NULs
// included), it holds no delimiter, and what ends it is a delimiter or the
// end. sPeekToken agrees with sGetToken on tokens it can carry (no 0xFF byte,
// which ends a peek). sGetQuote gives exactly the bytes it consumed, quotes
// included, and sGetUnsigned the value of the digits it consumed modulo 2^32.
//
// A delimiter set is a NUL-terminated text, so NUL is never a delimiter.
#include <HvUtil/HvStreamTokenizer.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvException.h>

#include "HvFuzzCheck.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

bool isWhite(int c)
{
    return c == '\r' || c == ' ' || c == '\t' || c == '\n';
}

void checkTokens(const HvHandle<HvByteArray>& bytes, const std::string& text, const std::string& delimiters,
                 unsigned int size)
{
    HvByteArrayInputStream in(bytes.get(), 0, 0);
    const std::size_t total = text.size();
    auto consumed = [&]() { return total - in.available(); };
    std::vector<char> buffer(size + 1);
    std::vector<char> peeked(size + 1);
    std::string joined;
    for (;;) {
        const std::size_t before = consumed();
        const int next = HvStreamTokenizer::sDiscardWhite(in);
        const std::size_t afterWhite = consumed();
        for (std::size_t i = before; i < afterWhite; ++i)
            HV_FUZZ_CHECK(isWhite(static_cast<unsigned char>(text[i])), "sDiscardWhite skipped a non-white byte");
        HV_FUZZ_CHECK(afterWhite == total ? next == -1 : next == static_cast<unsigned char>(text[afterWhite]),
                      "sDiscardWhite gave " + std::to_string(next));
        joined.append(text, before, afterWhite - before);

        std::memset(peeked.data(), 0x55, peeked.size());
        const bool peekEnded = HvStreamTokenizer::sPeekToken(in, delimiters.c_str(), peeked.data(), size);
        HV_FUZZ_CHECK(consumed() == afterWhite, "sPeekToken consumed bytes");

        std::memset(buffer.data(), 0x55, buffer.size());
        const bool whole = HvStreamTokenizer::sGetToken(in, delimiters.c_str(), buffer.data(), size);
        const std::size_t afterToken = consumed();
        const std::size_t length = afterToken - afterWhite;
        HV_FUZZ_CHECK(length <= size, "token longer than the buffer");
        const std::string token(buffer.data(), length);
        HV_FUZZ_CHECK(token.find_first_of(delimiters) == std::string::npos, "token holds a delimiter");
        joined += token;
        if (whole && length < size)
            HV_FUZZ_CHECK(buffer[length] == '\0', "token not terminated");
        if (peekEnded && token.find('\xff') == std::string::npos && length < size)
            HV_FUZZ_CHECK(std::memcmp(peeked.data(), token.c_str(), length + 1) == 0,
                          "sPeekToken " + hvfuzz::quoted(std::string(peeked.data(), length)) + ", sGetToken " +
                              hvfuzz::quoted(token));
        if (!whole) {
            HV_FUZZ_CHECK(length == size, "a short token reported as too long");
            continue;
        }
        const int delimiter = in.read();
        if (delimiter == -1) {
            HV_FUZZ_CHECK(afterToken == total, "end reported before the end");
            break;
        }
        HV_FUZZ_CHECK(delimiters.find(static_cast<char>(delimiter)) != std::string::npos,
                      "token ended by a non-delimiter " + std::to_string(delimiter));
        joined += static_cast<char>(delimiter);
    }
    HV_FUZZ_CHECK(joined == text, "joined " + hvfuzz::quoted(joined) + " from " + hvfuzz::quoted(text));
}

void checkQuoteAndNumber(const HvHandle<HvByteArray>& bytes, const std::string& text)
{
    {
        HvByteArrayInputStream in(bytes.get(), 0, 0);
        HvStreamTokenizer::sDiscardWhite(in);
        const std::size_t start = text.size() - in.available();
        try {
            HvString quote = HvStreamTokenizer::sGetQuote(in);
            const std::size_t end = text.size() - in.available();
            const std::string got(quote.c_str(), quote.length());
            HV_FUZZ_CHECK(got == text.substr(start, end - start) && got.size() >= 2 && got.front() == '"' &&
                              got.back() == '"',
                          "quote " + hvfuzz::quoted(got) + " from " + hvfuzz::quoted(text));
        } catch (const HvHandle<HvException>& e) {
            HV_FUZZ_CHECK(std::strcmp(e->getMessage().c_str(), "quote ( \" ) expected") == 0,
                          hvfuzz::quoted(e->getMessage().c_str()));
        }
    }
    {
        HvByteArrayInputStream in(bytes.get(), 0, 0);
        HvStreamTokenizer::sDiscardWhite(in);
        const std::size_t start = text.size() - in.available();
        try {
            const unsigned int value = HvStreamTokenizer::sGetUnsigned(in);
            const std::size_t end = text.size() - in.available();
            unsigned int expected = 0;
            for (std::size_t i = start; i < end; ++i) {
                HV_FUZZ_CHECK(text[i] >= '0' && text[i] <= '9', "sGetUnsigned consumed a non-digit");
                expected = expected * 10u + static_cast<unsigned int>(text[i] - '0');
            }
            HV_FUZZ_CHECK(end > start && value == expected && (end == text.size() || text[end] < '0' || text[end] > '9'),
                          std::to_string(value) + " from " + hvfuzz::quoted(text));
        } catch (const HvHandle<HvException>& e) {
            HV_FUZZ_CHECK(std::strcmp(e->getMessage().c_str(), "unsigned number expected") == 0,
                          hvfuzz::quoted(e->getMessage().c_str()));
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Header: delimiter count, buffer size, delimiters.
    if (size < 2)
        return 0;
    const std::size_t count = std::min<std::size_t>(data[0] % 6, size - 2);
    // At least one character: a buffer of no room takes nothing and the
    // walk would never move.
    const unsigned int bufferSize = data[1] < 128 ? 1u + data[1] % 16 : 4096u;
    std::string delimiters;
    for (std::size_t i = 0; i < count; ++i)
        if (data[2 + i] != 0)
            delimiters += static_cast<char>(data[2 + i]);
    const std::size_t header = 2 + count;
    const std::string text(reinterpret_cast<const char*>(data) + header, size - header);
    HvHandle<HvByteArray> bytes = HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());

    checkTokens(bytes, text, delimiters, bufferSize);
    checkQuoteAndNumber(bytes, text);
    return 0;
}
