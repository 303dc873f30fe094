#include "src/submission/curllibrary.h"

#include <dlfcn.h>

namespace {
// A host that has functions of the same names must not come between libcurl and itself. The sanitizers need
// to.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kScope = RTLD_LOCAL;
#else
constexpr int kScope = RTLD_LOCAL | RTLD_DEEPBIND;
#endif
} // namespace

void* OpenCurlLibrary(CEString& reason)
{
    void* const library = dlopen("libcurl.so.4", RTLD_NOW | RTLD_NODELETE | kScope);
    if (library == nullptr) {
        reason = dlerror();
    }
    return library;
}

CurlFunction FindCurlFunction(void* library, const char* name)
{
    return reinterpret_cast<CurlFunction>(dlsym(library, name));
}
