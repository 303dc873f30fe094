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

} // namespace

// The loader has loaded it with this library.
bool LoadTransport(CEString& /*reason*/)
{
    static constinit std::atomic<bool> kept = false; // twice does no harm, and a guard could outlive a fork
    if (!kept) {                                     // without memory it fails: the next connect tries again
        kept = KeepTransport();
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
