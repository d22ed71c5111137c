#include <HvUtil/Base64.h>

#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The text of a result, up to its NUL, as readers take it.
std::string textOf(const HvString& s)
{
    return std::string(s.c_str());
}

// The first `count` bytes of a result's buffer, NULs included.
std::vector<unsigned char> bytesOf(const HvString& s, std::size_t count)
{
    const unsigned char* data = reinterpret_cast<const unsigned char*>(s.c_str());
    return std::vector<unsigned char>(data, data + count);
}

std::vector<unsigned char> bytes(std::initializer_list<int> values)
{
    std::vector<unsigned char> out;
    for (int v : values)
        out.push_back(static_cast<unsigned char>(v));
    return out;
}

// A heap copy of exactly the text and its NUL, so that the address
// sanitizer sees any read past the NUL.
std::unique_ptr<char[]> exactCopy(const std::string& text)
{
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

// Decoding as documented, stated per output byte rather than by shifting
// 32-bit lookups: a character outside the alphabet (-1) fills the bits it
// gives with ones and, on the right of a byte, saturates the whole byte.
// A short last group reads the text's NUL as one more such character.
std::vector<unsigned char> modelDecode(const std::string& text)
{
    auto value = [&](std::size_t i) -> int {
        char c = i < text.size() ? text[i] : '\0';
        const char* at = c != '\0' ? std::strchr(kAlphabet, c) : nullptr;
        return at ? static_cast<int>(at - kAlphabet) : -1;
    };
    auto left = [](int v, int keep) { return v < 0 ? (1 << keep) - 1 : v & ((1 << keep) - 1); };
    std::vector<unsigned char> out;
    std::size_t n = text.size();
    for (std::size_t i = 0; i < n; i += 4) {
        int c1 = value(i), c2 = value(i + 1);
        out.push_back(static_cast<unsigned char>(c2 < 0 ? 0xFF : (left(c1, 6) << 2) | (c2 >> 4)));
        if (i + 1 == n || text[i + 2] == '=')
            break;
        int c3 = value(i + 2);
        out.push_back(static_cast<unsigned char>(c3 < 0 ? 0xFF : (left(c2, 4) << 4) | (c3 >> 2)));
        if (i + 2 == n || text[i + 3] == '=')
            break;
        int c4 = value(i + 3);
        out.push_back(static_cast<unsigned char>(c4 < 0 ? 0xFF : (left(c3, 2) << 6) | c4));
    }
    return out;
}

// Encoding bit by bit: six bits per character, zero bits to fill the last
// character, '=' to fill the last group of four.
std::string modelEncode(const std::string& input)
{
    std::string bits;
    for (unsigned char c : input) {
        for (int b = 7; b >= 0; --b)
            bits += ((c >> b) & 1) ? '1' : '0';
    }
    while (bits.size() % 6 != 0)
        bits += '0';
    std::string out;
    for (std::size_t i = 0; i < bits.size(); i += 6)
        out += kAlphabet[std::stoi(bits.substr(i, 6), nullptr, 2)];
    while (out.size() % 4 != 0)
        out += '=';
    return out;
}

} // namespace

// ---------------------------------------------------------------- alphabet

TEST(Base64, AlphabetIsTheStandardOne)
{
    EXPECT_STREQ(kAlphabet, Base64::cvt);
    EXPECT_EQ(64u, std::strlen(Base64::cvt));
}

TEST(Base64, FindGivesEveryAlphabetPositionAndMinusOneForTheRest)
{
    for (int c = 0; c < 256; ++c) {
        const char* at = c != 0 ? std::strchr(kAlphabet, c) : nullptr;
        int expected = at ? static_cast<int>(at - kAlphabet) : -1;
        EXPECT_EQ(expected, Base64::find(static_cast<unsigned char>(c))) << "character " << c;
    }
    EXPECT_EQ(0, Base64::find('A'));
    EXPECT_EQ(63, Base64::find('/'));
    EXPECT_EQ(-1, Base64::find('='));
}

// ---------------------------------------------------------------- encoding

TEST(Base64, EncodesThreeBytesAsFourCharacters)
{
    EXPECT_EQ("TWFu", textOf(Base64::encode("Man")));
}

TEST(Base64, EncodesTwoFinalBytesWithOnePad)
{
    EXPECT_EQ("TWE=", textOf(Base64::encode("Ma")));
}

TEST(Base64, EncodesOneFinalByteWithTwoPads)
{
    EXPECT_EQ("TQ==", textOf(Base64::encode("M")));
}

TEST(Base64, EncodingTheEmptyTextGivesTheEmptyString)
{
    HvString encoded = Base64::encode("");
    EXPECT_TRUE(encoded.isNull());
    EXPECT_STREQ("", encoded.c_str());
    EXPECT_EQ(0u, encoded.length());
}

TEST(Base64, EncodingNullGivesTheEmptyString)
{
    EXPECT_TRUE(Base64::encode(nullptr).isNull());
}

TEST(Base64, EncodesTheRfc4648Vectors)
{
    EXPECT_EQ("Zg==", textOf(Base64::encode("f")));
    EXPECT_EQ("Zm8=", textOf(Base64::encode("fo")));
    EXPECT_EQ("Zm9v", textOf(Base64::encode("foo")));
    EXPECT_EQ("Zm9vYg==", textOf(Base64::encode("foob")));
    EXPECT_EQ("Zm9vYmE=", textOf(Base64::encode("fooba")));
    EXPECT_EQ("Zm9vYmFy", textOf(Base64::encode("foobar")));
}

TEST(Base64, EncodedLengthFieldIsTwiceTheInputWithTheTextEndingAtItsNul)
{
    for (unsigned int n = 1; n <= 40; ++n) {
        std::string input(n, 'x');
        HvString encoded = Base64::encode(input.c_str());
        unsigned int textLength = 4 * ((n + 2) / 3);
        ASSERT_FALSE(encoded.isNull());
        EXPECT_EQ(2 * n, encoded.length()) << n;
        EXPECT_GE(encoded->getCapacity(), 2 * n + 1) << n;
        EXPECT_GE(encoded->getCapacity(), textLength + 1) << n;
        EXPECT_EQ(textLength, std::strlen(encoded.c_str())) << n;
        // Past the text's NUL up to the length field there are only NULs.
        for (unsigned int i = textLength; i <= 2 * n; ++i)
            EXPECT_EQ('\0', encoded.c_str()[i]) << n << " at " << i;
    }
}

TEST(Base64, OneByteInputGetsRoomForFourCharactersAndNul)
{
    HvString encoded = Base64::encode("M");
    EXPECT_EQ(2u, encoded.length());
    EXPECT_GE(encoded->getCapacity(), 5u);
    EXPECT_EQ(std::string("TQ==\0", 5), std::string(encoded.c_str(), 5));
}

TEST(Base64, EncodingWritesNoLineBreaks)
{
    std::string input(300, 'q');
    std::string encoded = textOf(Base64::encode(input.c_str()));
    EXPECT_EQ(400u, encoded.size());
    EXPECT_EQ(std::string::npos, encoded.find_first_of("\r\n"));
}

TEST(Base64, EncodesEveryNonNulByteValue)
{
    std::string input;
    for (int c = 1; c < 256; ++c)
        input += static_cast<char>(c);
    HvString encoded = Base64::encode(input.c_str());
    std::string text = textOf(encoded);
    ASSERT_EQ(340u, text.size());
    EXPECT_EQ("AQIDBAUGBwgJCgsMDQ4P", text.substr(0, 20));
    EXPECT_EQ("8/f7/", text.substr(335));
    EXPECT_EQ(input, textOf(Base64::decode(text.c_str())));
}

TEST(Base64, EncodingAndDecodingGiveEveryBufferBack)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    for (int i = 0; i < 50; ++i) {
        HvString encoded = Base64::encode("some text to encode");
        HvString decoded = Base64::decode(encoded.c_str());
        EXPECT_EQ("some text to encode", textOf(decoded));
    }
}

// ---------------------------------------------------------------- decoding

TEST(Base64, DecodesAGroupWithOnePad)
{
    HvString decoded = Base64::decode("TWE=");
    EXPECT_EQ("Ma", textOf(decoded));
}

TEST(Base64, DecodesTheRfc4648Vectors)
{
    EXPECT_EQ("", textOf(Base64::decode("")));
    EXPECT_EQ("f", textOf(Base64::decode("Zg==")));
    EXPECT_EQ("fo", textOf(Base64::decode("Zm8=")));
    EXPECT_EQ("foo", textOf(Base64::decode("Zm9v")));
    EXPECT_EQ("foob", textOf(Base64::decode("Zm9vYg==")));
    EXPECT_EQ("fooba", textOf(Base64::decode("Zm9vYmE=")));
    EXPECT_EQ("foobar", textOf(Base64::decode("Zm9vYmFy")));
}

TEST(Base64, DecodedLengthFieldIsTheInputLengthWithTheBytesEndingAtANul)
{
    HvString decoded = Base64::decode("Zm9vYg==");
    EXPECT_EQ(8u, decoded.length());
    EXPECT_GE(decoded->getCapacity(), 9u);
    EXPECT_EQ(bytes({'f', 'o', 'o', 'b', 0, 0, 0, 0, 0}), bytesOf(decoded, 9));
}

TEST(Base64, DecodedBytesMayHoldNulsThatEndTheText)
{
    HvString decoded = Base64::decode("AAEC");
    EXPECT_EQ(bytes({0, 1, 2, 0}), bytesOf(decoded, 4));
    EXPECT_EQ("", textOf(decoded));
}

TEST(Base64, DecodingTheEmptyTextGivesAnEmptyBuffer)
{
    HvString decoded = Base64::decode("");
    ASSERT_FALSE(decoded.isNull());
    EXPECT_EQ(0u, decoded.length());
    EXPECT_STREQ("", decoded.c_str());
}

TEST(Base64, DecodingNullIsDecodingTheEmptyText)
{
    HvString decoded = Base64::decode(nullptr);
    ASSERT_FALSE(decoded.isNull());
    EXPECT_EQ(0u, decoded.length());
    EXPECT_STREQ("", decoded.c_str());
}

TEST(Base64, PadInTheThirdPlaceEndsDecodingForGood)
{
    EXPECT_EQ("M", textOf(Base64::decode("TQ==TWFu")));
    EXPECT_EQ("M", textOf(Base64::decode("TQ=xTWFu")));
}

TEST(Base64, PadInTheFourthPlaceEndsDecodingForGood)
{
    EXPECT_EQ("Ma", textOf(Base64::decode("TWE=TWFu")));
}

TEST(Base64, PadInTheFirstTwoPlacesIsAForeignCharacter)
{
    // '=' first: -1 gives the six high bits as ones; 'Q' (16) gives 01.
    HvString decoded = Base64::decode("=Q==");
    EXPECT_EQ(bytes({0xFD, 0}), bytesOf(decoded, 2));
}

TEST(Base64, ForeignCharactersAreMergedAsAllOnesWithoutError)
{
    // 'T' 19, '*' -1, 'E' 4: (19 << 2) | (-1 >> 4) is 0xFF; (-1 << 4) | (4 >> 2) is 0xF1.
    HvString decoded = Base64::decode("T*E=");
    EXPECT_EQ(bytes({0xFF, 0xF1, 0}), bytesOf(decoded, 3));
    // A space in the fourth place saturates the third byte only.
    decoded = Base64::decode("TWF ");
    EXPECT_EQ(bytes({'M', 'a', 0xFF, 0}), bytesOf(decoded, 4));
}

TEST(Base64, ShortLastGroupReadsTheTextsNulAndStops)
{
    // One character: its byte takes the NUL's -1 as the second character.
    EXPECT_EQ(bytes({0xFF, 0}), bytesOf(Base64::decode("T"), 2));
    // Two: one whole byte, then the NUL saturates the second.
    EXPECT_EQ(bytes({'M', 0xFF, 0}), bytesOf(Base64::decode("TW"), 3));
    // Three: two whole bytes, then the NUL saturates the third.
    EXPECT_EQ(bytes({'M', 'a', 0xFF, 0}), bytesOf(Base64::decode("TWF"), 4));
    // After whole groups the same rule holds.
    EXPECT_EQ(bytes({'M', 'a', 'n', 'M', 'a', 0xFF, 0}), bytesOf(Base64::decode("TWFuTWF"), 7));
}

TEST(Base64, TextsOfEveryLengthEncodeBitByBitAndDecodeBack)
{
    std::mt19937 random(4648);
    for (unsigned int n = 0; n < 200; ++n) {
        std::string input;
        for (unsigned int i = 0; i < n; ++i)
            input += static_cast<char>(1 + random() % 255);
        std::unique_ptr<char[]> raw = exactCopy(input);
        HvString encoded = Base64::encode(raw.get());
        EXPECT_EQ(modelEncode(input), textOf(encoded)) << "length " << n;
        std::unique_ptr<char[]> text = exactCopy(encoded.c_str());
        EXPECT_EQ(input, textOf(Base64::decode(text.get()))) << "length " << n;
    }
}

// Arbitrary input never makes the decoder read or write outside the text
// and the buffer it makes (the address sanitizer build checks that), and
// each result is the documented one.
TEST(Base64, RandomInputsDecodeAsDocumentedWithinTheirBuffers)
{
    std::mt19937 random(20240611);
    const char* likely = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/====";
    int mismatches = 0;
    for (int round = 0; round < 100000; ++round) {
        std::size_t n = random() % 41;
        std::string input;
        bool anyByte = random() % 4 == 0;
        for (std::size_t i = 0; i < n; ++i) {
            if (anyByte)
                input += static_cast<char>(1 + random() % 255);
            else
                input += likely[random() % std::strlen(likely)];
        }
        std::unique_ptr<char[]> text = exactCopy(input);
        HvString decoded = Base64::decode(text.get());
        std::vector<unsigned char> expected = modelDecode(input);

        bool ok = !decoded.isNull() && decoded.length() == n && decoded->getCapacity() >= n + 1 &&
                  bytesOf(decoded, expected.size()) == expected;
        for (std::size_t i = expected.size(); ok && i <= n; ++i)
            ok = decoded.c_str()[i] == '\0';
        if (!ok && ++mismatches <= 5)
            ADD_FAILURE() << "input \"" << input << "\" (round " << round << ") decoded otherwise";
    }
    EXPECT_EQ(0, mismatches);
}
