#include "src/base64line.h"

#include <cstring>

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace {

// The two characters for each value of 12 bits: half a group in one look-up.
struct PairTable
{
    char pairs[4096][2];
};

constexpr PairTable MakePairTable()
{
    constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    PairTable table = {};
    for (std::size_t value = 0; value < 4096; ++value) {
        table.pairs[value][0] = kAlphabet[value >> 6U];
        table.pairs[value][1] = kAlphabet[value & 63U];
    }
    return table;
}

constexpr PairTable kTable = MakePairTable();

constexpr std::size_t kCharacters = 76; // of a full line

void EncodeLines(const char* bytes, std::size_t lines, char* out)
{
    for (; lines > 0; --lines, bytes += kBase64LineBytes, out += kCharacters + 2) {
        EncodeBase64Line(bytes, kBase64LineBytes, out);
        out[kCharacters] = '\r';
        out[kCharacters + 1] = '\n';
    }
}

#ifdef __x86_64__

// The same for 16 and 32 characters at a time. Each group of three bytes is spread to four of six bits
// (`order` picks second, first, third, second), and each of those is moved to its range of the alphabet by a
// table of distances: row 13 for capitals, 0 for small letters, 1 to 10 for digits, 11 and 12.
#define VELMAIL_DISTANCES                                                                                    \
    'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,      \
        '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0
#define VELMAIL_ORDER 1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10

[[gnu::target("ssse3"), gnu::always_inline]] inline __m128i EncodeTwelve(__m128i bytes, __m128i order)
{
    const __m128i groups = _mm_shuffle_epi8(bytes, order);
    const __m128i even =
        _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i odd =
        _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(even, odd);
    const __m128i beyondLetters = _mm_subs_epu8(values, _mm_set1_epi8(51));
    const __m128i isCapital = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    const __m128i row = _mm_or_si128(beyondLetters, _mm_and_si128(isCapital, _mm_set1_epi8(13)));
    return _mm_add_epi8(values, _mm_shuffle_epi8(_mm_setr_epi8(VELMAIL_DISTANCES), row));
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i EncodeTwentyFour(__m256i bytes)
{
    const __m256i groups = _mm256_shuffle_epi8(bytes, _mm256_setr_epi8(VELMAIL_ORDER, VELMAIL_ORDER));
    const __m256i even = _mm256_mulhi_epu16(_mm256_and_si256(groups, _mm256_set1_epi32(0x0FC0FC00)),
                                            _mm256_set1_epi32(0x04000040));
    const __m256i odd = _mm256_mullo_epi16(_mm256_and_si256(groups, _mm256_set1_epi32(0x003F03F0)),
                                           _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(even, odd);
    const __m256i beyondLetters = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
    const __m256i isCapital = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    const __m256i row = _mm256_or_si256(beyondLetters, _mm256_and_si256(isCapital, _mm256_set1_epi8(13)));
    const __m256i distances = _mm256_setr_epi8(VELMAIL_DISTANCES, VELMAIL_DISTANCES);
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(distances, row));
}

// The last nine bytes of a line end a block that begins seven bytes before them: nothing is read behind the
// line.
[[gnu::target("ssse3"), gnu::always_inline]] inline void EncodeLastNine(const char* bytes, char* out)
{
    const __m128i last = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + kBase64LineBytes - 16));
    const __m128i order = _mm_add_epi8(_mm_setr_epi8(VELMAIL_ORDER), _mm_set1_epi8(7));
    const __m128i characters = EncodeTwelve(last, order);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 64), characters);
    const int rest = _mm_cvtsi128_si32(_mm_srli_si128(characters, 8));
    std::memcpy(out + 72, &rest, sizeof rest);
}

[[gnu::target("ssse3")]] void EncodeLinesSsse3(const char* bytes, std::size_t lines, char* out)
{
    const __m128i order = _mm_setr_epi8(VELMAIL_ORDER);
    for (; lines > 0; --lines, bytes += kBase64LineBytes, out += kCharacters + 2) {
        for (std::size_t group = 0; group < 4; ++group) {
            const __m128i source = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + group * 12));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + group * 16), EncodeTwelve(source, order));
        }
        EncodeLastNine(bytes, out);
        out[kCharacters] = '\r';
        out[kCharacters + 1] = '\n';
    }
}

[[gnu::target("avx2")]] void EncodeLinesAvx2(const char* bytes, std::size_t lines, char* out)
{
    for (; lines > 0; --lines, bytes += kBase64LineBytes, out += kCharacters + 2) {
        for (std::size_t group = 0; group < 2; ++group) {
            const __m256i source =
                _mm256_loadu2_m128i(reinterpret_cast<const __m128i*>(bytes + group * 24 + 12),
                                    reinterpret_cast<const __m128i*>(bytes + group * 24));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + group * 32), EncodeTwentyFour(source));
        }
        EncodeLastNine(bytes, out);
        out[kCharacters] = '\r';
        out[kCharacters + 1] = '\n';
    }
}

#endif

} // namespace

std::size_t EncodeBase64Line(const char* bytes, std::size_t count, char* out)
{
    const char* const begin = out;
    const auto* byte = reinterpret_cast<const unsigned char*>(bytes);
    for (; count >= 3; byte += 3, count -= 3, out += 4) {
        const unsigned group =
            static_cast<unsigned>(byte[0]) << 16U | static_cast<unsigned>(byte[1]) << 8U | byte[2];
        std::memcpy(out, kTable.pairs[group >> 12U], 2);
        std::memcpy(out + 2, kTable.pairs[group & 4095U], 2);
    }
    if (count > 0) {
        const unsigned second = count > 1 ? byte[1] : 0U;
        const unsigned group = static_cast<unsigned>(byte[0]) << 16U | second << 8U;
        std::memcpy(out, kTable.pairs[group >> 12U], 2);
        out[2] = count > 1 ? kTable.pairs[group & 4095U][0] : '=';
        out[3] = '=';
        out += 4;
    }
    return static_cast<std::size_t>(out - begin);
}

Base64LinesEncoder FindBase64LinesEncoder(std::size_t rank)
{
    Base64LinesEncoder found[4] = {};
    std::size_t count = 0;
#ifdef __x86_64__
    if (__builtin_cpu_supports("avx2") != 0) {
        found[count++] = EncodeLinesAvx2;
    }
    if (__builtin_cpu_supports("ssse3") != 0) {
        found[count++] = EncodeLinesSsse3;
    }
#endif
    found[count++] = EncodeLines;
    return rank < count ? found[rank] : nullptr;
}
