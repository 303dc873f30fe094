#include "tools/hostlibrary.h"

#include <windows.h>

namespace {

constexpr const char* kLibraryName = "VelMail64.dll";

std::string FolderOf(const std::string& path)
{
    return path.substr(0, path.find_last_of("/\\") + 1);
}

bool Exists(const std::string& path)
{
    return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::string ProgramPath()
{
    std::string path(MAX_PATH, '\0');
    DWORD length = 0;
    while ((length = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()))) ==
           path.size()) {
        path.resize(2 * path.size()); // the name was cut
    }
    path.resize(length);
    return path;
}

std::string SystemText(DWORD error)
{
    char text[512] = "";
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                        error, 0, text, sizeof text, nullptr);
    const std::string message(text, length);
    return message.substr(0, message.find_last_not_of(" .\r\n") + 1) + " (" + std::to_string(error) + ")";
}

} // namespace

// Paths stay as the bytes that they came in: the standard library's would be read as UTF-8.
std::string PathForLoader(const std::string& path)
{
    std::string absolute(GetFullPathNameA(path.c_str(), 0, nullptr, nullptr), '\0');
    absolute.resize(
        GetFullPathNameA(path.c_str(), static_cast<DWORD>(absolute.size()), absolute.data(), nullptr));
    return Exists(absolute) ? absolute : path;
}

HostLibrary LoadHostLibrary(const std::string& path, std::string& reason)
{
    const HMODULE library = LoadLibraryA(path.c_str());
    if (library == nullptr) {
        reason = path + ": " + SystemText(GetLastError());
    }
    return library;
}

HostFunction FindHostFunction(HostLibrary library, const char* name)
{
    return reinterpret_cast<HostFunction>(GetProcAddress(static_cast<HMODULE>(library), name));
}

// Beside the program, where the package has both, or in the folder above, as in the build tree.
std::string DefaultLibraryPath()
{
    const std::string beside = FolderOf(ProgramPath());
    for (const std::string& folder : {beside, FolderOf(beside.substr(0, beside.find_last_not_of("/\\")))}) {
        const std::string path = folder + kLibraryName;
        if (Exists(path)) {
            return path;
        }
    }
    return kLibraryName;
}
