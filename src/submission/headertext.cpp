#include "src/submission/headertext.h"

#include <algorithm>

#include "src-baselib/cestring.h"
#include "src/submission/ascii.h"

namespace {

constexpr std::size_t kLongestPlain = 60;       // what is longer goes as encoded words, which can be folded
constexpr std::size_t kEncodedLine = 76;        // a line with encoded words
constexpr std::size_t kEncodedWord = 75;        // the longest
constexpr std::size_t kLeastRoom = 24;          // for a character of four bytes in either encoding
constexpr std::string_view kEncodedMark = "=?"; // what a reader takes for an encoded word begins so

bool HasEncodedMark(std::string_view text)
{
    return text.find(kEncodedMark) != std::string_view::npos;
}

// Whether a reader gets back the text that is written as it is.
bool IsPlain(std::string_view text)
{
    return text.size() <= kLongestPlain && IsAscii(text) && !HasEncodedMark(text);
}

bool IsAtom(std::string_view word)
{
    return !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return IsAlphanumeric(c) || std::string_view("!#$%&'*+-/=?^_`{|}~").find(c) != std::string_view::npos;
    });
}

bool AreAtoms(std::string_view text)
{
    while (true) {
        const std::size_t blank = std::min(text.find(' '), text.size());
        if (!IsAtom(text.substr(0, blank))) {
            return false;
        }
        if (blank == text.size()) {
            return true;
        }
        text.remove_prefix(blank + 1);
    }
}

std::string Quoted(std::string_view text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    return quoted += '"';
}

std::string_view Trimmed(std::string_view text)
{
    const std::size_t first = std::min(text.find_first_not_of(' '), text.size());
    text.remove_prefix(first);
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// The first character of the text, all bytes of it.
std::string_view FirstCharacter(std::string_view utf8)
{
    std::size_t size = 1;
    while (size < utf8.size() && (static_cast<unsigned char>(utf8[size]) & 0xC0U) == 0x80U) {
        ++size;
    }
    return utf8.substr(0, size);
}

// The characters that stand for themselves also in an encoded word of a name, where the fewest do.
bool IsQPlain(char c)
{
    return IsAlphanumeric(c) || std::string_view("!*+-/").find(c) != std::string_view::npos;
}

std::string QEncoded(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c == ' ') {
            out += '_';
        } else if (IsQPlain(c)) {
            out += c;
        } else {
            AppendHex(out, '=', c);
        }
    }
    return out;
}

std::size_t Base64Size(std::size_t bytes)
{
    return (bytes + 2) / 3 * 4;
}

// How many bytes from the start, whole characters, an encoded word of that room takes.
std::size_t TakenBytes(std::string_view utf8, bool base64, std::size_t room)
{
    std::size_t taken = 0;
    for (std::size_t used = 0; taken < utf8.size();) {
        const std::string_view character = FirstCharacter(utf8.substr(taken));
        used = base64 ? Base64Size(taken + character.size()) : used + QEncoded(character).size();
        if (used > room) {
            break;
        }
        taken += character.size();
    }
    return taken;
}

// Where the words begin and end that cannot stay as they are, with the blanks before them but one: a reader
// drops those between encoded words and shows all others.
struct EncodedPart
{
    std::size_t begin = 0;
    std::size_t end = 0; // equal: nothing is to be encoded
};

EncodedPart FindEncodedPart(std::string_view text)
{
    EncodedPart part;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t word = text.find_first_not_of(' ', at);
        const std::size_t end = std::min(text.find(' ', word), text.size());
        if (!IsPlain(text.substr(at, end - at))) {
            part.begin = part.end > 0 ? part.begin : at == 0 ? 0 : at + 1;
            part.end = end;
        }
        at = end;
    }
    return part;
}

} // namespace

std::string WithoutControls(std::string_view text)
{
    std::string clean(text);
    std::replace_if(
        clean.begin(), clean.end(),
        [](char c) { return (static_cast<unsigned char>(c) < ' ' || c == '\x7F'); }, ' ');
    return clean;
}

std::vector<std::string> EncodeWords(std::string_view utf8, std::size_t firstRoom, std::size_t room)
{
    constexpr std::string_view kQ = "=?UTF-8?Q?";
    constexpr std::string_view kBase64 = "=?UTF-8?B?";
    constexpr std::string_view kEnd = "?=";
    const bool base64 = QEncoded(utf8).size() > Base64Size(utf8.size());
    std::vector<std::string> words;
    while (!utf8.empty()) {
        const std::size_t space = (words.empty() ? firstRoom : room) - kQ.size() - kEnd.size();
        const std::string_view taken = utf8.substr(0, TakenBytes(utf8, base64, space));
        std::string& word = words.emplace_back(base64 ? kBase64 : kQ);
        if (base64) {
            CEString encoded;
            CEString::EncodeBase64(taken.data(), static_cast<std::int64_t>(taken.size()), encoded);
            word += encoded.View();
        } else {
            word += QEncoded(taken);
        }
        word += kEnd;
        utf8.remove_prefix(taken.size());
    }
    return words;
}

void CHeaderFolder::Begin(std::string_view name)
{
    m_out.append(name);
    m_column = name.size();
    m_first = true;
}

void CHeaderFolder::Add(std::string_view word, std::string_view blanks)
{
    if (!m_first && m_column + blanks.size() + word.size() > kLine) {
        m_out.append("\r\n");
        m_column = 0;
    }
    m_out.append(blanks).append(word);
    m_column += blanks.size() + word.size();
    m_first = false;
}

void CHeaderFolder::AddEncoded(std::string_view utf8)
{
    if (utf8.empty()) {
        return;
    }
    std::size_t firstRoom = kEncodedWord;
    if (m_column + 1 + kLeastRoom <= kEncodedLine) {
        firstRoom = std::min(kEncodedWord, kEncodedLine - 1 - m_column);
    } else {
        m_out.append("\r\n");
        m_column = 0;
    }
    for (const std::string& word : EncodeWords(utf8, firstRoom, kEncodedWord)) {
        Add(word);
    }
}

void CHeaderFolder::AddText(std::string_view utf8)
{
    const std::string clean = WithoutControls(utf8);
    const std::string_view text = Trimmed(clean);
    const EncodedPart part = FindEncodedPart(text);
    const auto addPlain = [this](std::string_view plain) {
        while (!plain.empty()) {
            const std::size_t word = plain.find_first_not_of(' ');
            const std::size_t end = std::min(plain.find(' ', word), plain.size());
            Add(plain.substr(word, end - word), word == 0 ? " " : plain.substr(0, word));
            plain.remove_prefix(end);
        }
    };
    addPlain(Trimmed(text.substr(0, part.begin)));
    AddEncoded(text.substr(part.begin, part.end - part.begin));
    addPlain(text.substr(part.end));
}

void CHeaderFolder::AddPhrase(std::string_view utf8)
{
    const std::string clean = WithoutControls(utf8);
    if (AreAtoms(clean)) {
        AddText(clean);
    } else if (IsPlain(clean)) {
        Add(Quoted(clean));
    } else {
        AddEncoded(clean);
    }
}

namespace {

bool IsPlainFileName(std::string_view name)
{
    return IsPlain(name) && name.find_first_of("\"\\%") == std::string_view::npos;
}

std::string PlainParameter(std::string_view name, std::string_view value)
{
    return std::string(";\r\n ").append(name).append("=").append(Quoted(value));
}

} // namespace

std::string FileNameParameter(std::string_view utf8)
{
    const std::string name = WithoutControls(utf8);
    if (IsPlainFileName(name)) {
        return PlainParameter("filename", name);
    }
    std::vector<std::string> pieces(1, "UTF-8''");
    for (std::string_view rest = name; !rest.empty();) {
        const std::string_view character = FirstCharacter(rest);
        std::string encoded;
        for (const char c : character) {
            if (IsAlphanumeric(c) || std::string_view("!#$&+-.^_`{|}~").find(c) != std::string_view::npos) {
                encoded += c;
            } else {
                AppendHex(encoded, '%', c);
            }
        }
        if (pieces.back().size() + encoded.size() > kLongestPlain) {
            pieces.emplace_back();
        }
        pieces.back() += encoded;
        rest.remove_prefix(character.size());
    }
    std::string parameter;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        parameter.append(";\r\n filename");
        if (pieces.size() > 1) {
            parameter.append("*").append(std::to_string(i));
        }
        parameter.append("*=").append(pieces[i]);
    }
    return parameter;
}

std::string OldFileNameParameter(std::string_view utf8)
{
    const std::string name = WithoutControls(utf8);
    if (IsPlainFileName(name)) {
        return PlainParameter("name", name);
    }
    std::string parameter = ";\r\n name=\"";
    std::string_view separator;
    for (const std::string& word : EncodeWords(name, kLongestPlain, kLongestPlain)) {
        parameter.append(separator).append(word);
        separator = "\r\n ";
    }
    return parameter += '"';
}
