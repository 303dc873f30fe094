#include "src/submission/curllibrary.h"

#include <string>

#include <windows.h>

#include "src-baselib/platform.h"

namespace {

constexpr const wchar_t* kFileName = L"libcurl-x64.dll";
constexpr std::size_t kLongestPath = 32768;

// Beside this library, wherever its host found it; empty when that cannot be told.
std::wstring PathBesideOwn()
{
    HMODULE own = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                               GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<const wchar_t*>(&PathBesideOwn), &own) == 0) {
        return {};
    }
    std::wstring path(kLongestPath, L'\0');
    const DWORD length = GetModuleFileNameW(own, path.data(), static_cast<DWORD>(path.size()));
    path.resize(length < path.size() ? length : 0);
    const std::size_t folderEnd = path.find_last_of(L'\\');
    return folderEnd == std::wstring::npos ? std::wstring() : path.substr(0, folderEnd + 1) + kFileName;
}

} // namespace

// Not from the current folder: whoever can write there would run in the host.
void* OpenCurlLibrary(CEString& reason)
{
    const std::wstring path = PathBesideOwn();
    HMODULE library =
        path.empty() ? nullptr : LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (library == nullptr && (path.empty() || GetLastError() == ERROR_MOD_NOT_FOUND)) {
        library = LoadLibraryExW(kFileName, nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
    }
    if (library == nullptr) {
        const CEString text = platform::SystemErrorText(static_cast<int>(GetLastError()));
        const std::string_view line = text.View();
        reason = CEString(line.substr(0, line.find_last_not_of("\r\n") + 1));
        return nullptr;
    }
    HMODULE pinned = nullptr; // loaded again by a second thread, it is not counted down
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(library), &pinned);
    return library;
}

CurlFunction FindCurlFunction(void* library, const char* name)
{
    return reinterpret_cast<CurlFunction>(GetProcAddress(static_cast<HMODULE>(library), name));
}
