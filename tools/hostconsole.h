// What the command-line host asks of the system beside the library. One file for each platform stands behind
// this header.
#pragma once

#include <string>

// Calls `told` at each Ctrl-C (and at a request to end) on a thread of its own, instead of ending the
// process. To be called before any other thread is started, once.
void WatchInterrupts(void (*told)());

// Whether the standard error output is a terminal.
[[nodiscard]] bool IsErrorTerminal();

// The environment as a library loaded later sees it.
void SetEnvironmentText(const char* name, const std::string& value);

// Makes an empty file for temporary use that other users cannot read. Empty when it cannot be made.
[[nodiscard]] std::string MakePrivateFile();

// Ends the process at once, whatever its other threads do.
[[noreturn]] void EndProcess(int status);
