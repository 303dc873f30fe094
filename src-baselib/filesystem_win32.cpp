#include "src-baselib/filesystem.h"

#include <cstdint>
#include <iterator>
#include <memory>
#include <random>
#include <string>

#include <windows.h>
#include <sddl.h>

namespace platform {

namespace {

bool IsSeparator(char character)
{
    return character == '\\' || character == '/';
}

// "C:\name" and "\\server\name"; "C:name" and "\name" depend on the current directory.
bool IsAbsolute(std::string_view name)
{
    return (name.size() > 2 && name[1] == ':' && IsSeparator(name[2])) ||
           (name.size() > 1 && IsSeparator(name[0]) && IsSeparator(name[1]));
}

int LastError()
{
    return static_cast<int>(GetLastError());
}

// Full access for the folder's owner and the system, inherited by what is made in it; nobody else.
constexpr const char* kOwnerOnly = "D:P(A;OICI;FA;;;OW)(A;OICI;FA;;;SY)";

// False when the system's code page has no character for one of the text's.
bool ToCodePage(const std::wstring& text, std::string& bytes)
{
    const bool complete = GetACP() == CP_UTF8; // it has them all, and takes no such question
    BOOL missing = FALSE;
    bytes.assign(text.size() * 4 + 1, '\0');
    const int length = WideCharToMultiByte(
        CP_ACP, complete ? 0 : WC_NO_BEST_FIT_CHARS, text.data(), static_cast<int>(text.size()), bytes.data(),
        static_cast<int>(bytes.size()), nullptr, complete ? nullptr : &missing);
    bytes.resize(static_cast<std::size_t>(length));
    return missing == FALSE && (length > 0 || text.empty());
}

// The name of an existing folder, with a separator at its end, in the system's code page: the short one where
// the long one has other characters.
bool FolderName(const std::wstring& folder, std::string& name, int& error)
{
    if (ToCodePage(folder, name)) {
        return true;
    }
    const DWORD size = GetShortPathNameW(folder.c_str(), nullptr, 0); // with the terminator
    std::wstring brief(size, L'\0');
    const DWORD length = size == 0 ? 0 : GetShortPathNameW(folder.c_str(), brief.data(), size);
    error = length == 0 ? LastError() : ERROR_NO_UNICODE_TRANSLATION;
    brief.resize(length < size ? length : 0);
    return !brief.empty() && ToCodePage(brief, name);
}

struct LocalMemory
{
    void operator()(void* memory) const { LocalFree(memory); }
};

} // namespace

CEString AbsolutePath(const CEString& name, int& error)
{
    if (IsAbsolute(name.View())) {
        return name;
    }
    std::wstring wide(name.GetLength() + 1, L'\0');
    MultiByteToWideChar(CP_ACP, 0, name.CStr(), -1, wide.data(), static_cast<int>(wide.size()));
    const DWORD size = GetFullPathNameW(wide.c_str(), 0, nullptr, nullptr); // with the terminator
    std::wstring path(size, L'\0');
    const DWORD length = size == 0 ? 0 : GetFullPathNameW(wide.c_str(), size, path.data(), nullptr);
    if (length == 0 || length >= size) { // longer now: another thread has moved the process in between
        error = length == 0 ? LastError() : ERROR_FILENAME_EXCED_RANGE;
        return {};
    }
    path.resize(length);
    const std::size_t nameAt = path.rfind(L'\\') + 1; // the client shows it: it is not shortened
    std::string folder;
    std::string file;
    if (!FolderName(path.substr(0, nameAt), folder, error)) {
        return {};
    }
    ToCodePage(path.substr(nameAt), file);
    return CEString(folder + file);
}

CEString MakePrivateFolder(int& error)
{
    wchar_t temporary[MAX_PATH + 1] = L"";
    const DWORD length = GetTempPathW(std::size(temporary), temporary); // ends in a separator
    std::string parent;
    if (length == 0 || length >= std::size(temporary)) {
        error = length == 0 ? LastError() : ERROR_FILENAME_EXCED_RANGE;
        return {};
    }
    if (!FolderName(temporary, parent, error)) {
        return {};
    }
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorA(kOwnerOnly, SDDL_REVISION_1, &descriptor,
                                                             nullptr) == 0) {
        error = LastError();
        return {};
    }
    const std::unique_ptr<void, LocalMemory> owned(descriptor);
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor, FALSE};
    std::random_device random;
    constexpr int kTries = 8; // a name that is taken already is next to impossible
    for (int i = 0; i < kTries; ++i) {
        CEString path;
        path.Format("%svelmail-%08x%08x", parent.c_str(), static_cast<unsigned>(random()),
                    static_cast<unsigned>(random()));
        if (CreateDirectoryA(path.CStr(), &attributes) != 0) {
            path.Append("\\");
            return path;
        }
        error = LastError();
        if (error != ERROR_ALREADY_EXISTS) {
            break;
        }
    }
    return {};
}

bool RemoveFile(const char* name, int& error)
{
    error = DeleteFileA(name) != 0 ? 0 : LastError();
    error = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? 0 : error;
    return error == 0;
}

bool RemoveFolder(const char* name, int& error)
{
    error = RemoveDirectoryA(name) != 0 ? 0 : LastError();
    error = error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? 0 : error;
    return error == 0;
}

} // namespace platform
