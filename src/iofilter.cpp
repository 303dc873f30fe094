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

constexpr auto kBytesPerLine = static_cast<std::int32_t>(kBase64LineBytes);
constexpr std::int32_t kLineLength = CBase64FilterIo::kLineCapacity + 2;

// Reads at most `wanted` bytes; a failure counts as the end of the data.
std::int32_t Pull(IOElement& source, char* buffer, std::int32_t wanted)
{
    std::int32_t length = wanted;
    return wanted > 0 && source.Read(buffer, length) ? std::clamp(length, 0, wanted) : 0;
}

// As IOLender::Lend; null also where the source is none.
const char* Borrow(IOElement* source, std::int32_t& length, std::int32_t unit)
{
    IOLender* const lender = source == nullptr ? nullptr : source->GetLender();
    return lender == nullptr ? nullptr : lender->Lend(length, unit);
}

// Copies text whose last byte before was `last`, each LF that no CR precedes as CR LF. Returns the end of the
// copy, which has room for twice the text.
char* CopyWithCrLf(const char* text, const char* const end, char* out, char& last)
{
    if (text == end) {
        return out;
    }
    const char before = last;
    last = end[-1];
    const char* const begin = text;
    // Most text has its CRs: lines are looked at one by one, and copied together.
    for (const char* line = text; line != end;) {
        const auto* const lf =
            static_cast<const char*>(std::memchr(line, '\n', static_cast<std::size_t>(end - line)));
        if (lf == nullptr) {
            break;
        }
        line = lf + 1;
        if ((lf == begin ? before : lf[-1]) != '\r') {
            out = std::copy(text, lf, out);
            out = std::copy_n("\r\n", 2, out);
            text = line;
        }
    }
    return std::copy(text, end, out);
}

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
    const char* const bytes = Borrow(GetInner(), ready, kBytesPerLine);
    if (bytes == nullptr) {
        length = kLineCapacity;
        return Read(buffer, length);
    }
    const Base64LinesEncoder encode = FindBase64LinesEncoder();
    encode(bytes, static_cast<std::size_t>(ready) / kBase64LineBytes, buffer);
    length = ready / kBytesPerLine * kLineLength;
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
    auto* const out = static_cast<char*>(buffer);
    char* const end = CopyWithCrLf(chunk, chunk + count, out, m_lastByte);
    *end = '\0';
    length = static_cast<std::int32_t>(end - out);
    return true;
}

bool CrLfFilterIo::ReadText(char* buffer, std::int32_t& length)
{
    std::int32_t ready = length / 2; // every byte may become two
    const char* const text = Borrow(GetInner(), ready, 1);
    if (text == nullptr) {
        --length; // for the NUL byte
        return Read(buffer, length);
    }
    length = static_cast<std::int32_t>(CopyWithCrLf(text, text + ready, buffer, m_lastByte) - buffer);
    return true;
}
