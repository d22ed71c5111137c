// Throughput of the encoders, the digest, UUIDs and dates, next to OpenSSL's
// MD5 and Base64 blocks and the C library's strptime/strftime.
//
// Naming: BM_<Case>_Hv... measures this library, BM_<Case>_Std... the anchor
// for the same case; tools/run-benchmarks.sh pairs them by that name to print
// the ratio. Byte rates count the raw (unencoded) bytes on both sides.
#include <HvUtil/Base64.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvDate.h>
#include <HvUtil/HvHexEncoding.h>
#include <HvUtil/HvString.h>
#include <HvUtil/MD5.h>
#include <HvUtil/UUID.h>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

namespace {

// n bytes of random text without NULs (Base64::encode takes a C string).
std::string randomText(std::size_t n)
{
    std::mt19937 random(static_cast<unsigned int>(n));
    std::string text(n, ' ');
    for (char& c : text)
        c = static_cast<char>(1 + random() % 255);
    return text;
}

std::string hexOf(const unsigned char* bytes, std::size_t n)
{
    return HvHexEncoding::toHex(HvByteArray::sCreate(static_cast<unsigned int>(n), bytes)).c_str();
}

// ---------------------------------------------------------------------------
// MD5

// One OpenSSL MD5 digest through a reused context, for checking and timing.
class OpenSslMd5 {
public:
    OpenSslMd5() : m_md(EVP_MD_fetch(nullptr, "MD5", nullptr)), m_context(EVP_MD_CTX_new()) {}
    ~OpenSslMd5()
    {
        EVP_MD_CTX_free(m_context);
        EVP_MD_free(m_md);
    }
    OpenSslMd5(const OpenSslMd5&) = delete;
    OpenSslMd5& operator=(const OpenSslMd5&) = delete;

    bool usable() const { return m_md && m_context; }
    bool digest(const void* data, std::size_t n, unsigned char out[16])
    {
        unsigned int length = 0;
        return EVP_DigestInit_ex(m_context, m_md, nullptr) == 1 && EVP_DigestUpdate(m_context, data, n) == 1 &&
               EVP_DigestFinal_ex(m_context, out, &length) == 1 && length == 16;
    }

private:
    EVP_MD* m_md;
    EVP_MD_CTX* m_context;
};

void BM_MD5_Hv(benchmark::State& state)
{
    std::size_t n = static_cast<std::size_t>(state.range(0));
    std::string text = randomText(n);
    HvHandle<HvByteArray> input = HvByteArray::sCreate(static_cast<unsigned int>(n), text.data());
    MD5 md5;
    OpenSslMd5 reference;
    unsigned char expected[16];
    HvHandle<HvByteArray> check = md5.digest(input);
    if (!reference.usable() || !reference.digest(text.data(), n, expected) ||
        hexOf(check->getData(), 16) != hexOf(expected, 16)) {
        state.SkipWithError("MD5::digest differs from OpenSSL's MD5");
        return;
    }
    for (auto _ : state) {
        HvHandle<HvByteArray> digest = md5.digest(input);
        benchmark::DoNotOptimize(digest->getData());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_MD5_Hv)->Arg(64)->Arg(1024)->Arg(16384);

void BM_MD5_StdOpenSSL(benchmark::State& state)
{
    std::size_t n = static_cast<std::size_t>(state.range(0));
    std::string text = randomText(n);
    OpenSslMd5 md5;
    unsigned char digest[16];
    if (!md5.usable() || !md5.digest(text.data(), n, digest)) {
        state.SkipWithError("OpenSSL's MD5 is not available");
        return;
    }
    for (auto _ : state) {
        md5.digest(text.data(), n, digest);
        benchmark::DoNotOptimize(digest);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_MD5_StdOpenSSL)->Arg(64)->Arg(1024)->Arg(16384);

// ---------------------------------------------------------------------------
// Base64

std::string openSslEncoded(const std::string& text)
{
    std::vector<unsigned char> out(4 * ((text.size() + 2) / 3) + 1);
    int n = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
    return std::string(reinterpret_cast<const char*>(out.data()), n > 0 ? n : 0);
}

void BM_Base64Encode_Hv(benchmark::State& state)
{
    std::size_t n = static_cast<std::size_t>(state.range(0));
    std::string text = randomText(n);
    if (std::string(Base64::encode(text.c_str()).c_str()) != openSslEncoded(text)) {
        state.SkipWithError("Base64::encode differs from EVP_EncodeBlock");
        return;
    }
    for (auto _ : state) {
        HvString encoded = Base64::encode(text.c_str());
        benchmark::DoNotOptimize(encoded.c_str());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_Base64Encode_Hv)->Arg(64)->Arg(1024)->Arg(16384);

void BM_Base64Encode_StdOpenSSL(benchmark::State& state)
{
    std::size_t n = static_cast<std::size_t>(state.range(0));
    std::string text = randomText(n);
    std::vector<unsigned char> out(4 * ((n + 2) / 3) + 1);
    for (auto _ : state) {
        int length = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(n));
        benchmark::DoNotOptimize(length);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_Base64Encode_StdOpenSSL)->Arg(64)->Arg(1024)->Arg(16384);

void BM_Base64Decode_Hv(benchmark::State& state)
{
    std::size_t n = static_cast<std::size_t>(state.range(0));
    std::string text = randomText(n);
    std::string encoded = openSslEncoded(text);
    if (std::string(Base64::decode(encoded.c_str()).c_str()) != text) {
        state.SkipWithError("Base64::decode does not give the text back");
        return;
    }
    for (auto _ : state) {
        HvString decoded = Base64::decode(encoded.c_str());
        benchmark::DoNotOptimize(decoded.c_str());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_Base64Decode_Hv)->Arg(64)->Arg(1024)->Arg(16384);

void BM_Base64Decode_StdOpenSSL(benchmark::State& state)
{
    std::size_t n = static_cast<std::size_t>(state.range(0));
    std::string text = randomText(n);
    std::string encoded = openSslEncoded(text);
    std::vector<unsigned char> out(encoded.size() + 1);
    int check = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(encoded.data()),
                                static_cast<int>(encoded.size()));
    // The block keeps the padding's zero bytes: 3 bytes per 4 characters.
    if (check < static_cast<int>(n) || std::memcmp(out.data(), text.data(), n) != 0) {
        state.SkipWithError("EVP_DecodeBlock does not give the text back");
        return;
    }
    for (auto _ : state) {
        int length = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(encoded.data()),
                                     static_cast<int>(encoded.size()));
        benchmark::DoNotOptimize(length);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * n));
}
BENCHMARK(BM_Base64Decode_StdOpenSSL)->Arg(64)->Arg(1024)->Arg(16384);

// ---------------------------------------------------------------------------
// UUIDs

void BM_Uuid_Hv(benchmark::State& state)
{
    char text[37];
    for (auto _ : state) {
        UUID::uuid_create_string(text);
        benchmark::DoNotOptimize(text);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Uuid_Hv)->UseRealTime();
BENCHMARK(BM_Uuid_Hv)->Threads(2)->UseRealTime();

// ---------------------------------------------------------------------------
// Dates

const char kDateText[] = "Sun, 06 Nov 1994 08:49:37 GMT";

// One parse and one format of an RFC 1123 date.
void BM_DateParseFormat_Hv(benchmark::State& state)
{
    HvDate date(kDateText);
    char buffer[30];
    if (std::strcmp(date.getHvDate(buffer), kDateText) != 0) {
        state.SkipWithError("HvDate does not format the date back");
        return;
    }
    for (auto _ : state) {
        date.constructHvDate(kDateText);
        benchmark::DoNotOptimize(date.getHvDate(buffer));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DateParseFormat_Hv);

void BM_DateParseFormat_StdStrptime(benchmark::State& state)
{
    const char* format = "%a, %d %b %Y %H:%M:%S GMT";
    char buffer[30];
    struct tm fields = {};
    if (!strptime(kDateText, format, &fields) || strftime(buffer, sizeof buffer, format, &fields) == 0 ||
        std::strcmp(buffer, kDateText) != 0) {
        state.SkipWithError("strptime/strftime do not give the date back");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(strptime(kDateText, format, &fields));
        benchmark::DoNotOptimize(strftime(buffer, sizeof buffer, format, &fields));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DateParseFormat_StdStrptime);

} // namespace
