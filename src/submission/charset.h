// The charsets that a host's bytes may be in, and the way from them to UTF-8, the only one that goes out in
// header fields.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

enum class Charset : std::uint8_t
{
    Detect, // what is valid UTF-8 is UTF-8, anything else Windows-1252
    Utf8,
    Latin1,
    Windows1252
};

// The charset of that name in any case; an empty one is Detect. False when it is none of them.
[[nodiscard]] bool ParseCharset(std::string_view name, Charset& charset);

// The name under which a text in that charset is labelled; `isUtf8` decides for Detect.
[[nodiscard]] const char* CharsetLabel(Charset charset, bool isUtf8);

// Whether the bytes added so far, in pieces cut anywhere, are valid UTF-8.
class CUtf8Check
{
public:
    void Add(std::string_view bytes);
    [[nodiscard]] bool IsValid() const { return !m_failed && m_following == 0; }

private:
    void AddLead(unsigned char byte);

    int m_following = 0;        // bytes that the current character still wants
    unsigned char m_low = 0x80; // the range of the next one
    unsigned char m_high = 0xBF;
    bool m_failed = false;
};

// Bytes that claim to be UTF-8 and are not are taken for Windows-1252; so are the 32 of ISO-8859-1 that no
// text means as it defines them. What has no character becomes U+FFFD.
[[nodiscard]] std::string ToUtf8(std::string_view bytes, Charset charset);
