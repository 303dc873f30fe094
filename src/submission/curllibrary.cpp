#include "src/submission/curllibrary.h"

#include <atomic>
#include <memory>
#include <string_view>

#include "src/submission/network.h"

namespace {

std::atomic<const CurlLibrary*> g_curl = nullptr; // never freed, as the library is never unloaded

template<class Function>
bool Find(void* library, const char* name, Function& function, CEString& reason)
{
    function = reinterpret_cast<Function>(FindCurlFunction(library, name));
    if (function == nullptr) {
        reason = "It has no function ";
        reason.Append(name);
    }
    return function != nullptr;
}

bool FindAll(void* library, CurlLibrary& curl, CEString& reason)
{
    return Find(library, "curl_global_init", curl.globalInit, reason) &&
           Find(library, "curl_version_info", curl.versionInfo, reason) &&
           Find(library, "curl_easy_init", curl.easyInit, reason) &&
           Find(library, "curl_easy_cleanup", curl.easyCleanup, reason) &&
           Find(library, "curl_easy_setopt", curl.setOption, reason) &&
           Find(library, "curl_easy_getinfo", curl.getInfo, reason) &&
           Find(library, "curl_easy_perform", curl.perform, reason) &&
           Find(library, "curl_easy_send", curl.send, reason) &&
           Find(library, "curl_easy_recv", curl.receive, reason) &&
           Find(library, "curl_easy_strerror", curl.errorText, reason) &&
           Find(library, "curl_slist_append", curl.listAppend, reason) &&
           Find(library, "curl_slist_free_all", curl.listFree, reason);
}

// Builds without a protocol or without TLS have all functions.
bool CanSubmit(const CurlLibrary& curl, CEString& reason)
{
    const curl_version_info_data* const info = curl.versionInfo(CURLVERSION_NOW);
    bool smtps = false;
    for (const char* const* protocol = info->protocols; *protocol != nullptr; ++protocol) {
        smtps = smtps || std::string_view(*protocol) == "smtps";
    }
    constexpr unsigned kOldest = 0x075500; // 7.85: its global start may be called by any thread
    if (!smtps) {
        reason = "It was built without SMTP or without TLS";
    } else if (info->version_num < kOldest) {
        reason = "It is older than 7.85";
    }
    return smtps && info->version_num >= kOldest;
}

} // namespace

// Two threads may load it at the same time: the system counts loads, libcurl starts, and one result stays. So
// there is no lock that a forked child could be caught in.
const CurlLibrary* LoadCurl(CEString& reason)
{
    if (const CurlLibrary* const loaded = g_curl) {
        return loaded;
    }
    void* const library = OpenCurlLibrary(reason);
    auto curl = std::make_unique<CurlLibrary>();
    if (library == nullptr || !FindAll(library, *curl, reason) || !CanSubmit(*curl, reason)) {
        return nullptr;
    }
    if (curl->globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        reason = "Its start failed";
        return nullptr;
    }
    const CurlLibrary* expected = nullptr;
    if (g_curl.compare_exchange_strong(expected, curl.get())) {
        network::WatchProcessEnd();
        return curl.release();
    }
    return expected;
}
