// The line on the terminal that shows how far a long send has come.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

class CProgressLine
{
public:
    // Without a terminal nothing is ever shown.
    explicit CProgressLine(bool shown) : m_shown(shown) {}
    CProgressLine(const CProgressLine&) = delete;
    CProgressLine& operator=(const CProgressLine&) = delete;
    ~CProgressLine() { Clear(); }

    // Bytes; nothing is shown while there are none or in the first second.
    void Show(std::uint64_t done, std::uint64_t total);
    void Clear();

private:
    using Clock = std::chrono::steady_clock;

    bool m_shown;
    Clock::time_point m_begin = Clock::time_point::max(); // of the bytes
    std::size_t m_length = 0;                             // of what stands there
};
