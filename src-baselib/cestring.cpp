#include "src-baselib/cestring.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "src-baselib/neverdestroyed.h"

CEString::CEString(CEString&& other) noexcept
    : m_buffer(std::move(other.m_buffer)), m_capacity(std::exchange(other.m_capacity, 0)),
      m_length(std::exchange(other.m_length, 0))
{
    std::memcpy(m_short, other.m_short, sizeof m_short);
    other.m_short[0] = '\0';
}

CEString& CEString::operator=(const CEString& other)
{
    if (this != &other) {
        Assign(other.View());
    }
    return *this;
}

CEString& CEString::operator=(CEString&& other) noexcept
{
    if (this != &other) {
        m_buffer = std::move(other.m_buffer);
        m_capacity = std::exchange(other.m_capacity, 0);
        m_length = std::exchange(other.m_length, 0);
        std::memcpy(m_short, other.m_short, sizeof m_short);
        other.m_short[0] = '\0';
    }
    return *this;
}

CEString& CEString::operator=(const char* text)
{
    Assign(text);
    return *this;
}

void CEString::Clear()
{
    m_buffer.reset();
    m_short[0] = '\0';
    m_capacity = 0;
    m_length = 0;
}

bool CEString::Reserve(std::int64_t count)
{
    std::uint64_t request = static_cast<std::uint64_t>(count);
    if (count < 0) {
        request = m_capacity + 16;
    } else if (count == 0 && m_capacity < 16) {
        request = 16;
    }
    if (request <= m_capacity) {
        return true;
    }
    const std::uint64_t capacity = std::max(request, m_length + m_length / 2) / 16 * 16 + 19;
    if (capacity <= kShort) {
        std::memset(m_short + m_length, 0, sizeof m_short - static_cast<std::size_t>(m_length));
        m_capacity = capacity;
        return true;
    }
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[static_cast<std::size_t>(capacity) + 1]());
    if (!buffer) {
        return false;
    }
    std::memcpy(buffer.get(), CStr(), static_cast<std::size_t>(m_length));
    m_buffer = std::move(buffer);
    m_capacity = capacity;
    return true;
}

void CEString::ReserveOrThrow(std::size_t count)
{
    if (!Reserve(static_cast<std::int64_t>(count))) {
        throw std::bad_alloc();
    }
}

void CEString::Assign(std::string_view text)
{
    if (!text.empty()) {
        // A part of the own buffer stays readable: Reserve is not needed for a text no longer than this one.
        ReserveOrThrow(text.size());
        std::memmove(Data(), text.data(), text.size());
    }
    m_length = text.size();
    Data()[GetLength()] = '\0';
}

void CEString::Append(std::string_view text)
{
    if (text.empty()) {
        return;
    }
    if (GetLength() + text.size() > m_capacity) {
        CEString grown; // the old buffer lives until the text, which may be a part of it, is copied
        grown.ReserveOrThrow(std::max(GetLength() + text.size(), GetLength() + GetLength() / 2));
        std::copy_n(CStr(), GetLength(), grown.Data());
        std::copy_n(text.data(), text.size(), grown.Data() + m_length);
        grown.m_length = m_length;
        *this = std::move(grown);
    } else {
        std::memmove(Data() + m_length, text.data(), text.size());
    }
    m_length += text.size();
    Data()[GetLength()] = '\0';
}

void CEString::Format(const char* format, ...)
{
    char buffer[kFormatLimit + 1];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    if (length <= 0) {
        Clear();
        return;
    }
    Assign(std::string_view(buffer, std::min(static_cast<std::size_t>(length), kFormatLimit)));
}

CEString CEString::Left(std::int64_t count) const
{
    return Mid(0, count);
}

CEString CEString::Mid(std::int64_t start, std::int64_t count) const
{
    if (start < 0 || count <= 0 || static_cast<std::uint64_t>(start) >= m_length) {
        return {};
    }
    return CEString(View().substr(static_cast<std::size_t>(start), static_cast<std::size_t>(count)));
}

void CEString::EncodeBase64(const void* data, std::int64_t length, CEString& result)
{
    static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto* bytes = static_cast<const unsigned char*>(data);
    const std::size_t count =
        length < 0 ? std::strlen(static_cast<const char*>(data)) : static_cast<std::size_t>(length);

    CEString text;
    text.ReserveOrThrow((count + 2) / 3 * 4);
    char* out = text.Data();
    for (std::size_t i = 0; i < count; i += 3) {
        const std::size_t rest = count - i;
        const unsigned second = rest > 1 ? bytes[i + 1] : 0U;
        const unsigned third = rest > 2 ? bytes[i + 2] : 0U;
        const unsigned group = static_cast<unsigned>(bytes[i]) << 16U | second << 8U | third;
        *out++ = kAlphabet[group >> 18U];
        *out++ = kAlphabet[group >> 12U & 63U];
        *out++ = rest > 1 ? kAlphabet[group >> 6U & 63U] : '=';
        *out++ = rest > 2 ? kAlphabet[group & 63U] : '=';
    }
    *out = '\0';
    text.m_length = static_cast<std::uint64_t>(out - text.Data());
    result = std::move(text);
}

namespace {
constinit CNeverDestroyed<CEString> g_empty;

int CompareBytes(const CEString& left, const CEString& right)
{
    return std::strcmp(left.CStr(), right.CStr()); // strcmp compares unsigned bytes
}
} // namespace

CEStringArray::Compare CEStringArray::GetCompareFunction() const
{
    return CompareBytes;
}

const CEString& CEStringArray::GetAt(std::int32_t index) const
{
    const CEString* const text = At(index);
    return text == nullptr ? g_empty.Get() : *text;
}

void CEStringArray::Sort()
{
    const Compare compare = GetCompareFunction();
    std::sort(Slots(), Slots() + GetCount(), [compare](const void* left, const void* right) {
        return compare(*static_cast<const CEString*>(left), *static_cast<const CEString*>(right)) < 0;
    });
}

void CBString::Reserve(std::size_t capacity)
{
    if (capacity <= m_capacity) {
        return;
    }
    std::unique_ptr<char[]> data(new char[capacity]); // filled by the owner, so not zeroed
    if (m_length > 0) {
        std::memcpy(data.get(), m_data.get(), m_length);
    }
    m_data = std::move(data);
    m_capacity = capacity;
}
