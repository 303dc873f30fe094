#include "src/mailglobal.h"

#include "src-baselib/platform.h"

CMailGlobal::CMailGlobal(void* module) : m_module(module)
{
    if (platform::UserLanguageIsGerman()) {
        SetLanguage("German");
    }
}
