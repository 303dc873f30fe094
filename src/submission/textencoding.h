// The text of a mail on its way: what a first pass over it sees, and the encoding that a second one applies,
// 7bit or quoted-printable. Both take the text in pieces cut anywhere; a CR or LF alone ends a line as CR LF
// does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "src/submission/charset.h"

class CTextScan
{
public:
    void Add(std::string_view piece);

    // ASCII without NUL in lines of at most 998 characters: it can go as it is.
    [[nodiscard]] bool IsPlain() const { return m_plain; }
    [[nodiscard]] bool IsUtf8() const { return m_utf8.IsValid(); }
    // Bytes that the encoded text has at most.
    [[nodiscard]] std::int64_t EncodedSize() const;

private:
    CUtf8Check m_utf8;
    bool m_plain = true;
    bool m_afterCr = false;
    std::size_t m_column = 0;
    std::int64_t m_bytes = 0;
    std::int64_t m_escaped = 0; // of them three characters each in quoted-printable
    std::int64_t m_lines = 0;
};

class CTextEncoder
{
public:
    // Begins a text, which goes as it is when `plain`.
    void Begin(bool plain) { *this = CTextEncoder(plain); }
    // Appends the piece to `out`, encoded. False when the text is not as plain as it was said to be.
    [[nodiscard]] bool Add(std::string_view piece, std::string& out);
    // Ends the text, with a line end or as it stands.
    void End(bool lineEnd, std::string& out);

    explicit CTextEncoder(bool plain = true) : m_plain(plain) {}

private:
    void AddQuoted(std::string_view text, std::string& out);
    void PutBlank(bool escaped, std::string& out);
    void Put(char c, bool escaped, std::string& out);
    void EndLine(std::string& out);

    bool m_plain;
    bool m_afterCr = false;
    char m_blank = 0; // held back: at the end of a line it must be escaped
    std::size_t m_column = 0;
};
