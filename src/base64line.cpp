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

std::size_t EncodeAnyLine(const char* line, std::size_t count, char* out)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(line);
    const char* const begin = out;
    for (; count >= 3; bytes += 3, count -= 3, out += 4) {
        const unsigned group =
            static_cast<unsigned>(bytes[0]) << 16U | static_cast<unsigned>(bytes[1]) << 8U | bytes[2];
        std::memcpy(out, kTable.pairs[group >> 12U], 2);
        std::memcpy(out + 2, kTable.pairs[group & 4095U], 2);
    }
    if (count > 0) {
        const unsigned second = count > 1 ? bytes[1] : 0U;
        const unsigned group = static_cast<unsigned>(bytes[0]) << 16U | second << 8U;
        std::memcpy(out, kTable.pairs[group >> 12U], 2);
        out[2] = count > 1 ? kTable.pairs[group & 4095U][0] : '=';
        out[3] = '=';
        out += 4;
    }
    return static_cast<std::size_t>(out - begin);
}

#ifdef __x86_64__

// Sixteen characters of the twelve bytes that `order` picks from `bytes`: each group of three is spread to
// four bytes of six bits, and each of those is moved to its range of the alphabet.
[[gnu::target("ssse3"), gnu::always_inline]] inline __m128i EncodeTwelve(__m128i bytes, __m128i order)
{
    const __m128i groups =
        _mm_shuffle_epi8(bytes, order); // of each three bytes: second, first, third, second
    const __m128i even =
        _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    const __m128i odd =
        _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(even, odd);
    // The row of the table of distances: 13 for capitals, 0 for small letters, 1 to 10 for digits, 11 and 12.
    const __m128i beyondLetters = _mm_subs_epu8(values, _mm_set1_epi8(51));
    const __m128i isCapital = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    const __m128i row = _mm_or_si128(beyondLetters, _mm_and_si128(isCapital, _mm_set1_epi8(13)));
    const __m128i distances =
        _mm_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                      '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    return _mm_add_epi8(values, _mm_shuffle_epi8(distances, row));
}

// A full line: 57 bytes, 76 characters.
[[gnu::target("ssse3")]] void EncodeFullLine(const char* bytes, char* out)
{
    const __m128i order = _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    for (std::size_t group = 0; group < 4; ++group) {
        const __m128i source = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + group * 12));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + group * 16), EncodeTwelve(source, order));
    }
    // The last nine bytes end a block that begins seven bytes before them: nothing is read behind the line.
    const __m128i last = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + kBase64LineBytes - 16));
    char characters[16];
    _mm_storeu_si128(reinterpret_cast<__m128i*>(characters),
                     EncodeTwelve(last, _mm_add_epi8(order, _mm_set1_epi8(7))));
    std::memcpy(out + 64, characters, 12);
}

bool HasVectors()
{
    return __builtin_cpu_supports("ssse3") != 0;
}

#else

void EncodeFullLine(const char* bytes, char* out)
{
    EncodeAnyLine(bytes, kBase64LineBytes, out);
}

bool HasVectors()
{
    return false;
}

#endif

} // namespace

std::size_t EncodeBase64Line(const char* bytes, std::size_t count, char* out)
{
    if (count != kBase64LineBytes || !HasVectors()) {
        return EncodeAnyLine(bytes, count, out);
    }
    EncodeFullLine(bytes, out);
    return 76;
}
