#include "src/threadstate.h"

#include <exception>

#include "src-baselib/error.h"
#include "src-baselib/platform.h"
#include "src-baselib/privatefile.h"
#include "version.h"

namespace {

constexpr const char* kJobName = "VEL job";
constexpr const char* kBuildText = VELMAIL_VERSION "/MT M15 64";
constexpr const char* kTraceVariable = "VEL_MAILTRACE";

void* g_module = nullptr; // written by the attach alone, before any call

constinit CNeverDestroyed<CThreadVar<CMailGlobal>> g_threadMail;

CThreadVar<CMailGlobal>& ThreadMailVar()
{
    return g_threadMail.Get();
}

bool MakeErrorState()
{
    if (ThreadErrorVar().Get() != nullptr) {
        return true; // left from a start-up that ended halfway
    }
    return ThreadErrorVar().Set(std::make_unique<CError>(kJobName, kBuildText, kTraceVariable,
                                                         platform::CurrentThreadId())) != nullptr;
}

bool MakeThreadState(void* module)
{
    if (ThreadMailVar().Get() != nullptr) {
        return true;
    }
    if (!MakeErrorState()) {
        return false;
    }
    if (CTraceFile::IsMultiThreaded()) {
        ThreadErrorVar().Get()->SetMultiThreaded();
    }
    return ThreadMailVar().Set(std::make_unique<CMailGlobal>(module)) != nullptr;
}

} // namespace

bool EnsureThreadState()
{
    return (ThreadMailVar().Get() != nullptr || platform::PrepareThread()) && MakeThreadState(g_module);
}

void DestroyThreadState() noexcept
{
    try {
        ThreadMailVar().Destroy();
        CPrivateFile::RemoveLeftovers(); // of services that ended before
        ThreadErrorVar().Destroy();
    } catch (const std::exception&) {
        // The state of a thread that is gone: what is left of it can be told to nobody.
    }
}

CMailGlobal* ThreadMail()
{
    return ThreadMailVar().Get();
}

void LibraryAttach(void* module) noexcept
{
    try {
        g_module = module;
        ThreadErrorVar().Init();
        ThreadMailVar().Init();
        platform::SetThreadEndHook(DestroyThreadState);
        if (ThreadErrorVar().Alloc() && ThreadMailVar().Alloc()) {
            MakeThreadState(module);
        }
    } catch (const std::exception&) {
        // The loading thread has no state yet; its first call tries again.
    }
}

void LibraryDetach() noexcept
{
    DestroyThreadState();
    CPrivateFile::RemoveAll(); // also those of threads that outlive the library
    platform::SetThreadEndHook(nullptr);
    ThreadMailVar().Free();
    ThreadErrorVar().Free();
}
