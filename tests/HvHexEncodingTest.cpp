#include <HvUtil/HvHexEncoding.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

HvHandle<HvByteArray> arrayOf(std::initializer_list<int> values)
{
    std::vector<unsigned char> bytes;
    for (int v : values)
        bytes.push_back(static_cast<unsigned char>(v));
    return HvByteArray::sCreate(static_cast<unsigned int>(bytes.size()), bytes.data());
}

std::vector<unsigned char> contents(const HvHandle<HvByteArray>& array)
{
    return std::vector<unsigned char>(array->getData(), array->getData() + array->getSize());
}

std::vector<unsigned char> bytes(std::initializer_list<int> values)
{
    std::vector<unsigned char> out;
    for (int v : values)
        out.push_back(static_cast<unsigned char>(v));
    return out;
}

// The documented digit rule, as a table: '0'-'9' are 0-9, every other code
// counts from '7', so 'A'-'F' are 10-15 and 'a' is 42.
int modelDigit(unsigned char c)
{
    static const std::string decimal = "0123456789";
    return decimal.find(static_cast<char>(c)) != std::string::npos ? c - 48 : c - 55;
}

unsigned char modelByte(unsigned char high, unsigned char low)
{
    return static_cast<unsigned char>(((modelDigit(high) * 16 + modelDigit(low)) % 256 + 256) % 256);
}

// A string whose buffer holds exactly the text and its NUL.
HvString exactString(const std::string& text)
{
    return HvStringBuffer::sCreate(text.c_str(), static_cast<unsigned int>(text.size()), 0);
}

} // namespace

// ---------------------------------------------------------------- toHex

TEST(HvHexEncoding, ToHexWritesTwoLowerCaseDigitsPerByte)
{
    HvString hex = HvHexEncoding::toHex(arrayOf({0x00, 0xAB}));
    EXPECT_STREQ("00ab", hex.c_str());
    EXPECT_EQ(4u, hex.length());
    EXPECT_EQ(5u, hex->getCapacity());
}

TEST(HvHexEncoding, ToHexOfEveryByteValueIsItsPrintfForm)
{
    std::vector<unsigned char> all(256);
    for (int i = 0; i < 256; ++i)
        all[i] = static_cast<unsigned char>(i);
    HvString hex = HvHexEncoding::toHex(HvByteArray::sCreate(256, all.data()));
    ASSERT_EQ(512u, hex.length());
    for (int i = 0; i < 256; ++i) {
        char expected[3];
        std::snprintf(expected, sizeof expected, "%02x", i);
        EXPECT_EQ(std::string(expected), std::string(hex.c_str() + 2 * i, 2)) << i;
    }
    EXPECT_EQ('\0', hex.c_str()[512]);
}

TEST(HvHexEncoding, ToHexOfAnEmptyArrayIsAnEmptyBuffer)
{
    HvString hex = HvHexEncoding::toHex(HvByteArray::sCreate(0u, nullptr));
    ASSERT_FALSE(hex.isNull());
    EXPECT_EQ(0u, hex.length());
    EXPECT_EQ(1u, hex->getCapacity());
    EXPECT_STREQ("", hex.c_str());
}

TEST(HvHexEncoding, ToHexOfAnEmptyHandleIsTheEmptyString)
{
    HvString hex = HvHexEncoding::toHex(HvHandle<HvByteArray>());
    EXPECT_TRUE(hex.isNull());
    EXPECT_STREQ("", hex.c_str());
}

TEST(HvHexEncoding, ToHexGivesItsBufferBack)
{
    hvtest::LeakCheck leaks("HvStringBuffer");
    for (int i = 0; i < 20; ++i)
        EXPECT_STREQ("0102", HvHexEncoding::toHex(arrayOf({1, 2})).c_str());
}

// ---------------------------------------------------------------- fromHex(HvString)

TEST(HvHexEncoding, FromHexReadsUpperCasePairsHighDigitFirst)
{
    HvHandle<HvByteArray> array = HvHexEncoding::fromHex("00AB");
    EXPECT_EQ(bytes({0x00, 0xAB}), contents(array));
}

TEST(HvHexEncoding, FromHexReadsEveryUpperCaseByteValue)
{
    for (int i = 0; i < 256; ++i) {
        char text[3];
        std::snprintf(text, sizeof text, "%02X", i);
        HvHandle<HvByteArray> array = HvHexEncoding::fromHex(HvString(text));
        ASSERT_EQ(1u, array->getSize());
        EXPECT_EQ(i, array->getData()[0]) << text;
    }
}

TEST(HvHexEncoding, LowerCaseDigitsDecodeWrongly)
{
    // 'a' counts as 42 and 'b' as 43: 42 * 16 + 43 = 715, 0xCB in a byte.
    EXPECT_EQ(bytes({0xCB}), contents(HvHexEncoding::fromHex("ab")));
    EXPECT_EQ(bytes({0x9F}), contents(HvHexEncoding::fromHex("7f")));
}

TEST(HvHexEncoding, ToHexOutputReadsBackOnlyWithoutLetterDigits)
{
    HvHandle<HvByteArray> digitsOnly = arrayOf({0x00, 0x12, 0x99});
    EXPECT_EQ(contents(digitsOnly), contents(HvHexEncoding::fromHex(HvHexEncoding::toHex(digitsOnly))));

    HvHandle<HvByteArray> withLetters = arrayOf({0xAB, 0x0F});
    EXPECT_EQ(bytes({0xCB, 0x2F}), contents(HvHexEncoding::fromHex(HvHexEncoding::toHex(withLetters))));
}

TEST(HvHexEncoding, OtherCharactersGiveWrongBytesWithoutError)
{
    // 'G' is 16, so "G0" overflows to 0; ' ' is 32 - 55 = -23, and
    // -23 * 16 + 1 = -367 is 0x91 in a byte.
    EXPECT_EQ(bytes({0x00, 0x91}), contents(HvHexEncoding::fromHex("G0 1")));
}

TEST(HvHexEncoding, FromHexIgnoresAnOddLastCharacter)
{
    EXPECT_EQ(bytes({0xAB}), contents(HvHexEncoding::fromHex("ABC")));
    EXPECT_EQ(0u, HvHexEncoding::fromHex("A")->getSize());
}

TEST(HvHexEncoding, FromHexOfTheEmptyStringIsAnEmptyArray)
{
    HvHandle<HvByteArray> array = HvHexEncoding::fromHex(HvString());
    ASSERT_FALSE(array.isNull());
    EXPECT_EQ(0u, array->getSize());
}

// ---------------------------------------------------------------- fromHex(char*)

TEST(HvHexEncoding, FromHexOfACharacterPointerGivesTheFirstPairsByte)
{
    char text[] = "AB12";
    EXPECT_EQ(0xAB, HvHexEncoding::fromHex(text));
    char digits[] = "7F";
    EXPECT_EQ(0x7F, HvHexEncoding::fromHex(digits));
    char lower[] = "7f";
    EXPECT_EQ(0x9F, HvHexEncoding::fromHex(lower));
}

TEST(HvHexEncoding, FromHexOfOneCharacterPairsItWithItsNul)
{
    // 'A' is 10 and the NUL 0 - 55: 160 - 55 = 105.
    std::unique_ptr<char[]> text(new char[2]{'A', '\0'});
    EXPECT_EQ(105, HvHexEncoding::fromHex(text.get()));
}

TEST(HvHexEncoding, FromHexOfTheEmptyTextReadsOnlyItsNul)
{
    // Both digits read the NUL: -55 * 16 - 55 = -935, 0x59 in a byte.
    std::unique_ptr<char[]> text(new char[1]{'\0'});
    EXPECT_EQ(0x59, HvHexEncoding::fromHex(text.get()));
}

TEST(HvHexEncoding, FromHexOfNullIsZero)
{
    EXPECT_EQ(0, HvHexEncoding::fromHex(static_cast<char*>(nullptr)));
}

// ---------------------------------------------------------------- random input

// Arbitrary texts of any length, odd ones included, never make fromHex read
// outside the text's buffer (the address sanitizer build checks that), and
// every byte follows the digit rule.
TEST(HvHexEncoding, RandomTextsDecodeByTheDigitRuleWithinTheirBuffers)
{
    std::mt19937 random(1321);
    const char* likely = "0123456789ABCDEFabcdef";
    int mismatches = 0;
    for (int round = 0; round < 100000; ++round) {
        std::size_t n = random() % 24;
        std::string text;
        bool anyByte = random() % 3 == 0;
        for (std::size_t i = 0; i < n; ++i)
            text += anyByte ? static_cast<char>(1 + random() % 255) : likely[random() % 22];

        HvHandle<HvByteArray> array = HvHexEncoding::fromHex(exactString(text));
        std::vector<unsigned char> expected;
        for (std::size_t i = 0; i + 1 < n; i += 2)
            expected.push_back(modelByte(static_cast<unsigned char>(text[i]), static_cast<unsigned char>(text[i + 1])));
        bool ok = !array.isNull() && contents(array) == expected;

        std::unique_ptr<char[]> raw(new char[n + 1]);
        std::memcpy(raw.get(), text.c_str(), n + 1);
        unsigned char first = HvHexEncoding::fromHex(raw.get());
        unsigned char high = n > 0 ? static_cast<unsigned char>(text[0]) : 0;
        unsigned char low = n > 1 ? static_cast<unsigned char>(text[1]) : 0;
        ok = ok && first == modelByte(high, low);

        if (!ok && ++mismatches <= 5)
            ADD_FAILURE() << "text \"" << text << "\" (round " << round << ") decoded otherwise";
    }
    EXPECT_EQ(0, mismatches);
}
