#include "src/connect.h"

#include <new>

#include "src-baselib/report.h"
#include "src/mapimailservice.h"
#include "src/smtpmailservice.h"

namespace {

constexpr int kNotEnoughMemory = 10;
constexpr int kUnknownProtocol = 656;

// The property's text, or `otherwise` with a warning when it is empty.
CEString ValueOr(const CStringProperty& property, const char* otherwise, const char* warning)
{
    if (!property.IsEmpty()) {
        return property.GetString();
    }
    Trace(TraceLevel::Warning, "%s", warning);
    return {otherwise};
}

int ConnectSmtp(CCallFrame& frame)
{
    const CLiveMailProperties& live = frame.Mail().Live();
    CMailConnectionInfo info;
    info.server =
        ValueOr(live.mailServer, "localhost",
                "Warning: MTA (sending Server) defaults to localhost. Property 'MailServer' not set");
    info.port = ValueOr(
        live.mailServerPort, "25",
        "Warning: Port to connect to on mail server defaults to 25. Property 'MailServerPort' not set");
    info.login = ValueOr(live.mailAuthLogin, "",
                         "Warning: No LoginName for opening connection. Property 'MailAuthLogin' not set.");
    info.password =
        ValueOr(live.mailAuthPassword, "",
                "Warning: No password for opening connection. Property 'MailAuthPassword' not set.");
    info.showDialog = live.mailLogonDialog.GetBool() != 0;
    try {
        frame.Mail().SetService(std::make_unique<CSMTPMailService>());
    } catch (const std::bad_alloc&) {
        Trace(TraceLevel::Error, "Error: Not enough memory. Mail service not found.");
        RaiseError(kNotEnoughMemory, "Not enough memory.");
        return frame.Fail();
    }
    return frame.End(frame.Mail().GetService()->Connect(info));
}

int ConnectMapi(CCallFrame& frame)
{
    const CLiveMailProperties& live = frame.Mail().Live();
    frame.Mail().SetService(std::make_unique<CMapiMailService>(live.mailLogonDialog.GetBool() != 0,
                                                               live.mailDialog.GetBool() != 0));
    return 1; // a failed logon shows at the next call
}

int RejectProtocol(CCallFrame& frame, const CEString& protocol)
{
    CEString text;
    text.Format("Unknown mail protocol given in property 'MailProtocol': '%s'", protocol.CStr());
    Trace(TraceLevel::Error, "Error: %s", text.CStr());
    RaiseError(kUnknownProtocol, text.CStr());
    return frame.Fail();
}

} // namespace

int RunConnect(CCallFrame& frame)
{
    if (!frame.Enter()) {
        return 0;
    }
    frame.Mail().SetService(nullptr); // also when the call ends at the next step
    if (frame.RejectPending()) {
        return 0;
    }
    frame.Begin();
    frame.Mail().Live().Dump();
    const CEString protocol =
        ValueOr(frame.Mail().Live().mailProtocol, "SMTP",
                "Warning: Property 'MailProtocol' not set. Mail Protocol defaults to SMTP.");
    if (protocol == "SMTP") {
        return ConnectSmtp(frame);
    }
    if (protocol == "MAPI") {
        return ConnectMapi(frame);
    }
    return RejectProtocol(frame, protocol);
}

int RunDisconnect(CCallFrame& frame)
{
    CMailService* const service = frame.Mail().GetService();
    if (service == nullptr) {
        Trace(TraceLevel::Warning, "Warning: Mail service not found.");
        return frame.Fail();
    }
    const bool disconnected = service->Disconnect();
    if (!disconnected) {
        Trace(TraceLevel::Warning, "Warning: Disconnect failed.");
    }
    frame.Mail().SetService(nullptr);
    return frame.End(disconnected);
}
