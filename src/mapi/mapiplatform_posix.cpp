// There is no Simple MAPI here: no library is found, and the registry is empty.
#include "src/mapi/mapiplatform.h"

namespace {

class CPlatformWithoutMapi : public CMapiPlatform
{
public:
    std::uintptr_t OpenLibrary(const char* /*name*/) override { return 0; }
    Function FindFunction(std::uintptr_t /*library*/, const char* /*name*/) override { return nullptr; }
    bool HasRegistryKey(const char* /*key*/) override { return false; }
    std::optional<CEString> ReadRegistry(const char* /*key*/, const char* /*name*/) override { return {}; }
    COsVersionInfo GetOsVersion() override { return {}; }
};

} // namespace

std::unique_ptr<CMapiPlatform> MakeMapiPlatform()
{
    return std::make_unique<CPlatformWithoutMapi>();
}
