// The loader's entry points: the library begins and ends with its shared object.
#include "src/threadstate.h"

namespace {

[[gnu::constructor]] void Load()
{
    LibraryAttach(nullptr);
}

[[gnu::destructor]] void Unload()
{
    LibraryDetach();
}

} // namespace
