#include "src/transport/transportlibrary.h"

#include <atomic>
#include <dlfcn.h>

#include "src/transport/libesmtp.h"

namespace {

// The transport never gives back the key of its per-thread error number. Unloaded with this library, it would
// leave its destructor behind for threads that end later; so it stays.
bool KeepTransport()
{
    Dl_info place = {};
    return dladdr(reinterpret_cast<const void*>(&smtp_create_session), &place) != 0 &&
           dlopen(place.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}

constinit std::atomic<bool> g_kept = false; // twice does no harm

// With this library, not at the first connect: a child that another thread forks meanwhile would find the
// loader's lock taken for good.
[[gnu::constructor]] void KeepTransportFromTheStart()
{
    g_kept = KeepTransport();
}

} // namespace

// The loader has loaded it with this library.
bool LoadTransport(CEString& /*reason*/)
{
    if (!g_kept) { // without memory it failed: the next connect tries again
        g_kept = KeepTransport();
    }
    return true;
}

TransportFunction FindTransportFunction(const char* /*name*/)
{
    return nullptr;
}

bool TraceSocketErrors(bool /*on*/)
{
    return false;
}
