// Loading the mail library at run time, for a host that does not link against it. One file for each platform
// stands behind this header. A loaded library stays loaded until the process ends, so that the library itself
// cleans up what its threads own.
#pragma once

#include <string>

using HostLibrary = void*;
using HostFunction = void (*)();

// The loader takes a name without a folder for one to search for; a user who names an existing file means it:
// its whole path comes back, any other name as it is.
[[nodiscard]] std::string PathForLoader(const std::string& path);

// Returns null on failure, with the platform's own words in `reason`.
[[nodiscard]] HostLibrary LoadHostLibrary(const std::string& path, std::string& reason);

// Returns null when `library` has no function of that name.
[[nodiscard]] HostFunction FindHostFunction(HostLibrary library, const char* name);

// The library that belongs to the running program: in the build tree or the install tree the program stands
// in; a bare file name, which the loader searches for, when there is none.
[[nodiscard]] std::string DefaultLibraryPath();
