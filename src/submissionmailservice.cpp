#include "src/submissionmailservice.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "src-baselib/afile.h"
#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src-baselib/tracefile.h"
#include "src/messageid.h"
#include "src/submission/standardmessage.h"

namespace {

constexpr std::size_t kLargestCertificates = 8'388'608;
constexpr std::string_view kSecurities[] = {"", "STARTTLS", "TLS", "NONE"}; // in the type's order
constexpr std::string_view kMechanisms[] = {"", "PLAIN", "LOGIN", "CRAM-MD5", "XOAUTH2", "OAUTHBEARER"};

// Raises the failure and tells it in the protocol of the mail, if there is one. Always false.
bool Fail(const SubmissionFailure& failure, const CMail* mail = nullptr,
          const SourcePlace& where = SourcePlace::Here())
{
    if (!failure.text.empty()) {
        RaiseError(failure.code, failure.text.c_str(), where);
        if (mail != nullptr && mail->GetProtocol() != nullptr) {
            mail->GetProtocol()->Error("Error: %s", failure.text.c_str());
        }
    }
    return false;
}

SubmissionFailure BadSetting(const char* property, const CEString& value, const char* why)
{
    return {codes::kInvalidValue, std::string("Property '") + property +
                                      "' has a value that cannot be used: '" + value.CStr() + "'" + why};
}

// Reads a file without making the host's error of what it finds.
class CCertificateFile : public AFile
{
public:
    bool ReportError(const char* format, const char* argument) override
    {
        Trace(TraceLevel::Error, "%s", DescribeFailure(format, argument).CStr());
        return false;
    }

    bool ReadAll(std::string& content)
    {
        char block[4096];
        std::size_t count = 0;
        if (!Open()) {
            return false;
        }
        do {
            if (!Read(block, 1, sizeof block, count)) {
                return false;
            }
            content.append(block, count);
        } while (count > 0 && content.size() <= kLargestCertificates);
        return content.size() <= kLargestCertificates;
    }
};

SubmissionFailure ReadSecurity(const CMailConnectionInfo& info, SubmissionSettings& settings)
{
    const auto* const security = std::ranges::find(kSecurities, info.security.View());
    if (security == std::end(kSecurities)) {
        return BadSetting("MailSecurity", info.security, "");
    }
    settings.security = static_cast<SubmissionSecurity>(security - std::begin(kSecurities));
    if (!info.caFile.IsEmpty()) {
        CCertificateFile file;
        file.SetFileName(info.caFile.CStr());
        settings.certificatesFile = info.caFile.View();
        if (!file.ReadAll(settings.certificates)) {
            return BadSetting("MailSecurityCAFile", info.caFile, " cannot be read");
        }
        if (settings.certificates.find("-----BEGIN ") == std::string::npos ||
            settings.certificates.find("CERTIFICATE-----") == std::string::npos) {
            return BadSetting("MailSecurityCAFile", info.caFile, " holds no certificate");
        }
    }
    return {};
}

SubmissionFailure ReadSettings(const CMailConnectionInfo& info, SubmissionSettings& settings)
{
    settings = {};
    settings.server = info.server.View();
    settings.port = info.port.View();
    settings.login = info.login.View();
    settings.password = info.password.View();
    settings.mechanism = info.mechanism.View();
    settings.silenceLimit = info.silenceLimit;
    if (SubmissionFailure failure = ReadSecurity(info, settings); failure.IsSet()) {
        return failure;
    }
    if (std::ranges::find(kMechanisms, info.mechanism.View()) == std::end(kMechanisms)) {
        return BadSetting("MailAuthMechanism", info.mechanism, "");
    }
    if (settings.security == SubmissionSecurity::None && !settings.login.empty()) {
        return {codes::kLogin, "A login is not sent over a connection without encryption."};
    }
    return {};
}

SubmissionEnvelope ReadEnvelope(CMail& mail, std::int32_t message)
{
    SubmissionEnvelope envelope = {std::string(mail.Sender().GetMailbox().View()), {}, mail.Progress()};
    for (const CMailAddress* const recipient : mail.GetRecipients(message)) {
        envelope.recipients.emplace_back(recipient->GetMailbox().View());
    }
    return envelope;
}

// A line for each recipient. The words for those of whom the server said nothing that decides are the
// failure's.
void Report(CDeliveryReport& report, const SubmissionEnvelope& envelope, const CSubmissionDialogue& dialogue,
            const SubmissionFailure& failure) noexcept
{
    try {
        const std::string why = failure.code == codes::kRecipientRefused
                                    ? "not sent: another recipient was refused"
                                : failure.code == codes::kCancelled         ? NotSentWords(failure.code)
                                : !failure.IsSet() || !failure.text.empty() ? failure.text
                                                                            : NotSentWords(PendingError());
        for (std::size_t i = 0; i < envelope.recipients.size(); ++i) {
            const SubmissionReply& answer = dialogue.GetAnswer(i);
            report.Add(envelope.recipients[i], answer.code, answer.code == 0 ? why : answer.text);
        }
    } catch (const std::bad_alloc&) {
        report.Lose(); // what became of the mail is known: it must not turn into a failure
    }
}

} // namespace

bool CSubmissionMailService::Connect(const CMailConnectionInfo& info)
{
    CEString reason;
    const CurlLibrary* const curl = LoadCurl(reason);
    if (curl == nullptr) {
        return Fail(
            {codes::kSession, std::string("The library libcurl could not be loaded: ") + reason.CStr()});
    }
    const platform::CWriteSignalGuard guard;
    m_curl = curl;
    SubmissionFailure failure = ReadSettings(info, m_settings);
    if (!failure.IsSet()) {
        failure = OpenConnection({});
    }
    if (failure.IsSet()) {
        m_curl = nullptr; // a send must not go where the host could not connect
        return Fail(failure);
    }
    return true;
}

SubmissionFailure CSubmissionMailService::OpenConnection(const CSendProgress& progress)
{
    m_dialogue.reset();
    SubmissionFailure failure = m_connection.Open(*m_curl, m_settings, progress);
    if (!failure.IsSet()) {
        m_dialogue = std::make_unique<CSubmissionDialogue>(m_connection, m_connection.GetOffer(),
                                                           m_settings.silenceLimit);
    }
    return failure;
}

SubmissionFailure CSubmissionMailService::HaveConnection(const CSendProgress& progress)
{
    return m_dialogue != nullptr && m_connection.IsOwn() && m_dialogue->IsQuiet() ? SubmissionFailure{}
                                                                                  : OpenConnection(progress);
}

bool CSubmissionMailService::Send(CMail& mail)
{
    if (m_curl == nullptr) {
        return Fail({codes::kSession, "There is no connection to a server."}, &mail);
    }
    const platform::CWriteSignalGuard guard;
    const bool bulk = mail.IsMessagePerRecipient();
    if (mail.To().GetCount() + (bulk ? 0 : mail.Cc().GetCount() + mail.Bcc().GetCount()) == 0) {
        return Fail({codes::kNoRecipient, "There is no recipient."}, &mail);
    }
    CStandardComposer composer;
    bool sent = composer.Prepare(mail, MakeMessageId(platform::HostName()).View());
    mail.CountReads(); // not what has been read to look at the text
    const std::int32_t messages = sent ? mail.GetMessageCount() : 0;
    for (std::int32_t i = 0; i < messages; ++i) {
        const bool cancelled = mail.Progress().IsCancelled();
        SubmissionFailure failure = cancelled ? SubmissionFailure{codes::kCancelled, kCancelledText}
                                              : HaveConnection(mail.Progress());
        const bool ready = !failure.IsSet();
        if (ready) {
            composer.SetOnlyRecipient(bulk ? i : -1);
            failure = SendMessage(mail, composer, i);
        }
        if (failure.IsSet()) {
            sent = Fail(failure, &mail);
        }
        if (!ready || failure.code == codes::kCancelled) { // nor would it be for the messages behind
            mail.Report().Explain(failure.code == codes::kCancelled ? NotSentWords(failure.code)
                                                                    : failure.text);
            break;
        }
    }
    return sent;
}

SubmissionFailure CSubmissionMailService::SendMessage(CMail& mail, CStandardComposer& composer,
                                                      std::int32_t message)
{
    const SubmissionEnvelope envelope = ReadEnvelope(mail, message);
    composer.Begin(mail);
    SubmissionFailure failure = m_dialogue->Deliver(envelope, composer, composer.EstimateSize());
    Report(mail.Report(), envelope, *m_dialogue, failure);
    if (!m_dialogue->IsUsable()) {
        m_dialogue.reset();
        m_connection.Close();
    }
    return failure;
}

bool CSubmissionMailService::Disconnect()
{
    const platform::CWriteSignalGuard guard;
    if (m_dialogue != nullptr && m_connection.IsOwn()) {
        m_dialogue->Quit();
    }
    m_dialogue.reset();
    m_connection.Close();
    m_curl = nullptr;
    return true;
}
