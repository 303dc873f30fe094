#include "src/iofilter.h"

#include <algorithm>
#include <cstring>

bool IOFilter::Write(const void* /*buffer*/, std::int32_t /*length*/)
{
    return false;
}

bool IOFilter::ReadAtMark(void* /*buffer*/, std::int32_t& length)
{
    length = 0;
    return false;
}

namespace {

// Reads at most `wanted` bytes; a failure counts as the end of the data.
std::int32_t Pull(IOElement& source, char* buffer, std::int32_t wanted)
{
    std::int32_t length = wanted;
    return wanted > 0 && source.Read(buffer, length) ? std::clamp(length, 0, wanted) : 0;
}

// The two characters for each value of 12 bits: half a group in one look-up, on the path of every byte.
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

std::size_t EncodeLine(const unsigned char* bytes, std::size_t count, char* out)
{
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

} // namespace

bool CBase64FilterIo::Read(void* buffer, std::int32_t& length)
{
    constexpr std::int32_t kBytesPerLine = 57;
    const std::int32_t wanted = std::min(std::max(length, 0) / 4 * 3, kBytesPerLine);
    length = 0;
    if (GetInner() == nullptr) {
        return false;
    }
    char bytes[kBytesPerLine];
    const std::int32_t count = Pull(*GetInner(), bytes, wanted);
    if (count > 0) {
        auto* const out = static_cast<char*>(buffer);
        const std::size_t encoded =
            EncodeLine(reinterpret_cast<const unsigned char*>(bytes), static_cast<std::size_t>(count), out);
        std::memcpy(out + encoded, "\r\n", 3);
        length = static_cast<std::int32_t>(encoded) + 2;
    }
    return true;
}

void CrLfFilterIo::Restart(IOElement* source)
{
    SetInner(source);
    m_lastByte = 0;
}

bool CrLfFilterIo::Read(void* buffer, std::int32_t& length)
{
    constexpr std::int32_t kLargestChunk = 500;
    const std::int32_t wanted = std::min(std::max(length, 0) / 2, kLargestChunk); // every byte may become two
    length = 0;
    if (GetInner() == nullptr) {
        return false;
    }
    char chunk[kLargestChunk];
    const std::int32_t count = Pull(*GetInner(), chunk, wanted);
    auto* out = static_cast<char*>(buffer);
    for (const char *piece = chunk, *const end = chunk + count; piece != end;) {
        const auto* const lineEnd =
            static_cast<const char*>(std::memchr(piece, '\n', static_cast<std::size_t>(end - piece)));
        const char* const pieceEnd = lineEnd == nullptr ? end : lineEnd;
        m_lastByte = pieceEnd == piece ? m_lastByte : pieceEnd[-1];
        out = std::copy(piece, pieceEnd, out);
        piece = pieceEnd;
        if (lineEnd != nullptr) {
            if (m_lastByte != '\r') {
                *out++ = '\r';
            }
            *out++ = m_lastByte = '\n';
            ++piece;
        }
    }
    *out = '\0';
    length = static_cast<std::int32_t>(out - static_cast<char*>(buffer));
    return true;
}
