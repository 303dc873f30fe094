#include "tools/hostconsole.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <io.h>

namespace {

constinit std::atomic<void (*)()> g_told = nullptr;

// The system calls this on a thread that it makes.
BOOL WINAPI HandleEvent(DWORD event)
{
    g_told.load()();
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) {
        Sleep(INFINITE); // the window closes: the process lives until this returns, some seconds at most
    }
    return TRUE;
}

} // namespace

void WatchInterrupts(void (*told)())
{
    g_told = told;
    SetConsoleCtrlHandler(&HandleEvent, TRUE);
}

bool IsErrorTerminal()
{
    constexpr int kErrorOutput = 2;
    return _isatty(kErrorOutput) != 0;
}

void SetEnvironmentText(const char* name, const std::string& value)
{
    _putenv_s(name, value.c_str()); // which sets the system's as well
}

// The folder for temporary files is the user's own.
std::string MakePrivateFile()
{
    char folder[MAX_PATH + 1] = "";
    char path[MAX_PATH + 1] = "";
    const DWORD length = GetTempPathA(sizeof folder, folder);
    const bool made = length > 0 && length < sizeof folder && GetTempFileNameA(folder, "vel", 0, path) != 0;
    return made ? path : "";
}

void EndProcess(int status)
{
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
    Sleep(INFINITE);
    __builtin_unreachable();
}
