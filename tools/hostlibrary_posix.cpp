#include "tools/hostlibrary.h"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <system_error>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr const char* kLibraryName = "libVelMail64.so";

// The folders below `prefix` that may hold installed libraries: lib, lib64 and, as some systems nest them by
// architecture, the folders in those. Sorted, so that the same tree always gives the same library.
std::vector<fs::path> LibraryFolders(const fs::path& prefix)
{
    std::vector<fs::path> folders;
    const auto collect = [&folders](const fs::path& parent, const std::string& start) {
        std::error_code error;
        for (fs::directory_iterator entry(parent, error), end; !error && entry != end;
             entry.increment(error)) {
            std::error_code ignored;
            if (entry->path().filename().string().starts_with(start) && entry->is_directory(ignored)) {
                folders.push_back(entry->path());
            }
        }
    };
    collect(prefix, "lib");
    for (const fs::path& folder : std::vector<fs::path>(folders)) {
        collect(folder, "");
    }
    std::ranges::sort(folders);
    return folders;
}

} // namespace

std::string PathForLoader(const std::string& path)
{
    std::error_code error;
    const fs::path absolute = fs::absolute(path, error);
    return !error && fs::exists(absolute, error) ? absolute.string() : path;
}

HostLibrary LoadHostLibrary(const std::string& path, std::string& reason)
{
    HostLibrary library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* text = dlerror();
        reason = text != nullptr ? text : "no reason given";
    }
    return library;
}

HostFunction FindHostFunction(HostLibrary library, const char* name)
{
    return reinterpret_cast<HostFunction>(dlsym(library, name));
}

std::string DefaultLibraryPath()
{
    std::error_code error;
    const fs::path prefix = fs::read_symlink("/proc/self/exe", error).parent_path().parent_path();
    if (error) {
        return kLibraryName;
    }
    std::vector<fs::path> candidates = LibraryFolders(prefix);
    candidates.insert(candidates.begin(), prefix);
    for (const fs::path& folder : candidates) {
        if (fs::exists(folder / kLibraryName, error)) {
            return (folder / kLibraryName).string();
        }
    }
    return kLibraryName;
}
