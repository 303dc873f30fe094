#include "tools/hostconsole.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <thread>

#include <unistd.h>

// Blocked for all threads, so that none of the library's calls is interrupted by them, and taken by one. What
// the parent has ignored, as a shell does for its background, stays ignored.
void WatchInterrupts(void (*told)())
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : std::array{SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction present = {};
        if (sigaction(signal, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) {
            sigaddset(&set, signal);
        }
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set, told] {
        for (int signal = 0; sigwait(&set, &signal) == 0;) {
            told();
        }
    }).detach();
}

bool IsErrorTerminal()
{
    return isatty(STDERR_FILENO) != 0;
}

void SetEnvironmentText(const char* name, const std::string& value)
{
    setenv(name, value.c_str(), 1);
}

std::string MakePrivateFile()
{
    constexpr int kSuffix = 4; // of the name, behind what is drawn
    const char* const folder = std::getenv("TMPDIR");
    std::string path =
        std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/velmail-XXXXXX.trc";
    const int file = mkstemps(path.data(), kSuffix);
    if (file < 0) {
        return {};
    }
    close(file);
    return path;
}

void EndProcess(int status)
{
    _exit(status);
}
