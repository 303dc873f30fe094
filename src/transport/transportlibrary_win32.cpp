#include "src/transport/transportlibrary.h"

#include <exception>
#include <string>
#include <string_view>

#include <windows.h>

#include <delayimp.h>

#include "esmtp-win32/esmtp_win32.h"
#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src/transport/sockettexts.h"
#include "src/transport/transporttrace.h"

// What this library imports of the transport, and where this library lies.
extern "C" const ImgDelayDescr kImports asm("__DELAY_IMPORT_DESCRIPTOR_libesmtp_delay_a");
extern "C" const char kOwnImage[] asm("__ImageBase");

namespace {

constexpr const char* kFileName = "libesmtp-6.dll";
constexpr const wchar_t* kWideFileName = L"libesmtp-6.dll";
constexpr std::size_t kLongestPath = 32768;

HMODULE g_transport = nullptr; // never freed; written once, under the mutex, before its first use

// The imports come from the very library that was loaded, whatever other one has its name.
FARPROC WINAPI OnDelayLoad(unsigned event, PDelayLoadInfo info)
{
    return event == dliNotePreLoadLibrary && lstrcmpiA(info->szDll, kFileName) == 0
               ? reinterpret_cast<FARPROC>(g_transport)
               : nullptr;
}

// Beside this library, wherever its host found it; empty when that cannot be told.
std::wstring PathBesideOwn()
{
    HMODULE own = nullptr;
    if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                               GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                           reinterpret_cast<const wchar_t*>(&OnDelayLoad), &own) == 0) {
        return {};
    }
    std::wstring path(kLongestPath, L'\0');
    const DWORD length = GetModuleFileNameW(own, path.data(), static_cast<DWORD>(path.size()));
    path.resize(length < path.size() ? length : 0);
    const std::size_t folderEnd = path.find_last_of(L'\\');
    if (folderEnd == std::wstring::npos) {
        return {};
    }
    path.replace(folderEnd + 1, std::wstring::npos, kWideFileName);
    return path;
}

// A function that a replaced transport lacks would end the host at its first call.
bool HasAllImports(HMODULE library)
{
    const auto* import = reinterpret_cast<const IMAGE_THUNK_DATA*>(kOwnImage + kImports.rvaINT);
    for (; import->u1.AddressOfData != 0; ++import) {
        const auto* const named =
            reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(kOwnImage + import->u1.AddressOfData);
        if (GetProcAddress(library, named->Name) == nullptr) {
            return false;
        }
    }
    return true;
}

HMODULE Load()
{
    const std::wstring path = PathBesideOwn();
    HMODULE library =
        path.empty() ? nullptr : LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    if (library == nullptr && (path.empty() || GetLastError() == ERROR_MOD_NOT_FOUND)) {
        // Not from the current folder: whoever can write there would run in the host.
        library = LoadLibraryExW(kWideFileName, nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS);
    }
    const FARPROC place = library == nullptr ? nullptr : GetProcAddress(library, "smtp_create_session");
    HMODULE pinned = nullptr;
    // Its keys for what a thread owns are never given back, so it must outlive every thread.
    if (place == nullptr || !HasAllImports(library) ||
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                           reinterpret_cast<const wchar_t*>(place), &pinned) == 0) {
        const DWORD error = GetLastError();
        if (library != nullptr) {
            FreeLibrary(library);
        }
        SetLastError(error);
    }
    return pinned;
}

// Called through the transport's frames: no exception may cross them.
void OnSocketEvent(int event, const char* call, int error, int result)
{
    const TransportTrace trace = IsTraceActive() ? GetTransportTrace() : nullptr;
    if (trace == nullptr) {
        return;
    }
    try {
        if (event == ESMTP_WIN32_STARTUP_FAILED) {
            trace("wsastartup failed. \n");
        } else if (event == ESMTP_WIN32_READ_EXCEPTION) {
            trace("select: exception in read\n");
        } else if (event == ESMTP_WIN32_WRITE_EXCEPTION) {
            trace("select: exception in write\n");
        } else if (event == ESMTP_WIN32_SEND_FAILED) {
            trace("Fehler %d beim Senden des Buffers! Send return code: %d", error, result);
        } else if (error == 0) {
            trace("%s: no error\n", call);
        } else if (const char* const text = SocketCodeText(error)) {
            trace("In %s: %s \n", call, text);
        }
    } catch (const std::exception&) {
        // No memory for this entry: it is lost, the dialogue goes on.
    }
}

// One thread loads, the others wait for it. Not under the process's lock, which threads take at their end,
// when the system has the loader wait for them.
SRWLOCK g_loading = SRWLOCK_INIT;
struct CLoading
{
    CLoading() { AcquireSRWLockExclusive(&g_loading); }
    ~CLoading() { ReleaseSRWLockExclusive(&g_loading); }
    CLoading(const CLoading&) = delete;
    CLoading& operator=(const CLoading&) = delete;
};

} // namespace

bool LoadTransport(CEString& reason)
{
    const CLoading loading;
    if (g_transport == nullptr) {
        g_transport = Load();
        if (g_transport == nullptr) {
            const CEString text = platform::SystemErrorText(static_cast<int>(GetLastError()));
            const std::string_view line = text.View();
            reason = CEString(line.substr(0, line.find_last_not_of("\r\n") + 1));
            return false;
        }
        __pfnDliNotifyHook2 = OnDelayLoad;
    }
    return true;
}

TransportFunction FindTransportFunction(const char* name)
{
    return g_transport == nullptr ? nullptr
                                  : reinterpret_cast<TransportFunction>(GetProcAddress(g_transport, name));
}

bool TraceSocketErrors(bool on)
{
    const auto set = reinterpret_cast<esmtp_win32_set_sink_t>(FindTransportFunction("esmtp_win32_set_sink"));
    return set != nullptr && set(on ? OnSocketEvent : nullptr) != 0 && on;
}
