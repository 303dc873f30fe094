#include "src-baselib/cepaths.h"

#include <new>

#include "src-baselib/platform.h"
#include "src-baselib/report.h"

namespace {
constexpr int kDirectoryError = 118;
constexpr std::size_t kLongestDirectory = 2048;
constexpr const char* kCannotFind = "Kann das Arbeitsverzeichnis %s nicht ermitteln.\nFehler: %s";
constexpr const char* kCannotChange = "Kann nicht in das Verzeichnis '%s' wechseln.\nFehler: %s";
} // namespace

void CEPathString::ReportDirError(const char* format, const char* name)
{
    CEString message;
    message.Format(format, name, platform::SystemErrorText(m_lastFailure).CStr());
    RaiseError(kDirectoryError);
    Trace(TraceLevel::Error, "%s", message.CStr());
}

bool CEPathString::GetCurrentDir()
{
    char buffer[kLongestDirectory];
    m_lastFailure = 0;
    if (!platform::CurrentDirectory(buffer, sizeof buffer, m_lastFailure)) {
        Clear();
        ReportDirError(kCannotFind, "");
        return false;
    }
    Assign(buffer);
    return true;
}

CEWorkingDir::CEWorkingDir()
{
    GetCurrentDir();
    if (IsEmpty()) {
        CEWorkingDir::ReportDirError(kCannotFind, "");
    } else {
        m_stack.Add(*this);
    }
}

CEWorkingDir::~CEWorkingDir()
{
    while (m_stack.GetCount() > 0) {
        const std::unique_ptr<CEString> last = m_stack.Take(m_stack.GetCount() - 1);
        // A send that changed nothing must not move the process: another thread may be at work elsewhere.
        if (m_changed) {
            try {
                int failure = 0;
                if (m_place.IsEmpty() || !platform::ReturnToPlace(m_place, failure)) {
                    ChangeDir(last->CStr());
                } else {
                    Trace(TraceLevel::Normal, "File: Current directory changed to '%s'", last->CStr());
                }
            } catch (const std::bad_alloc&) {
                // The directory is changed before anything needs memory.
            }
        }
    }
}

bool CEWorkingDir::ChangeDir(const char* name)
{
    if (name == nullptr || *name == '\0') {
        return true;
    }
    RememberPlace();
    int failure = 0;
    const bool changed = platform::ChangeDirectory(name, failure);
    SetLastFailure(failure);
    if (!changed) {
        ReportDirError(kCannotChange, name);
        return false;
    }
    Trace(TraceLevel::Normal, "File: Current directory changed to '%s'", name);
    Assign(name);
    m_changed = true;
    return true;
}

void CEWorkingDir::RememberPlace()
{
    if (!m_changed) {
        m_place = platform::CurrentPlace();
    }
}

void CEWorkingDir::NoticeMove() noexcept
{
    try {
        m_changed = m_changed || !(platform::CurrentPlace() == m_place);
    } catch (const std::bad_alloc&) {
        m_changed = true; // going back to where it is does no harm
    }
}

std::string_view FileNamePart(std::string_view path)
{
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string_view::npos ? path : path.substr(separator + 1);
}
