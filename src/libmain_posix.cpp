// The loader's entry points: the library begins and ends with its shared object.
#include <dlfcn.h>

#include "src/libesmtp.h"
#include "src/threadstate.h"

namespace {

// libESMTP never gives back the key of its per-thread error number. Unloaded with this library, it would
// leave its destructor behind for threads that end later; so it stays.
void KeepTransportLoaded()
{
    Dl_info place = {};
    if (dladdr(reinterpret_cast<const void*>(&smtp_create_session), &place) != 0) {
        dlopen(place.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
    }
}

[[gnu::constructor]] void Load()
{
    KeepTransportLoaded();
    LibraryAttach(nullptr);
}

[[gnu::destructor]] void Unload()
{
    LibraryDetach();
}

} // namespace
