#include "src/numericlocale.h"

#include <clocale>
#include <cstring>
#include <mutex>

#include "src-baselib/neverdestroyed.h"
#include "src-baselib/platform.h"

namespace {
platform::CPlatformMutex& LocaleMutex()
{
    static CNeverDestroyed<platform::CPlatformMutex> mutex;
    return mutex.Get();
}
} // namespace

CEString CurrentLocale(int category)
{
    const std::lock_guard<platform::CPlatformMutex> lock(LocaleMutex());
    return {std::setlocale(category, nullptr)};
}

void UseNumericLocale(const char* name)
{
    const std::lock_guard<platform::CPlatformMutex> lock(LocaleMutex());
    if (std::strcmp(std::setlocale(LC_NUMERIC, nullptr), name) != 0) {
        std::setlocale(LC_NUMERIC, name);
    }
}
