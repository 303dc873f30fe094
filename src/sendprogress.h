// How far a send is, in a block of the host's memory that its other threads read, and the word there by which
// they end it. Only relaxed atomic accesses; the host keeps the block until the send returns.
#pragma once

#include <cstdint>
#include <string_view>

class CSendProgress
{
public:
    // The address and the length of the block as text; an empty one for none. False for anything but 24 bytes
    // at an address that is a multiple of 8.
    [[nodiscard]] bool Set(std::string_view block);
    [[nodiscard]] bool IsSet() const { return m_words != nullptr; }

    // Without a block the following do nothing, and nothing is cancelled.
    void Begin(std::uint64_t total) const noexcept;
    void AddRead(std::int64_t count) const noexcept;
    [[nodiscard]] bool IsCancelled() const noexcept;

private:
    enum Word : std::uint8_t
    {
        Total,
        Read,
        Cancel,
        Count
    };

    std::uint64_t* m_words = nullptr; // the host's
};

// What the error of a cancelled send says.
inline constexpr const char* kCancelledText = "The host has cancelled the send.";
