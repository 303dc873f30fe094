// A random number that is drawn at its first use and stays. Threads that come first at the same time all get
// the same one. It takes no lock, which a forked child could find taken.
#pragma once

#include <atomic>
#include <cstdint>
#include <random>

class CDrawnOnce
{
public:
    // Throws what std::random_device throws.
    [[nodiscard]] std::uint64_t Get()
    {
        std::uint64_t number = m_number;
        if (number == 0) { // not drawn yet
            std::random_device random;
            const std::uint64_t drawn = std::uint64_t{random()} << 32U | random();
            number = m_number.compare_exchange_strong(number, drawn) ? drawn : number;
        }
        return number;
    }

private:
    std::atomic<std::uint64_t> m_number = 0;
};
