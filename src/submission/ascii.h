// The character classes of mail's ASCII grammar. Unlike those of the C library they do not follow a locale.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

// Visible: neither blank nor control character, and no byte outside ASCII.
[[nodiscard]] constexpr bool IsVisible(char c)
{
    return c > ' ' && c < '\x7F';
}

[[nodiscard]] constexpr bool IsBlank(char c)
{
    return c == ' ' || c == '\t';
}

[[nodiscard]] constexpr bool IsAlphanumeric(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

[[nodiscard]] constexpr char ToLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

// How many characters are of that kind. A block has a fixed size and no way out, so that the compiler makes
// vector instructions of it.
template<class Kind>
[[nodiscard]] constexpr std::size_t CountOf(std::string_view text, Kind kind)
{
    constexpr std::size_t kBlock = 64;
    std::size_t count = 0;
    for (; text.size() >= kBlock; text.remove_prefix(kBlock)) {
        unsigned char found = 0;
        for (std::size_t i = 0; i < kBlock; ++i) {
            found = static_cast<unsigned char>(found + (kind(text[i]) ? 1 : 0));
        }
        count += found;
    }
    for (const char c : text) {
        count += kind(c) ? 1 : 0;
    }
    return count;
}

[[nodiscard]] constexpr bool IsAscii(std::string_view text)
{
    return CountOf(text, [](char c) { return static_cast<unsigned char>(c) >= 0x80; }) == 0;
}

// The byte as the mark of its encoding and two digits.
inline void AppendHex(std::string& out, char mark, char c)
{
    constexpr char kHex[] = "0123456789ABCDEF";
    const auto byte = static_cast<unsigned char>(c);
    out += mark;
    out += kHex[byte >> 4U];
    out += kHex[byte & 0xFU];
}

// Of a word in a header field's grammar, such as a field's or parameter's name; other than IsVisible it
// leaves out what separates.
[[nodiscard]] constexpr bool IsToken(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return IsVisible(c) && std::string_view("()<>@,;:\\\"/[]?=").find(c) == std::string_view::npos;
    });
}

[[nodiscard]] constexpr bool EqualIgnoringCase(std::string_view left, std::string_view right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return ToLower(a) == ToLower(b); });
}
