#include "src/transport/sockettexts.h"

#include <algorithm>
#include <iterator>

#include "src-baselib/platform.h"

namespace {

struct SocketText
{
    int code;
    const char* text;
};
constexpr SocketText kSocketTexts[] = {
    {10004, "Interrupted function call."},
    {10009, "File handle is not valid."},
    {10013, "Permission denied."},
    {10014, "Bad address."},
    {10022, "Invalid argument."},
    {10024, "Too many open files."},
    {10035, "Resource temporarily unavailable."},
    {10036, "Operation now in progress."},
    {10037, "Operation already in progress."},
    {10038, "Socket operation on nonsocket."},
    {10039, "Destination address required."},
    {10040, "Message too long."},
    {10041, "Protocol wrong type for socket."},
    {10042, "Bad protocol option."},
    {10043, "Protocol not supported."},
    {10044, "Socket type not supported."},
    {10045, "Operation not supported."},
    {10046, "Protocol family not supported."},
    {10047, "Address family not supported by protocol family."},
    {10048, "Address already in use."},
    {10049, "Cannot assign requested address."},
    {10050, "Network is down."},
    {10051, "Network is unreachable."},
    {10052, "Network dropped connection on reset."},
    {10053, "Software caused connection abort."},
    {10054, "Connection reset by peer."},
    {10055, "No buffer space available."},
    {10056, "Socket is already connected."},
    {10057, "Socket is not connected."},
    {10058, "Cannot send after socket shutdown."},
    {10059, "Too many references."},
    {10060, "Connection timed out."},
    {10061, "Connection refused."},
    {10062, "Cannot translate name."},
    {10063, "Name too long."},
    {10064, "Host is down."},
    {10065, "No route to host."},
    {10066, "Directory not empty."},
    {10067, "Too many processes."},
    {10068, "User quota exceeded."},
    {10070, "Stale file handle reference."},
    {10071, "Item is remote."},
    {10091, "Network subsystem is unavailable."},
    {10092, "Winsock.dll version out of range."},
    {10093, "Successful WSAStartup not yet performed."},
    {10101, "Graceful shutdown in progress."},
};

} // namespace

const char* SocketCodeText(int code)
{
    const auto* const row =
        std::find_if(std::begin(kSocketTexts), std::end(kSocketTexts),
                     [code](const SocketText& candidate) { return candidate.code == code; });
    return row == std::end(kSocketTexts) ? nullptr : row->text;
}

const char* SocketErrorText(int error)
{
    return SocketCodeText(platform::SocketErrorCode(error));
}
