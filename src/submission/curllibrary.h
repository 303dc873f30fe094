// libcurl as a library that may be missing: loaded at the first connect and kept for the life of the process.
#pragma once

#include <curl/curl.h>

#include "src-baselib/cestring.h"

struct CurlLibrary
{
    decltype(&curl_global_init) globalInit = nullptr;
    decltype(&curl_version_info) versionInfo = nullptr;
    decltype(&curl_easy_init) easyInit = nullptr;
    decltype(&curl_easy_cleanup) easyCleanup = nullptr;
    decltype(&curl_easy_setopt) setOption = nullptr;
    decltype(&curl_easy_getinfo) getInfo = nullptr;
    decltype(&curl_easy_perform) perform = nullptr;
    decltype(&curl_easy_send) send = nullptr;
    decltype(&curl_easy_recv) receive = nullptr;
    decltype(&curl_easy_strerror) errorText = nullptr;
    decltype(&curl_slist_append) listAppend = nullptr;
    decltype(&curl_slist_free_all) listFree = nullptr;
};

// Its functions; null, and why in `reason`, when it is not there or cannot do what is needed. The next call
// tries again. Any thread may call it.
[[nodiscard]] const CurlLibrary* LoadCurl(CEString& reason);

// The platform's part. The library stays loaded; a second load gives the same one.
[[nodiscard]] void* OpenCurlLibrary(CEString& reason);
using CurlFunction = void (*)();
[[nodiscard]] CurlFunction FindCurlFunction(void* library, const char* name);
