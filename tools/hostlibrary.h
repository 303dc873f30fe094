// Loading the mail library at run time, for a host that does not link against it. One file for each platform
// stands behind this header. A loaded library stays loaded until the process ends, so that the library itself
// cleans up what its threads own.
#pragma once

#include <string>

using HostLibrary = void*;
using HostFunction = void (*)();

// Returns null on failure, with the platform's own words in `reason`.
[[nodiscard]] HostLibrary LoadHostLibrary(const std::string& path, std::string& reason);

// Returns null when `library` has no function of that name.
[[nodiscard]] HostFunction FindHostFunction(HostLibrary library, const char* name);

// The library that belongs to the running program: in the build tree or the install tree the program stands
// in; a bare file name, which the loader searches for, when there is none.
[[nodiscard]] std::string DefaultLibraryPath();
