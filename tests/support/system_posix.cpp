#include "system.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/time.h>

void SetEnvironment(const char* name, const char* value)
{
    value != nullptr ? setenv(name, value, 1) : unsetenv(name);
}

void SetUserLanguage(const char* locale)
{
    SetEnvironment("LC_ALL", locale);
}

void DisturbWithSignals(bool on)
{
    std::signal(SIGALRM, [](int) {});
    const timeval often = {0, on ? 500 : 0};
    const itimerval timer = {often, often};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

bool TransportSendsChunks()
{
    return true;
}

bool UnloadModule(void* module)
{
    return dlclose(module) == 0;
}

Holdings CountHoldings()
{
    pthread_key_t free = 0; // the system gives out the lowest one
    pthread_key_create(&free, nullptr);
    pthread_key_delete(free);
    return {static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})),
            free, mallinfo2().uordblks};
}

std::size_t UncertainBytes()
{
    return 100'000;
}
