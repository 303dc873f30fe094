// What is the same on every platform.
#include "src-baselib/platform.h"

#include <cstdlib>
#include <string_view>

namespace platform {

CEString SystemErrorText(int error)
{
    constexpr std::size_t kLongest = 256;
    char buffer[kLongest + 1] = "";
    return CEString(std::string_view(SystemErrorText(error, buffer, sizeof buffer)).substr(0, kLongest));
}

bool HasMemory(std::size_t size) noexcept
{
    // Not operator new, which throws inside even where nothing leaves it.
    void* volatile const block = std::malloc(size);
    std::free(block);
    return block != nullptr;
}

} // namespace platform
