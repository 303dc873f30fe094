// The loader's entry point: the library begins and ends with its module, a thread's state with the thread.
#include <windows.h>

#include "src-baselib/privatefile.h"
#include "src/threadstate.h"

namespace __gnu_cxx {
void __freeres(); // of the C++ runtime: gives back the memory that it keeps for exceptions without memory
}

// Runs under the loader's lock: nothing here loads a library, waits or starts the network. Threads that are
// older than the library end here without having begun here; those that outlive it are never seen.
extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved)
{
    switch (reason) {
    case DLL_PROCESS_ATTACH:
        SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
        LibraryAttach(module);
        break;
    case DLL_THREAD_DETACH:
        DestroyThreadState();
        break;
    case DLL_PROCESS_DETACH:
        if (reserved == nullptr) {
            LibraryDetach();
            __gnu_cxx::__freeres();
        } else {
            // The process ends and its other threads are gone: what they held is the system's to clear,
            // except for their files.
            DestroyThreadState();
            CPrivateFile::RemoveAll();
        }
        break;
    default:
        break;
    }
    return TRUE;
}
