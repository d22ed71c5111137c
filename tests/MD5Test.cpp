#include <HvUtil/MD5.h>

#include <HvUtil/CMD5Encrypt.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvHexEncoding.h>
#include <HvUtil/HvString.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

HvHandle<HvByteArray> arrayOf(const std::string& text)
{
    return HvByteArray::sCreate(static_cast<unsigned int>(text.size()), text.data());
}

// The digest of a text, in the library's hexadecimal form.
std::string md5Hex(const std::string& text)
{
    MD5 md5;
    return HvHexEncoding::toHex(md5.digest(arrayOf(text))).c_str();
}

// The digest of `input`, fed to the engine in pieces of the given sizes
// (the rest in one last piece).
std::string engineHex(const std::string& input, const std::vector<unsigned int>& pieces)
{
    CMD5Encrypt::MD5_CTX context;
    CMD5Encrypt::MD5Init(&context);
    const unsigned char* at = reinterpret_cast<const unsigned char*>(input.data());
    unsigned int left = static_cast<unsigned int>(input.size());
    for (unsigned int piece : pieces) {
        unsigned int n = piece < left ? piece : left;
        CMD5Encrypt::MD5Update(&context, at, n);
        at += n;
        left -= n;
    }
    CMD5Encrypt::MD5Update(&context, at, left);
    unsigned char digest[16];
    CMD5Encrypt::MD5Final(digest, &context);
    return HvHexEncoding::toHex(HvByteArray::sCreate(16, digest)).c_str();
}

} // namespace

TEST(MD5, DigestLengthIsSixteen)
{
    EXPECT_EQ(16u, MD5::MD5_LENGTH);
    MD5 md5;
    EXPECT_EQ(16u, md5.digest(arrayOf("abc"))->getSize());
}

// The test suite of RFC 1321, appendix A.5.
TEST(MD5, DigestsTheRfc1321TestSuite)
{
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5Hex(""));
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", md5Hex("a"));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5Hex("abc"));
    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", md5Hex("message digest"));
    EXPECT_EQ("c3fcd3d76192e4007dfb496cca67e13b", md5Hex("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ("d174ab98d277d9f5a5611c2c9f419d9f",
              md5Hex("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
    EXPECT_EQ("57edf4a22be3c955ac49da2e2107b67a",
              md5Hex("12345678901234567890123456789012345678901234567890123456789012345678901234567890"));
}

// Lengths around the padding boundaries (56 and 64 bytes modulo 64); the
// expected digests come from an independent implementation.
TEST(MD5, DigestsLengthsAroundThePaddingBoundaries)
{
    EXPECT_EQ("ef1772b6dff9a122358552954ad0df65", md5Hex(std::string(55, 'a')));
    EXPECT_EQ("3b0c8ac703f828b04c6c197006d17218", md5Hex(std::string(56, 'a')));
    EXPECT_EQ("b06521f39153d618550606be297466d5", md5Hex(std::string(63, 'a')));
    EXPECT_EQ("014842d480b571495a4a0363793f7367", md5Hex(std::string(64, 'a')));
    EXPECT_EQ("c743a45e0d2e6a95cb859adae0248435", md5Hex(std::string(65, 'a')));
    EXPECT_EQ("8a7bd0732ed6a28ce75f6dabc90e1613", md5Hex(std::string(119, 'a')));
    EXPECT_EQ("5f61c0ccad4cac44c75ff505e1f1e537", md5Hex(std::string(120, 'a')));
    EXPECT_EQ("e510683b3f5ffe4093d021808bc6ff70", md5Hex(std::string(128, 'a')));
    EXPECT_EQ("7707d6ae4e027c70eea2a935c2296f21", md5Hex(std::string(1000000, 'a')));
}

// RFC 2617, section 3.5: the digest response of "Mufasa" computed with the
// library's MD5 and hexadecimal encoding.
TEST(MD5, ComputesTheRfc2617DigestExample)
{
    std::string ha1 = md5Hex("Mufasa:testrealm@host.com:Circle Of Life");
    std::string ha2 = md5Hex("GET:/dir/index.html");
    EXPECT_EQ("939e7578ed9e3c518a452acee763bce9", ha1);
    EXPECT_EQ("39aff3a2bab6126f332b942af96d3366", ha2);
    std::string response = md5Hex(ha1 + ":dcd98b7102dd2f0e8b11d0f600bfb0c093:00000001:0a4f113b:auth:" + ha2);
    EXPECT_EQ("6629fae49393a05397450978507c4ef1", response);
}

TEST(MD5, OneObjectGivesTheSameDigestEveryTime)
{
    MD5 md5;
    HvHandle<HvByteArray> input = arrayOf("message digest");
    HvHandle<HvByteArray> first = md5.digest(input);
    HvHandle<HvByteArray> second = md5.digest(arrayOf("abc"));
    HvHandle<HvByteArray> third = md5.digest(input);
    EXPECT_STREQ("f96b697d7cb7938d525a2f31aaf161d0", HvHexEncoding::toHex(first).c_str());
    EXPECT_STREQ("900150983cd24fb0d6963f7d28e17f72", HvHexEncoding::toHex(second).c_str());
    EXPECT_STREQ("f96b697d7cb7938d525a2f31aaf161d0", HvHexEncoding::toHex(third).c_str());
}

TEST(MD5, EachDigestIsANewArrayAndTheInputIsUntouched)
{
    MD5 md5;
    HvHandle<HvByteArray> input = arrayOf("abc");
    HvHandle<HvByteArray> first = md5.digest(input);
    HvHandle<HvByteArray> second = md5.digest(input);
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(input.get(), first.get());
    EXPECT_EQ(1, first->getRefCount());
    EXPECT_EQ(0, std::memcmp(input->getData(), "abc", 3));
}

TEST(MD5, EmptyHandleIsDigestedAsNoBytes)
{
    MD5 md5;
    EXPECT_STREQ("d41d8cd98f00b204e9800998ecf8427e", HvHexEncoding::toHex(md5.digest(HvHandle<HvByteArray>())).c_str());
}

TEST(MD5, EngineGivesTheSameDigestWhateverThePieces)
{
    std::mt19937 random(1321);
    std::string input;
    for (int i = 0; i < 1000; ++i)
        input += static_cast<char>(random());
    std::string whole = md5Hex(input);
    EXPECT_EQ(whole, engineHex(input, {}));
    EXPECT_EQ(whole, engineHex(input, {1, 63, 64, 0, 65, 127, 200}));
    for (int round = 0; round < 200; ++round) {
        std::vector<unsigned int> pieces;
        for (int i = 0; i < 10; ++i)
            pieces.push_back(random() % 150);
        EXPECT_EQ(whole, engineHex(input, pieces)) << "round " << round;
    }
}

TEST(MD5, FinalClearsTheContext)
{
    CMD5Encrypt::MD5_CTX context;
    CMD5Encrypt::MD5Init(&context);
    const unsigned char text[] = "secret";
    CMD5Encrypt::MD5Update(&context, text, 6);
    unsigned char digest[16];
    CMD5Encrypt::MD5Final(digest, &context);
    CMD5Encrypt::MD5_CTX zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(0, std::memcmp(&zero, &context, sizeof context));
}

TEST(MD5, InitSetsTheRfc1321Registers)
{
    CMD5Encrypt::MD5_CTX context;
    CMD5Encrypt::MD5Init(&context);
    EXPECT_EQ(0x67452301u, context.state[0]);
    EXPECT_EQ(0xefcdab89u, context.state[1]);
    EXPECT_EQ(0x98badcfeu, context.state[2]);
    EXPECT_EQ(0x10325476u, context.state[3]);
    EXPECT_EQ(0u, context.count[0]);
    EXPECT_EQ(0u, context.count[1]);
}

TEST(MD5, BitCountCarriesIntoTheHighWord)
{
    CMD5Encrypt::MD5_CTX context = {};
    CMD5Encrypt::MD5Init(&context);
    // Just below 2^32 bits counted so far: adding one byte carries.
    context.count[0] = 0xFFFFFFF8u;
    unsigned char byte = 'x';
    CMD5Encrypt::MD5Update(&context, &byte, 1);
    EXPECT_EQ(0u, context.count[0]);
    EXPECT_EQ(1u, context.count[1]);
}
