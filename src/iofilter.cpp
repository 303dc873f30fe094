#include "src/iofilter.h"

#include <algorithm>
#include <cstring>

#include "src/base64line.h"

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

} // namespace

namespace {
constexpr auto kBytesPerLine = static_cast<std::int32_t>(kBase64LineBytes);
constexpr std::int32_t kLineLength = CBase64FilterIo::kLineCapacity + 2;
} // namespace

bool CBase64FilterIo::Read(void* buffer, std::int32_t& length)
{
    const std::int32_t wanted = std::min(std::max(length, 0) / 4 * 3, kBytesPerLine);
    length = 0;
    if (GetInner() == nullptr) {
        return false;
    }
    char bytes[kBytesPerLine];
    const std::int32_t count = Pull(*GetInner(), bytes, wanted);
    if (count > 0) {
        auto* const out = static_cast<char*>(buffer);
        const std::size_t encoded = EncodeBase64Line(bytes, static_cast<std::size_t>(count), out);
        std::memcpy(out + encoded, "\r\n", 3);
        length = static_cast<std::int32_t>(encoded) + 2;
    }
    return true;
}

bool CBase64FilterIo::ReadLines(char* buffer, std::int32_t& length)
{
    std::int32_t ready = (length - 1) / kLineLength * kBytesPerLine;
    const char* bytes = GetInner() == nullptr ? nullptr : GetInner()->Lend(ready, kBytesPerLine);
    if (bytes == nullptr) {
        length = kLineCapacity;
        return Read(buffer, length);
    }
    char* out = buffer;
    for (const char* const end = bytes + ready; bytes != end; bytes += kBytesPerLine, out += kLineLength) {
        EncodeBase64Line(bytes, kBase64LineBytes, out);
        std::memcpy(out + kLineCapacity, "\r\n", 3);
    }
    length = static_cast<std::int32_t>(out - buffer);
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
