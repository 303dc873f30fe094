#include "src-baselib/privatefile.h"

#include <algorithm>
#include <array>
#include <new>
#include <string>
#include <vector>

#include "src-baselib/afile.h"
#include "src-baselib/cepaths.h"
#include "src-baselib/filesystem.h"
#include "src-baselib/neverdestroyed.h"
#include "src-baselib/report.h"

namespace {

constexpr std::size_t kShortestLimit = 16;

// Its failures are the caller's to report.
class CTracedFile : public AFile
{
public:
    bool ReportError(const char* format, const char* argument) override
    {
        Trace(TraceLevel::Error, "%s", DescribeFailure(format, argument).CStr());
        return false;
    }
};

bool TraceFailure(const char* what, const CEString& name, int error)
{
    Trace(TraceLevel::Warning, "Warning: %s '%s': %s", what, name.CStr(),
          platform::SystemErrorText(error).CStr());
    return false;
}

// Under the process's lock.
struct Leftovers
{
    std::vector<std::unique_ptr<CPrivateFile>> files;
    std::vector<const CPrivateFile*> living; // their owners'
};

constinit CNeverDestroyed<Leftovers> g_leftovers;

bool IsDeviceName(std::string_view name)
{
    static constexpr std::array kNames = {"CON", "PRN", "AUX", "NUL", "CLOCK$", "CONIN$", "CONOUT$"};
    static constexpr std::array kNumbers = {"\xB9", "\xB2", "\xB3", "\xC2\xB9", "\xC2\xB2", "\xC2\xB3"};
    std::string stem(name.substr(0, name.find('.')));
    stem.erase(stem.find_last_not_of(' ') + 1);
    std::transform(stem.begin(), stem.end(), stem.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    if (std::find(kNames.begin(), kNames.end(), stem) != kNames.end()) {
        return true;
    }
    const std::string number = stem.starts_with("COM") || stem.starts_with("LPT") ? stem.substr(3) : "";
    return (number.size() == 1 && number[0] >= '0' && number[0] <= '9') ||
           std::find(kNumbers.begin(), kNumbers.end(), number) != kNumbers.end();
}

void DropTrailingDots(std::string& name)
{
    name.erase(name.find_last_not_of(". ") + 1); // they name the same file as without
}

} // namespace

CEString SafeFileName(std::string_view name, std::size_t longest)
{
    std::string safe(FileNamePart(name));
    const auto isReserved = [](char c) {
        return static_cast<unsigned char>(c) < ' ' ||
               std::string_view("<>:\"|?*").find(c) != std::string::npos;
    };
    std::replace_if(safe.begin(), safe.end(), isReserved, '_');
    DropTrailingDots(safe);
    if (IsDeviceName(safe)) {
        safe.insert(0, 1, '_');
    }
    if (safe.size() > longest) {
        const std::size_t dot = std::min(safe.rfind('.'), safe.size());
        const std::string extension = safe.size() - dot < longest ? safe.substr(dot) : "";
        safe = safe.substr(0, longest - extension.size()) + extension;
        DropTrailingDots(safe);
    }
    if (safe.empty()) { // perhaps only now that it is short
        safe = "attachment";
    }
    if (IsDeviceName(safe)) { // only now that it is short
        safe.front() = '_';
    }
    return CEString(safe);
}

bool CPrivateFile::Create(const CEString& name, IOElement& content)
{
    RemoveLeftovers();
    int error = 0;
    m_folder = platform::MakePrivateFolder(error);
    if (m_folder.IsEmpty()) {
        return TraceFailure("Cannot make a private folder for", name, error);
    }
    if (m_folder.GetLength() + kShortestLimit > kLongestPath) {
        Trace(TraceLevel::Warning, "Warning: The path of '%s' is too long for temporary files.",
              m_folder.CStr());
        return false;
    }
    m_path = m_folder;
    m_path.Append(SafeFileName(name.View(), kLongestPath - m_folder.GetLength()).View());
    {
        const platform::CProcessLock lock;
        g_leftovers.Get().living.push_back(this);
    }

    CTracedFile file;
    file.SetFileName(m_path.CStr());
    std::array<char, 4096> buffer;
    bool good = file.Create();
    std::int32_t count = 0;
    do {
        count = static_cast<std::int32_t>(buffer.size());
        good = good && content.Read(buffer.data(), count) &&
               file.Write(buffer.data(), 1, static_cast<std::size_t>(count));
    } while (good && count > 0);
    return good && file.CloseHandle();
}

bool CPrivateFile::Remove()
{
    int error = 0;
    if (!m_path.IsEmpty() && !platform::RemoveFile(m_path.CStr(), error)) {
        return TraceFailure("Cannot remove the temporary file", m_path, error);
    }
    m_path.Clear();
    if (!m_folder.IsEmpty() && !platform::RemoveFolder(m_folder.CStr(), error)) {
        return TraceFailure("Cannot remove the temporary folder", m_folder, error);
    }
    m_folder.Clear();
    return true;
}

CPrivateFile::~CPrivateFile()
{
    Leftovers& leftovers = g_leftovers.Get();
    try {
        {
            const platform::CProcessLock lock;
            std::erase(leftovers.living, this);
        }
        if (Remove()) {
            return;
        }
        const platform::CProcessLock lock;
        leftovers.files.reserve(leftovers.files.size() + 1);
        auto rest = std::make_unique<CPrivateFile>();
        std::swap(rest->m_folder, m_folder);
        std::swap(rest->m_path, m_path);
        leftovers.files.push_back(std::move(rest));
    } catch (const std::bad_alloc&) {
        // Without memory to remember it, the file stays.
    }
}

void CPrivateFile::RemoveLeftovers()
{
    std::vector<std::unique_ptr<CPrivateFile>> tried; // what fails again comes back by its destructor
    Leftovers& leftovers = g_leftovers.Get();
    const platform::CProcessLock lock;
    tried.swap(leftovers.files);
}

void CPrivateFile::RemoveAll() noexcept
{
    RemoveLeftovers();
    std::vector<const CPrivateFile*> living; // gives back its memory
    Leftovers& leftovers = g_leftovers.Get();
    const platform::CProcessLock lock;
    living.swap(leftovers.living);
    for (const CPrivateFile* const file : living) {
        int error = 0; // nobody is left to be told
        platform::RemoveFile(file->m_path.CStr(), error);
        platform::RemoveFolder(file->m_folder.CStr(), error);
    }
}
