#include "src/mailglobal.h"

#include "src-baselib/platform.h"

CMailGlobal::CMailGlobal(void* module) : m_module(module)
{
    if (platform::UserLanguageIsGerman()) {
        SetLanguage("German");
    }
}

void CMailGlobal::ResetProperties()
{
    if (!m_defaults) {
        m_defaults = std::make_unique<CDefaultMailProperties>();
    }
    m_live.CopyValuesFrom(*m_defaults);
}
