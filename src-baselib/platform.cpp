// What is the same on every platform.
#include "src-baselib/platform.h"

#include <string_view>

namespace platform {

CEString SystemErrorText(int error)
{
    constexpr std::size_t kLongest = 256;
    char buffer[kLongest + 1] = "";
    return CEString(std::string_view(SystemErrorText(error, buffer, sizeof buffer)).substr(0, kLongest));
}

} // namespace platform
