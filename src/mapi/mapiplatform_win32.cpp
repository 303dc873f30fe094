#include "src/mapi/mapiplatform.h"

#include <cstddef>
#include <string_view>

#include <windows.h>

#include "src/mapi/simplemapi.h"

namespace published {
#include <mapi.h>
} // namespace published

// Ours are what the mail client was compiled with.
#define VELMAIL_SAME_FIELD(type, field)                                                                      \
    static_assert(offsetof(::type, field) == offsetof(published::type, field) &&                             \
                  sizeof(::type::field) == sizeof(published::type::field))
static_assert(sizeof(published::MapiMessage) == 96 && sizeof(published::MapiRecipDesc) == 40 &&
              sizeof(published::MapiFileDesc) == 40);
VELMAIL_SAME_FIELD(MapiMessage, lpszSubject);
VELMAIL_SAME_FIELD(MapiMessage, lpszNoteText);
VELMAIL_SAME_FIELD(MapiMessage, lpOriginator);
VELMAIL_SAME_FIELD(MapiMessage, nRecipCount);
VELMAIL_SAME_FIELD(MapiMessage, lpRecips);
VELMAIL_SAME_FIELD(MapiMessage, nFileCount);
VELMAIL_SAME_FIELD(MapiMessage, lpFiles);
VELMAIL_SAME_FIELD(MapiRecipDesc, ulRecipClass);
VELMAIL_SAME_FIELD(MapiRecipDesc, lpszName);
VELMAIL_SAME_FIELD(MapiRecipDesc, lpszAddress);
VELMAIL_SAME_FIELD(MapiRecipDesc, ulEIDSize);
VELMAIL_SAME_FIELD(MapiRecipDesc, lpEntryID);
VELMAIL_SAME_FIELD(MapiFileDesc, nPosition);
VELMAIL_SAME_FIELD(MapiFileDesc, lpszPathName);
VELMAIL_SAME_FIELD(MapiFileDesc, lpszFileName);
VELMAIL_SAME_FIELD(MapiFileDesc, lpFileType);
#undef VELMAIL_SAME_FIELD
static_assert(kMapiLogonUi == MAPI_LOGON_UI && kMapiNewSession == MAPI_NEW_SESSION &&
              kMapiDialog == MAPI_DIALOG);
static_assert(sizeof(MapiHandle) == sizeof(published::LHANDLE));

namespace {

constexpr DWORD kLongestValue = 256;

// A key below HKEY_LOCAL_MACHINE, closed at the end.
class CRegistryKey
{
public:
    explicit CRegistryKey(const char* name)
    {
        m_isOpen = RegOpenKeyA(HKEY_LOCAL_MACHINE, name, &m_key) == ERROR_SUCCESS;
    }
    ~CRegistryKey()
    {
        if (m_isOpen) {
            RegCloseKey(m_key); // fails for no key that is open
        }
    }
    CRegistryKey(const CRegistryKey&) = delete;
    CRegistryKey& operator=(const CRegistryKey&) = delete;

    [[nodiscard]] bool IsOpen() const { return m_isOpen; }
    [[nodiscard]] HKEY Get() const { return m_key; }

private:
    HKEY m_key = nullptr;
    bool m_isOpen = false;
};

class CWindowsMapiPlatform : public CMapiPlatform
{
public:
    std::uintptr_t OpenLibrary(const char* name) override
    {
        return reinterpret_cast<std::uintptr_t>(LoadLibraryA(name));
    }

    Function FindFunction(std::uintptr_t library, const char* name) override
    {
        return reinterpret_cast<Function>(GetProcAddress(reinterpret_cast<HMODULE>(library), name));
    }

    bool HasRegistryKey(const char* key) override { return CRegistryKey(key).IsOpen(); }

    std::optional<CEString> ReadRegistry(const char* key, const char* name) override
    {
        const CRegistryKey opened(key);
        char bytes[kLongestValue] = "";
        if (!opened.IsOpen()) {
            return {};
        }
        if (name == nullptr) {
            LONG length = sizeof bytes;
            return Value(RegQueryValueA(opened.Get(), nullptr, bytes, &length), bytes, length);
        }
        DWORD length = sizeof bytes;
        const LONG result =
            RegQueryValueExA(opened.Get(), name, nullptr, nullptr, reinterpret_cast<BYTE*>(bytes), &length);
        return Value(result, bytes, length);
    }

    COsVersionInfo GetOsVersion() override
    {
        OSVERSIONINFOA info = {};
        info.dwOSVersionInfoSize = sizeof info;
        if (GetVersionExA(&info) == 0) {
            const DWORD version = GetVersion(); // its highest bit marks the other family
            return {(version & 0x80000000U) == 0, version & 0xFFU, version >> 8 & 0xFFU};
        }
        return {info.dwPlatformId == VER_PLATFORM_WIN32_NT, info.dwMajorVersion, info.dwMinorVersion};
    }

private:
    template<class Length>
    static std::optional<CEString> Value(LONG result, const char* bytes, Length length)
    {
        if (result != ERROR_SUCCESS) {
            return {};
        }
        return CEString(std::string_view(bytes, static_cast<std::size_t>(length)));
    }
};

} // namespace

std::unique_ptr<CMapiPlatform> MakeMapiPlatform()
{
    return std::make_unique<CWindowsMapiPlatform>();
}
