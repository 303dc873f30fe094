// What is asked of the file system beside reading and writing files. The implementation stands in the file
// named for the platform; error numbers are the platform's own.
#pragma once

#include "src-baselib/cestring.h"

namespace platform {

// `name` as an absolute one: an absolute name unchanged, any other resolved in the current directory. Empty,
// and `error` set, when that cannot be told.
CEString AbsolutePath(const CEString& name, int& error);

// Makes a folder that no other user can enter, with a name that nobody can guess, among the temporary files.
// Its path ends in a separator; empty, and `error` set, on failure.
CEString MakePrivateFolder(int& error);
// Each returns false and sets `error` on failure; what is not there is no failure.
bool RemoveFile(const char* name, int& error);
// `name` may end in a separator; the folder must be empty.
bool RemoveFolder(const char* name, int& error);

} // namespace platform
