#include "tools/hosttrace.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

#include "tools/hostconsole.h"
#include "tools/maillibrary.h"

CHostTrace::CHostTrace(const std::string& named)
{
    std::string setting = named.empty() ? EnvironmentText(kTraceVariable) : named;
    if (setting.empty()) {
        setting = m_path = MakePrivateFile();
        m_temporary = true;
    }
    m_path = setting.substr(0, setting.find(';')); // behind it stands the level
    if (m_temporary && m_path != setting) {        // a folder whose name the setting cannot have
        std::remove(setting.c_str());
        m_path.clear();
    } else {
        SetEnvironmentText(kTraceVariable, setting);
    }
}

std::string CHostTrace::Read() const
{
    std::ostringstream text;
    text << std::ifstream(m_path, std::ios::binary).rdbuf();
    // Another process may hold the file, and the library write beside it.
    const std::string read = text.str();
    return read.ends_with("Trace closed.\r\n") || read.ends_with("Trace closed.\n") ? read : "";
}

void CHostTrace::Remove() noexcept
{
    if (std::exchange(m_temporary, false) && !m_path.empty()) {
        std::remove(m_path.c_str());
    }
}
