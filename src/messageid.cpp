#include "src/messageid.h"

#include <atomic>
#include <cstdint>
#include <string>

#include "src-baselib/drawnonce.h"
#include "src-baselib/platform.h"

// The transport's own Message-Ids, made of the time and the process, are equal for threads that send at once,
// and a receiver takes the second of two equal ones for a copy. The number drawn tells hosts apart, the
// process id what was forked after it was drawn, the counter the mails of all threads, and the time one life
// of a machine from the next that draws the same.
CEString MakeMessageId(const CEString& host)
{
    static constinit CDrawnOnce drawn;
    static std::atomic<std::uint32_t> counter = 0;
    const platform::ClockTime now = platform::GetClockTime();
    char id[] = "velmail.0123456789abcdef.0123456789abcdef.01234567@";
    char* place = id + std::char_traits<char>::length("velmail.");
    const auto put = [&place](std::uint64_t number, int digits) {
        for (char* digit = place + digits; digit != place; number >>= 4U) {
            *--digit = "0123456789abcdef"[number & 15U];
        }
        place += digits;
    };
    put(drawn.Get() ^ platform::CurrentProcessId(), 16);
    ++place;
    put(std::uint64_t{now.seconds} << 32U | now.nanoseconds, 16);
    ++place;
    put(++counter, 8);
    CEString text(id);
    text.Append(host.View());
    return text;
}
