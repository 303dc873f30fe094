// What Simple MAPI delivery asks of the system, so that its logic runs, and is tested, without one: the mail
// client's library, the registry and the system's version. The implementations stand in the files named for
// their platform. A platform belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "src-baselib/cestring.h"

struct COsVersionInfo
{
    bool ntFamily = true;
    std::uint32_t majorVersion = 0;
    std::uint32_t minorVersion = 0;

    [[nodiscard]] bool IsWindows95() const { return !ntFamily && majorVersion == 4 && minorVersion == 0; }
};

class CMapiPlatform
{
public:
    using Function = void (*)();

    CMapiPlatform() = default;
    CMapiPlatform(const CMapiPlatform&) = delete;
    CMapiPlatform& operator=(const CMapiPlatform&) = delete;
    virtual ~CMapiPlatform() = default;

    // The handle of a loaded library, which stays loaded as long as the process; below 32 on failure.
    virtual std::uintptr_t OpenLibrary(const char* name) = 0;
    // Null when the library does not export it.
    virtual Function FindFunction(std::uintptr_t library, const char* name) = 0;

    // Keys are those below HKEY_LOCAL_MACHINE.
    [[nodiscard]] virtual bool HasRegistryKey(const char* key) = 0;
    // The bytes of a value, at most 256; `name` null is the key's default value. Nothing when the key or the
    // value is missing or the value is longer.
    [[nodiscard]] virtual std::optional<CEString> ReadRegistry(const char* key, const char* name) = 0;

    [[nodiscard]] virtual COsVersionInfo GetOsVersion() = 0;
};

// The running system's own.
[[nodiscard]] std::unique_ptr<CMapiPlatform> MakeMapiPlatform();
