#include "src/mapi/mapidefaultclient.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "src-baselib/report.h"

namespace {

constexpr const char* kMailClients = "SOFTWARE\\Clients\\Mail";

CEString KeyOf(const CEString& client)
{
    CEString key(kMailClients);
    key.Append("\\");
    key.Append(client.View());
    return key;
}

// A value as text, up to its terminator; empty when it is missing.
CEString ReadText(CMapiPlatform& platform, const char* key, const char* name)
{
    return {platform.ReadRegistry(key, name).value_or(CEString()).CStr()};
}

// Empty when there is none, or only its name.
CEString ReadClientName(CMapiPlatform& platform)
{
    const CEString name = ReadText(platform, kMailClients, nullptr);
    return !name.IsEmpty() && platform.HasRegistryKey(KeyOf(name).CStr()) ? name : CEString();
}

bool OutlookExpressOffersMapi(CMapiPlatform& platform)
{
    static constexpr const char* kKey = "SOFTWARE\\Microsoft\\Outlook Express";
    constexpr int kFirstVersion = 5;
    if (const auto value = platform.ReadRegistry(kKey, "SMapi")) {
        std::uint32_t number = 0;
        std::memcpy(&number, value->CStr(), std::min(sizeof number, value->GetLength()));
        return number != 0;
    }
    const CEString version =
        ReadText(platform, "SOFTWARE\\Microsoft\\Outlook Express\\Version Info", "Current");
    return std::strtol(version.CStr(), nullptr, 10) >= kFirstVersion;
}

bool NetscapeOffersMapi(CMapiPlatform& platform)
{
    const auto value = platform.ReadRegistry("SOFTWARE\\Netscape\\Netscape Navigator\\MAPI", "Enabled");
    return value.has_value() && *value->CStr() != '\0';
}

struct KnownClient
{
    const char* name;
    bool (*offersMapi)(CMapiPlatform& platform);
    const char* activated;
    const char* notActivated;
};

constexpr KnownClient kKnownClients[] = {
    {"Outlook Express", OutlookExpressOffersMapi, "OE4+ SimpleMAPI is activated",
     "OE4 or OE4 SimpleMAPI is not activated"},
    // It is asked the keys of Outlook Express, as it always was.
    {"Microsoft Outlook", OutlookExpressOffersMapi, "Outlook SimpleMAPI is activated",
     "Outlook or Outlook SimpleMAPI is not activated"},
    {"Netscape Messenger", NetscapeOffersMapi, "Netscape4 SimpleMAPI is activated",
     "Netscape4 or Netscape4 SimpleMAPI is not activated"},
};

bool IsUsable(CMapiPlatform& platform, const CEString& client)
{
    for (const KnownClient& known : kKnownClients) {
        if (client == known.name) {
            const bool usable = known.offersMapi(platform);
            Trace(TraceLevel::Normal, "%s", usable ? known.activated : known.notActivated);
            return usable;
        }
    }
    Trace(TraceLevel::Normal, "SimpleMAPI should be active"); // and is not used all the same
    return false;
}

} // namespace

bool HasUsableDefaultClient(CMapiPlatform& platform)
{
    CEString client = ReadClientName(platform);
    if (client.IsEmpty()) {
        return false;
    }
    Trace(TraceLevel::Normal, "Found StandardEmailHandler in Registry: %s", client.CStr());
    const CEString path = ReadText(platform, KeyOf(client).CStr(), "DLLPath");
    if (!path.IsEmpty()) {
        Trace(TraceLevel::Normal, "Found StandardEmailHandlerDLLPath in Registry: %s", path.CStr());
        return IsUsable(platform, client);
    }
    client = ReadClientName(platform);
    if (client == "Microsoft Outlook" || client == "Pegasus Mail") {
        Trace(TraceLevel::Normal, "%s SimpleMAPI should be active", client.CStr());
        return true;
    }
    return false;
}
