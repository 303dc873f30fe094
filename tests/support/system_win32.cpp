#include "system.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <span>
#include <string>

#include <windows.h>

void SetEnvironment(const char* name, const char* value)
{
    const std::string text = value == nullptr ? "" : value;
    _putenv((std::string(name) + "=" + text).c_str()); // for getenv, and the system's own
}

void SetUserLanguage(const char* locale)
{
    std::string name = locale == nullptr ? "" : locale;
    name.resize(std::min(name.find('.'), name.size()));
    std::ranges::replace(name, '_', '-');
    const LCID known = name.empty() ? 0 : LocaleNameToLCID(std::wstring(name.begin(), name.end()).c_str(), 0);
    SetThreadLocale(known != 0 ? known : LOCALE_USER_DEFAULT);
}

void DisturbWithSignals(bool /*on*/) {}

bool TransportSendsChunks()
{
    return false;
}

bool UnloadModule(void* module)
{
    return FreeLibrary(static_cast<HMODULE>(module)) != FALSE;
}

namespace {
// The pages of the process tell too little: a heap takes and gives back many at once.
std::size_t HeapBytes()
{
    std::array<HANDLE, 64> heaps = {};
    const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
    std::size_t bytes = 0;
    for (const HANDLE heap : std::span(heaps).first(std::min<std::size_t>(count, heaps.size()))) {
        HeapLock(heap);
        for (PROCESS_HEAP_ENTRY block = {}; HeapWalk(heap, &block) != FALSE;) {
            bytes += (block.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? block.cbData : 0;
        }
        HeapUnlock(heap);
    }
    return bytes;
}
} // namespace

Holdings CountHoldings()
{
    // The system gives out the lowest handle and slot. Wine does not count a process's handles.
    const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    CloseHandle(event);
    const DWORD slot = TlsAlloc();
    TlsFree(slot);
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    return {std::max<std::size_t>(handles, reinterpret_cast<std::size_t>(event) / sizeof(DWORD)), slot,
            HeapBytes()};
}

std::size_t UncertainBytes()
{
    return 20'000;
}
