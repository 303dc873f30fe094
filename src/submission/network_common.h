// What both systems do with the same calls: for network_posix and network_win32, which include it behind the
// headers, network.h among them, and kResolverCodes, ErrorText, SystemSocket and CloseSystemSocket of their
// own.
#pragma once

#include <algorithm>
#include <iterator>
#include <memory>

#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"

namespace network {

inline int LookUpAll(const char* host, const char* service, Place& place, std::string& reason)
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* first = nullptr;
    if (const int error = getaddrinfo(host, service, &hints, &first); error != 0) {
        reason = ErrorText(error);
        const auto* const row =
            std::ranges::find_if(kResolverCodes, [error](const auto& each) { return each.error == error; });
        return row == std::end(kResolverCodes) ? codes::kResolveFailed : row->code;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(first, freeaddrinfo);
    for (const addrinfo* each = first; each != nullptr; each = each->ai_next) {
        char number[NI_MAXHOST] = "";
        if (getnameinfo(each->ai_addr, static_cast<socklen_t>(each->ai_addrlen), number, sizeof number,
                        nullptr, 0, NI_NUMERICHOST) != 0) {
            continue;
        }
        place.addresses.emplace_back(number);
        if (each->ai_family == AF_INET6) {
            const auto* const address = reinterpret_cast<const sockaddr_in6*>(each->ai_addr);
            place.port = ntohs(address->sin6_port);
            place.scope = address->sin6_scope_id;
        } else {
            place.port = ntohs(reinterpret_cast<const sockaddr_in*>(each->ai_addr)->sin_port);
        }
    }
    return place.addresses.empty() ? codes::kResolveNoData : 0;
}

inline bool CloseAndTell(Socket socket)
{
    sockaddr_storage peer = {};
    socklen_t size = sizeof peer;
    const bool connected =
        getpeername(static_cast<SystemSocket>(socket), reinterpret_cast<sockaddr*>(&peer), &size) == 0;
    CloseSystemSocket(static_cast<SystemSocket>(socket));
    return connected;
}

} // namespace network
