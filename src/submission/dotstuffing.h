// Makes the lines of a message fit for the wire, in pieces of any size: each ends in CR LF, whatever it ended
// in, and where asked for a dot that begins a line is doubled.
#pragma once

#include <string>
#include <string_view>

class CDotStuffing
{
public:
    explicit CDotStuffing(bool doubleDots) : m_doubleDots(doubleDots) {}

    // The piece as it goes out: itself where it is right as it stands, else memory that is valid until the
    // next call.
    [[nodiscard]] std::string_view Take(std::string_view piece);
    // What completes the last line, if anything.
    [[nodiscard]] std::string_view End() const;

private:
    const bool m_doubleDots;
    char m_last = '\n'; // byte that was given out
    std::string m_changed;
};
