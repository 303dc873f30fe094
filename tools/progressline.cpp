#include "tools/progressline.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>

namespace {

constexpr double kMega = 1e6;

// "12.3 of 300.0 MB, 4 %, 25.1 MB/s, 0:12 left"
std::string TextOf(std::uint64_t done, std::uint64_t total, double seconds)
{
    const auto bytes = static_cast<double>(done);
    const auto all = static_cast<double>(total);
    std::array<char, 160> text = {};
    if (done >= total) {
        std::snprintf(text.data(), text.size(), "%.1f MB read, waiting for the server", all / kMega);
    } else if (done == 0) {
        std::snprintf(text.data(), text.size(), "0.0 of %.1f MB, 0 %%", all / kMega);
    } else {
        const double rate = bytes / seconds;
        const long left = std::lround((all - bytes) / rate);
        std::snprintf(text.data(), text.size(), "%.1f of %.1f MB, %.0f %%, %.1f MB/s, %ld:%02ld left",
                      bytes / kMega, all / kMega, bytes / all * 100, rate / kMega, left / 60, left % 60);
    }
    return text.data();
}

} // namespace

void CProgressLine::Show(std::uint64_t done, std::uint64_t total)
{
    constexpr double kQuiet = 1.0; // seconds that no user wonders about
    if (!m_shown || total == 0) {
        return;
    }
    const Clock::time_point now = Clock::now();
    m_begin = std::min(m_begin, now);
    const double seconds = std::chrono::duration<double>(now - m_begin).count();
    if (seconds < kQuiet) {
        return;
    }
    const std::string text = TextOf(done, total, seconds);
    std::fprintf(stderr, "\r%s%s", text.c_str(),
                 std::string(std::max(m_length, text.size()) - text.size(), ' ').c_str());
    std::fflush(stderr);
    m_length = text.size();
}

void CProgressLine::Clear()
{
    if (m_length > 0) {
        std::fprintf(stderr, "\r%s\r", std::string(m_length, ' ').c_str());
        m_length = 0;
    }
}
