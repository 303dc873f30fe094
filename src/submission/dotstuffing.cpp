#include "src/submission/dotstuffing.h"

#include <cstring>

// Lines that are right are passed over by the C library's search; only what is changed is copied.
std::string_view CDotStuffing::Take(std::string_view piece)
{
    const char* const end = piece.data() + piece.size();
    const char* copied = piece.data(); // up to where the piece stands in m_changed
    bool changed = false;
    const auto insert = [&](const char* before, const char* text) {
        if (!changed) {
            m_changed.clear();
            changed = true;
        }
        m_changed.append(copied, before).append(text);
        copied = before;
    };
    for (const char* at = piece.data(); at != end;) {
        if (m_afterReturn) {
            if (*at != '\n') {
                insert(at, "\n");
            } else {
                ++at;
            }
            m_afterReturn = false;
            m_lineStart = true;
            continue;
        }
        if (m_lineStart && *at == '.' && m_doubleDots) {
            insert(at, ".");
        }
        const auto rest = static_cast<std::size_t>(end - at);
        const auto* const feed = static_cast<const char*>(std::memchr(at, '\n', rest));
        const auto* const ret = static_cast<const char*>(
            std::memchr(at, '\r', feed == nullptr ? rest : static_cast<std::size_t>(feed - at)));
        if (ret != nullptr) {
            m_afterReturn = true;
            m_lineStart = false;
            at = ret + 1;
        } else if (feed != nullptr) {
            insert(feed, "\r");
            m_lineStart = true;
            at = feed + 1;
        } else {
            m_lineStart = false;
            at = end;
        }
    }
    if (!changed) {
        return piece;
    }
    m_changed.append(copied, end);
    return m_changed;
}

std::string_view CDotStuffing::End() const
{
    return m_afterReturn ? "\n" : m_lineStart ? "" : "\r\n";
}
