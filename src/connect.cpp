#include "src/connect.h"

#include <charconv>
#include <new>
#include <optional>
#include <string_view>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src/mapimailservice.h"
#include "src/smtpmailservice.h"
#include "src/submissionmailservice.h"

namespace {

// The property's text, or `otherwise` with a warning when it is empty.
CEString ValueOr(const CStringProperty& property, const char* otherwise, const char* warning)
{
    if (!property.IsEmpty()) {
        return property.GetString();
    }
    Trace(TraceLevel::Warning, "%s", warning);
    return {otherwise};
}

// Seconds; 0 for none, nothing for a text that is no limit.
std::optional<std::int64_t> SilenceLimit(std::string_view text)
{
    constexpr std::int64_t kLongest = 86'400;
    if (text.empty()) {
        return 0;
    }
    std::int64_t seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool number = error == std::errc() && end == text.data() + text.size();
    return number && seconds >= 1 && seconds <= kLongest ? std::optional(seconds) : std::nullopt;
}

CMailConnectionInfo ReadConnectionInfo(const CLiveMailProperties& live, const char* port,
                                       const char* portWarning)
{
    CMailConnectionInfo info;
    info.server =
        ValueOr(live.mailServer, "localhost",
                "Warning: MTA (sending Server) defaults to localhost. Property 'MailServer' not set");
    info.port = ValueOr(live.mailServerPort, port, portWarning);
    info.login = ValueOr(live.mailAuthLogin, "",
                         "Warning: No LoginName for opening connection. Property 'MailAuthLogin' not set.");
    info.password =
        ValueOr(live.mailAuthPassword, "",
                "Warning: No password for opening connection. Property 'MailAuthPassword' not set.");
    info.showDialog = live.mailLogonDialog.GetBool() != 0;
    info.security = live.mailSecurity.GetString();
    info.caFile = live.mailSecurityCAFile.GetString();
    info.mechanism = live.mailAuthMechanism.GetString();
    info.silenceLimit = *SilenceLimit(live.mailTimeout.GetString().View()) * 1000; // that is checked
    return info;
}

template<class Service>
int ConnectService(CCallFrame& frame, const CMailConnectionInfo& info)
{
    try {
        frame.Mail().SetService(std::make_unique<Service>());
    } catch (const std::bad_alloc&) {
        Trace(TraceLevel::Error, "Error: Not enough memory. Mail service not found.");
        RaiseError(codes::kNotEnoughMemory, "Not enough memory.");
        return frame.Fail();
    }
    return frame.End(frame.Mail().GetService()->Connect(info));
}

int ConnectSmtp(CCallFrame& frame)
{
    return ConnectService<CSMTPMailService>(
        frame,
        ReadConnectionInfo(
            frame.Mail().Live(), "25",
            "Warning: Port to connect to on mail server defaults to 25. Property 'MailServerPort' not set"));
}

int ConnectSubmission(CCallFrame& frame)
{
    return ConnectService<CSubmissionMailService>(
        frame,
        ReadConnectionInfo(
            frame.Mail().Live(), "587",
            "Warning: Port to connect to on mail server defaults to 587. Property 'MailServerPort' not set"));
}

int ConnectMapi(CCallFrame& frame)
{
    const CLiveMailProperties& live = frame.Mail().Live();
    frame.Mail().SetService(std::make_unique<CMapiMailService>(live.mailLogonDialog.GetBool() != 0,
                                                               live.mailDialog.GetBool() != 0));
    return 1; // a failed logon shows at the next call
}

int Reject(CCallFrame& frame, int code, const char* what, const CEString& value)
{
    CEString text;
    text.Format("%s: '%s'", what, value.CStr());
    Trace(TraceLevel::Error, "Error: %s", text.CStr());
    RaiseError(code, text.CStr());
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
    if (!SilenceLimit(frame.Mail().Live().mailTimeout.GetString().View())) {
        return Reject(frame, codes::kInvalidValue, "Property 'MailTimeout' has a value that cannot be used",
                      frame.Mail().Live().mailTimeout.GetString());
    }
    const CEString protocol =
        ValueOr(frame.Mail().Live().mailProtocol, "SMTP",
                "Warning: Property 'MailProtocol' not set. Mail Protocol defaults to SMTP.");
    if (protocol == "SMTP") {
        return ConnectSmtp(frame);
    }
    if (protocol == "MAPI") {
        return ConnectMapi(frame);
    }
    if (protocol == "SUBMISSION") {
        return ConnectSubmission(frame);
    }
    return Reject(frame, codes::kUnknownProtocol, "Unknown mail protocol given in property 'MailProtocol'",
                  protocol);
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
