// What a delivery path must do. A service belongs to one thread and lives from connect to disconnect. Its
// operations return false after raising an error.
#pragma once

#include <cstdint>

#include "src-baselib/cestring.h"
#include "src/mail.h"

// What a connect needs; filled from the properties.
class CMailConnectionInfo
{
public:
    CMailConnectionInfo() = default;
    virtual ~CMailConnectionInfo() = default;

    CEString server;
    CEString port;
    CEString login;
    CEString password;
    CEString security;
    CEString caFile;
    CEString mechanism;
    bool showDialog = false;
    std::int64_t silenceLimit = 0; // milliseconds that the server may be silent; 0: the path's own limits
};

class CMailService
{
public:
    CMailService() = default;
    CMailService(const CMailService&) = delete;
    CMailService& operator=(const CMailService&) = delete;

    virtual ~CMailService() = default;
    virtual bool Connect(const CMailConnectionInfo& info) = 0;
    virtual bool Send(CMail& mail) = 0;
    virtual bool Disconnect() = 0;
    // Sets the text's content type from the name of its file; an empty name leaves it unchanged.
    virtual void SetTextContentType(const CEString& fileName, CMail& mail);
    [[nodiscard]] virtual const CEString& GetServiceText() const = 0;
    // Whether the code of a failed send is the host's at once, with its reason in the job protocol; else it
    // surfaces at the next call.
    [[nodiscard]] virtual bool TellsAtOnce() const { return false; }
};
