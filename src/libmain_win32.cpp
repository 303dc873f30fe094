// The loader's entry point: the library begins and ends with its module, a thread's state with the thread.
#include <windows.h>

#include "src/threadstate.h"

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
        } else {
            DestroyThreadState(); // the process ends: what other threads held is the system's to clear
        }
        break;
    default:
        break;
    }
    return TRUE;
}
