// Texts in header fields: what a reader sees as names, subjects and file names, written in visible ASCII and
// folded at 78 characters, whatever is in them. Texts come in as UTF-8; control characters become blanks.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

// Writes a header field after the other to the end of `out`, which lives longer.
class CHeaderFolder
{
public:
    static constexpr std::size_t kLine = 78;      // characters without CR LF that a line should have
    static constexpr std::size_t kLongLine = 998; // that it may have

    explicit CHeaderFolder(std::string& out) : m_out(out) {}

    // `name` has its colon.
    void Begin(std::string_view name);
    // Adds the blanks and the word behind them, which is never cut, on a new line where they do not fit.
    void Add(std::string_view word, std::string_view blanks = " ");
    void End() { m_out.append("\r\n"); }

    // A text without structure, such as a subject.
    void AddText(std::string_view utf8);
    // A name in front of an address.
    void AddPhrase(std::string_view utf8);

private:
    void AddEncoded(std::string_view utf8);

    std::string& m_out;
    std::size_t m_column = 0;
    bool m_first = true; // nothing stands behind the name yet
};

// The text as encoded words, in the shorter of the two encodings, no character cut. The first has at most
// `firstRoom` characters, the others `room`; both at least 24.
[[nodiscard]] std::vector<std::string> EncodeWords(std::string_view utf8, std::size_t firstRoom,
                                                   std::size_t room);

// The file name as parameters of the two fields of a part, each with the ";" before it. In Content-Type,
// where old readers look for it, encoded words stand between quotes, which only they take for what is meant.
[[nodiscard]] std::string FileNameParameter(std::string_view utf8);
[[nodiscard]] std::string OldFileNameParameter(std::string_view utf8);

// Control characters, of which a header field must hold none, made blanks.
[[nodiscard]] std::string WithoutControls(std::string_view text);
