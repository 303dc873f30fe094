/*
 * libcurl counts what a server answers, whatever the protocol, in a function that lies among those of HTTP
 * since one of the distribution's patches. HTTP is left out, so it is here: it ends a dialogue whose answers
 * together are larger than any honest server's.
 */
#include "curl_setup.h"

#include <curl/curl.h>

#include "urldata.h"

#include "http.h"
#include "sendf.h"

enum
{
    LONGEST = 300 * 1024
};

CURLcode Curl_bump_headersize(struct Curl_easy* data, size_t delta, bool connect_only)
{
    const size_t seen = data->info.header_size;
    (void)connect_only;
    if (delta > LONGEST || seen > LONGEST - delta) {
        failf(data, "The server's answers are too long.");
        return CURLE_RECV_ERROR;
    }
    data->info.header_size = (unsigned int)(seen + delta);
    return CURLE_OK;
}
