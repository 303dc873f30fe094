#include "src-baselib/cepaths.h"

#include <new>
#include <utility>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

namespace {
constexpr std::size_t kLongestDirectory = 2048;
constexpr const char* kCannotFind = "Kann das Arbeitsverzeichnis %s nicht ermitteln.\nFehler: %s";
constexpr const char* kCannotChange = "Kann nicht in das Verzeichnis '%s' wechseln.\nFehler: %s";
} // namespace

void CEPathString::ReportDirError(const char* format, const char* name)
{
    CEString message;
    message.Format(format, name, platform::SystemErrorText(m_lastFailure).CStr());
    RaiseError(codes::kDirectory);
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
    }
}

CEWorkingDir::~CEWorkingDir()
{
    // A send that changed nothing must not move the process: another thread may be at work elsewhere.
    if (!m_changed) {
        return;
    }
    int failure = 0;
    if (m_place.Return(failure)) {
        Trace(TraceLevel::Normal, "File: Current directory changed to '%s'", m_homeName.CStr());
        return;
    }
    try {
        SetLastFailure(failure);
        CEWorkingDir::ReportDirError(kCannotChange, m_homeName.CStr());
    } catch (const std::bad_alloc&) {
        // The process stays where it is; there is no memory to tell so.
    }
}

bool CEWorkingDir::ChangeDir(const char* name)
{
    if (name == nullptr || *name == '\0') {
        return true;
    }
    if (!RememberPlace()) {
        ReportDirError(kCannotFind, "");
        return false;
    }
    CEString changed(name); // what may fail comes before the process is moved
    int failure = 0;
    const bool moved = platform::ChangeDirectory(name, failure);
    SetLastFailure(failure);
    if (!moved) {
        ReportDirError(kCannotChange, name);
        return false;
    }
    m_changed = true;
    Trace(TraceLevel::Normal, "File: Current directory changed to '%s'", name);
    static_cast<CEString&>(*this) = std::move(changed);
    return true;
}

bool CEWorkingDir::RememberPlace()
{
    if (m_changed) {
        return true; // that is where this object comes from
    }
    m_homeName = *this;
    int failure = 0;
    const bool taken = m_place.Take(failure);
    SetLastFailure(failure);
    return taken;
}

std::string_view FileNamePart(std::string_view path)
{
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string_view::npos ? path : path.substr(separator + 1);
}
