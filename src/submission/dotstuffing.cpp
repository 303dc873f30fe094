#include "src/submission/dotstuffing.h"

#include <algorithm>

namespace {

constexpr std::ptrdiff_t kBlock = 64;

// Whether nothing is to be changed in the block, whose size is fixed so that the compiler makes vector
// instructions of it. The byte before it is looked at.
bool IsRight(const char* block, bool doubleDots)
{
    unsigned char wrong = 0;
    for (std::ptrdiff_t i = 0; i < kBlock; ++i) {
        const char before = block[i - 1];
        const bool torn = (before == '\r') != (block[i] == '\n');
        const bool dot = static_cast<bool>((block[i] == '.') & (before == '\n')) & doubleDots;
        wrong |= static_cast<unsigned char>(torn | dot);
    }
    return wrong == 0;
}

} // namespace

// Only what is changed is copied.
std::string_view CDotStuffing::Take(std::string_view piece)
{
    const char* const end = piece.data() + piece.size();
    const char* copied = piece.data(); // up to where the piece stands in m_changed
    m_changed.clear();
    const auto insert = [&](const char* before, char what) {
        m_changed.append(copied, before) += what;
        copied = before;
        m_last = what;
    };
    for (const char* at = piece.data(); at != end;) {
        const std::ptrdiff_t size = std::min(end - at, kBlock);
        if (size == kBlock && at != piece.data() && IsRight(at, m_doubleDots)) {
            at += size;
            m_last = at[-1];
            continue;
        }
        for (const char* const next = at + size; at != next; m_last = *at++) {
            if (m_last == '\r' && *at != '\n') {
                insert(at, '\n');
            } else if (m_last != '\r' && *at == '\n') {
                insert(at, '\r');
            }
            if (m_last == '\n' && *at == '.' && m_doubleDots) {
                insert(at, '.');
            }
        }
    }
    return m_changed.empty() ? piece : std::string_view(m_changed.append(copied, end));
}

std::string_view CDotStuffing::End() const
{
    return m_last == '\r' ? "\n" : m_last == '\n' ? "" : "\r\n";
}
