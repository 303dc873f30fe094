// The unit tests hold the library's objects in their own program: its loader is this.
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved);

namespace {

const struct CAttachment
{
    CAttachment() { DllMain(GetModuleHandleA(nullptr), DLL_PROCESS_ATTACH, nullptr); }
    ~CAttachment() { DllMain(GetModuleHandleA(nullptr), DLL_PROCESS_DETACH, nullptr); }
    CAttachment(const CAttachment&) = delete;
    CAttachment& operator=(const CAttachment&) = delete;
} attachment;

} // namespace
