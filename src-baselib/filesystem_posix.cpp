#include "src-baselib/filesystem.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "src-baselib/platform.h"

namespace platform {

CEString AbsolutePath(const CEString& name, int& error)
{
    constexpr std::size_t kLongestDirectory = 4096;
    if (name.View().starts_with('/')) {
        return name;
    }
    char directory[kLongestDirectory];
    if (!CurrentDirectory(directory, sizeof directory, error)) {
        return {};
    }
    CEString path(directory);
    path.Append(path.View().ends_with('/') ? "" : "/");
    path.Append(name.View());
    return path;
}

CEString MakePrivateFolder(int& error)
{
    const CEString set = EnvironmentVariable("TMPDIR");
    const CEString parent = AbsolutePath(set.IsEmpty() ? CEString("/tmp") : set, error);
    std::string path = std::string(parent.View()) + "/velmail-XXXXXX";
    if (parent.IsEmpty()) {
        return {};
    }
    if (mkdtemp(path.data()) == nullptr) {
        error = errno;
        return {};
    }
    path += '/';
    return CEString(path);
}

bool RemoveFile(const char* name, int& error)
{
    error = unlink(name) == 0 || errno == ENOENT ? 0 : errno;
    return error == 0;
}

bool RemoveFolder(const char* name, int& error)
{
    error = rmdir(name) == 0 || errno == ENOENT ? 0 : errno;
    return error == 0;
}

} // namespace platform
