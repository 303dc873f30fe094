#include "src/numericlocale.h"

#include <clocale>
#include <cstring>

#include "src-baselib/platform.h"

CEString CurrentLocale(int category)
{
    const platform::CProcessLock lock;
    return {std::setlocale(category, nullptr)};
}

void UseNumericLocale(const char* name)
{
    const platform::CProcessLock lock;
    if (std::strcmp(std::setlocale(LC_NUMERIC, nullptr), name) != 0) {
        std::setlocale(LC_NUMERIC, name);
    }
}
