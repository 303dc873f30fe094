#include "src-baselib/filesystem.h"

#include <cstdint>
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
    const DWORD size = GetFullPathNameA(name.CStr(), 0, nullptr, nullptr); // with the terminator
    std::string path(size, '\0');
    const DWORD length = size == 0 ? 0 : GetFullPathNameA(name.CStr(), size, path.data(), nullptr);
    if (length == 0 || length >= size) { // longer now: another thread has moved the process in between
        error = length == 0 ? LastError() : ERROR_FILENAME_EXCED_RANGE;
        return {};
    }
    return CEString(std::string_view(path).substr(0, length));
}

CEString MakePrivateFolder(int& error)
{
    char parent[MAX_PATH + 1] = "";
    const DWORD length = GetTempPathA(sizeof parent, parent); // ends in a separator
    if (length == 0 || length >= sizeof parent) {
        error = length == 0 ? LastError() : ERROR_FILENAME_EXCED_RANGE;
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
        path.Format("%svelmail-%08x%08x", parent, static_cast<unsigned>(random()),
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
