#include "src/sendpipeline.h"

#include <clocale>
#include <new>
#include <vector>

#include "src-baselib/cepaths.h"
#include "src-baselib/iomem.h"
#include "src-baselib/platform.h"
#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src/numericlocale.h"
#include "src/recipients.h"

namespace {

CEString Joined(std::initializer_list<std::string_view> pieces)
{
    CEString text;
    for (const std::string_view piece : pieces) {
        text.Append(piece);
    }
    return text;
}

class CSendPipeline
{
public:
    CSendPipeline(CCallFrame& frame, CTraceFile& job)
        : m_frame(frame), m_live(frame.Mail().Live()), m_job(job)
    {
    }

    int Run();

private:
    [[gnu::format(printf, 2, 3)]] void InfoBoth(const char* format, ...);
    // Writes "Error: %s" to both traces and raises the error with the text. Always false.
    bool FailBoth(int code, const char* text, const SourcePlace& where = SourcePlace::Here());
    // Writes "Error: %s" to the job protocol alone and raises the error. Always false.
    bool FailJob(int code, const char* text, bool raiseText, const SourcePlace& where = SourcePlace::Here());

    void WriteEnvironment(const CEWorkingDir& directory);
    void UseNumericLocaleC() const;
    bool Build(CMail& mail);
    bool BuildProgress(CMail& mail);
    bool BuildSender(CMail& mail);
    bool BuildRecipients(CMail& mail);
    bool BuildReplyTo(CMail& mail);
    bool BuildSubject(CMail& mail);
    bool BuildAttachments(CMail& mail);
    bool BuildMemoryAttachments(CMail& mail);
    bool BuildFileAttachments(CMail& mail);
    std::unique_ptr<CMailAttachment> MakeAttachment(std::int32_t index);
    bool BuildText(CMail& mail);
    void BuildContentType(CMail& mail);
    bool BuildBulkMail(CMail& mail);
    bool CheckAddress(const CEString& mailbox, const char* beginning);
    void RejectMissingService();
    int Deliver(CMail& mail);
    void TellHost(CMail& mail, int code) noexcept;
    void ReportResult(int result);

    CCallFrame& m_frame;
    CLiveMailProperties& m_live;
    CTraceFile& m_job;
    CMailService* m_service = nullptr; // the thread's
    platform::ClockTime m_start = {};
};

void CSendPipeline::InfoBoth(const char* format, ...)
{
    for (CTraceFile* const trace : {static_cast<CTraceFile*>(&m_frame.Error()), &m_job}) {
        std::va_list arguments;
        va_start(arguments, format);
        trace->Line(TraceLevel::Info, format, arguments);
        va_end(arguments);
    }
}

bool CSendPipeline::FailBoth(int code, const char* text, const SourcePlace& where)
{
    m_frame.Error().Error("Error: %s", text);
    m_job.Error("Error: %s", text);
    RaiseError(code, text, where);
    return false;
}

bool CSendPipeline::FailJob(int code, const char* text, bool raiseText, const SourcePlace& where)
{
    m_job.Error("Error: %s", text);
    RaiseError(code, raiseText ? text : nullptr, where);
    return false;
}

int CSendPipeline::Run()
{
    m_live.mailDeliveryReport.SetRaw(nullptr);
    CEWorkingDir directory; // goes back at the end, whatever the outcome
    // A work space that cannot be entered is reported; what is missing there the checks below find.
    directory.ChangeDir(m_live.mailWorkSpace.GetCString());
    WriteEnvironment(directory);
    UseNumericLocaleC();
    m_start = platform::GetClockTime();
    m_frame.Error().Info("SEND: Start");

    m_service = m_frame.Mail().GetService();
    if (m_service == nullptr) {
        RejectMissingService();
        return m_frame.Fail();
    }
    CMail mail;
    return Build(mail) ? Deliver(mail) : m_frame.Fail();
}

void CSendPipeline::WriteEnvironment(const CEWorkingDir& directory)
{
    InfoBoth("Environment information:");
    InfoBoth("    Working directory: %s", directory.CStr());
    m_live.Dump();
    m_job.Info("    Sender: %s", m_live.mailSenderMailBox.GetCString());
    m_job.Info("    Sender Full Name: %s", m_live.mailSenderFullName.GetCString());
    m_job.Info("    Receiver: %s", m_live.mailRecipientsMailBox.GetPart(0).CStr());
    m_job.Info("    Receiver Full Name: %s", m_live.mailRecipientsFullName.GetPart(0).CStr());
    m_job.Info("    Subject: %s", m_live.mailSubject.GetCString());
}

void CSendPipeline::UseNumericLocaleC() const
{
    if (m_frame.Error().IsActive(TraceLevel::Info)) {
        Trace(TraceLevel::Info, "MAIL: Current locale '%s'", CurrentLocale(LC_ALL).CStr());
    }
    UseNumericLocale("C");
    Trace(TraceLevel::Info, "MAIL: Set locale LC_NUMERIC=\"C\"");
}

bool CSendPipeline::Build(CMail& mail)
{
    mail.SetProtocol(&m_job);
    mail.SetAdditionalHeader(m_live.mailAdditionalSMTPHeader.GetString());
    mail.SetCharset(m_live.mailCharset.GetString());
    if (!BuildProgress(mail) || !BuildSender(mail) || !BuildRecipients(mail) || !BuildReplyTo(mail) ||
        !BuildSubject(mail) || !BuildAttachments(mail) || !BuildText(mail)) {
        return false;
    }
    BuildContentType(mail);
    return BuildBulkMail(mail);
}

bool CSendPipeline::BuildProgress(CMail& mail)
{
    const CEString& block = m_live.mailProgressMemoryAddress.GetString();
    return mail.Progress().Set(block.View()) ||
           FailBoth(codes::kInvalidValue,
                    Joined({"Property 'MailProgressMemoryAddress' has a value that cannot be used: '",
                            block.View(), "'"})
                        .CStr());
}

bool CSendPipeline::CheckAddress(const CEString& mailbox, const char* beginning)
{
    return CMailAddress::IsValidAddress(mailbox) ||
           FailBoth(codes::kInvalidAddress,
                    Joined({beginning, mailbox.View(), " is not a correct eMail address."}).CStr());
}

bool CSendPipeline::BuildSender(CMail& mail)
{
    const CEString& mailbox = m_live.mailSenderMailBox.GetString();
    if (mailbox.IsEmpty()) { // a mail client knows its user
        return (m_service->GetServiceText() != "SMTP" && m_service->GetServiceText() != "SUBMISSION") ||
               FailBoth(codes::kNoSender, "Property 'MailSenderMailBox' has to be set. There is no sender.");
    }
    if (!CheckAddress(mailbox, "The eMail address  of the Mail Sender MailBox ")) {
        return false;
    }
    const CEString fullName = HeaderValue(m_live.mailSenderFullName, m_live.mailSenderFullName.GetString());
    mail.Sender().SetMailbox(mailbox);
    mail.Sender().SetFullName(fullName.IsEmpty() ? mailbox : fullName);
    return true;
}

bool CSendPipeline::BuildRecipients(CMail& mail)
{
    for (const RecipientType kind : {RecipientType::To, RecipientType::Cc, RecipientType::Bcc}) {
        if (!AddRecipients(kind, m_live, mail)) {
            m_job.Error("Error: Receiver could not be added, check mail address");
            return false;
        }
    }
    return true;
}

bool CSendPipeline::BuildReplyTo(CMail& mail)
{
    const CEString& mailbox = m_live.mailReplyToMailBox.GetString();
    if (!mailbox.IsEmpty() && !CheckAddress(mailbox, "The eMail address  of the MailReplyToMBox ")) {
        return false;
    }
    mail.ReplyTo().SetMailbox(mailbox);
    mail.ReplyTo().SetFullName(
        HeaderValue(m_live.mailReplyToFullName, m_live.mailReplyToFullName.GetString()));
    return true;
}

bool CSendPipeline::BuildSubject(CMail& mail)
{
    if (m_live.mailSubject.IsEmpty()) {
        static constexpr const char* kLine =
            "Error: Property 'MailSubject' must not be empty. Your mail may be recognized as spam.";
        m_frame.Error().Error("%s", kLine);
        m_job.Error("%s", kLine);
        RaiseError(codes::kNoSubject, "Property 'MailSubject' must not be empty.");
        return false;
    }
    mail.SetSubject(HeaderValue(m_live.mailSubject, m_live.mailSubject.GetString()));
    return true;
}

std::unique_ptr<CMailAttachment> CSendPipeline::MakeAttachment(std::int32_t index)
{
    auto attachment = std::make_unique<CMailAttachment>();
    const CEString& type = m_live.mailAttachmentMimeType.GetPart(index);
    // Without one, the path for today's servers goes by the file's name; the others never did.
    const char* const otherwise = m_service->GetServiceText() == "SUBMISSION" ? "" : "text/plain";
    attachment->SetMimeType(type.IsEmpty() ? CEString(otherwise)
                                           : HeaderValue(m_live.mailAttachmentMimeType, type));
    attachment->SetName(
        HeaderValue(m_live.mailAttachmentFilename, m_live.mailAttachmentFilename.GetPart(index)));
    return attachment;
}

bool CSendPipeline::BuildAttachments(CMail& mail)
{
    return m_live.mailAttachmentMemoryAddress.IsEmpty() ? BuildFileAttachments(mail)
                                                        : BuildMemoryAttachments(mail);
}

bool CSendPipeline::BuildMemoryAttachments(CMail& mail)
{
    const CEString& list = m_live.mailAttachmentMemoryAddress.GetString();
    std::vector<MemoryBlock> blocks;
    if (!ParseMemoryBlocks(list.View(), blocks)) {
        const CEString text = Joined({"Error in Attachment Memory Adresses ",
                                      " (Property 'MailAttachmentMemoryAddress'): ", list.View()});
        return FailJob(codes::kAttachmentFailure, text.CStr(), true);
    }
    const std::int32_t names = m_live.mailAttachmentFilename.GetPartCount();
    if (blocks.size() != static_cast<std::size_t>(names)) {
        CEString counts[2];
        counts[0].Format("%llu ", static_cast<unsigned long long>(blocks.size()));
        counts[1].Format("%ld", static_cast<long>(names));
        const CEString text =
            Joined({"Number of attachments in memory ", counts[0].View(), "is not equal to ",
                    "number of names", " (Property 'MailAttachmentFilename'): ", counts[1].View()});
        return FailJob(codes::kAttachmentFailure, text.CStr(), true);
    }
    for (std::int32_t i = 0; i < names; ++i) {
        const MemoryBlock& block = blocks[static_cast<std::size_t>(i)];
        CEString memory;
        memory.Format("%llu;%llu",
                      static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(block.address)),
                      static_cast<unsigned long long>(block.length));
        auto attachment = MakeAttachment(i);
        attachment->SetMemory(memory);
        mail.Attachments().Add(std::move(attachment));
    }
    return true;
}

bool CSendPipeline::BuildFileAttachments(CMail& mail)
{
    for (std::int32_t i = 0; i < m_live.mailAttachmentFilename.GetPartCount(); ++i) {
        const CEString& name = m_live.mailAttachmentFilename.GetPart(i);
        auto attachment = MakeAttachment(i);
        attachment->SetFileName(name);
        if (!attachment->CheckFile()) {
            const CEString text =
                Joined({"Cannot open file ", " (Property 'MailAttachmentFilename'): ", name.View()});
            return FailJob(codes::kAttachmentFailure, text.CStr(), true);
        }
        mail.Attachments().Add(std::move(attachment));
    }
    return true;
}

bool CSendPipeline::BuildText(CMail& mail)
{
    const CEString& memory = m_live.mailTextMemoryAddress.GetString();
    if (!memory.IsEmpty()) {
        std::vector<MemoryBlock> blocks;
        mail.Text().SetMemory(memory);
        return (ParseMemoryBlocks(memory.View(), blocks) && !blocks.empty()) ||
               FailJob(codes::kMailText,
                       Joined({"Error in Mail Text Memory Adresses ",
                               " (Property 'MailTextMemoryAddress'): ", memory.View()})
                           .CStr(),
                       false);
    }
    const CEString& file = m_live.mailTextFilename.GetString();
    if (!file.IsEmpty()) {
        mail.Text().SetFileName(file);
        return mail.Text().CheckFile() ||
               FailJob(codes::kMailText,
                       Joined({"Cannot open file ", " (Property 'MailTextFilename'): ", file.View()}).CStr(),
                       false);
    }
    static constexpr const char* kLine =
        "Error: Mail contains no text. Property 'MailTextFilename' and 'MailTextMemoryAddress' not set.";
    m_frame.Error().Error("%s", kLine);
    m_job.Error("%s", kLine);
    RaiseError(codes::kNoText,
               "Mail contains no text. Properties 'MailTextFilename' and 'MailTextMemoryAddress' not set.");
    return false;
}

void CSendPipeline::BuildContentType(CMail& mail)
{
    if (!m_live.mailTextContentType.IsEmpty()) {
        mail.Text().SetContentType(
            HeaderValue(m_live.mailTextContentType, m_live.mailTextContentType.GetString()));
        return;
    }
    Trace(TraceLevel::Warning, "Property 'MailTextContentType' not set.");
    m_service->SetTextContentType(m_live.mailTextFilename.GetString(), mail);
}

bool CSendPipeline::BuildBulkMail(CMail& mail)
{
    const std::int32_t bulk = m_live.useBulkMail.GetBool();
    if (bulk != 0 && m_service->GetServiceText() == "MAPI") {
        return FailBoth(codes::kNotImplemented, "BulkMail function for MAPI Protocol is not implemented.");
    }
    mail.SetMessagePerRecipient(bulk);
    return true;
}

void CSendPipeline::RejectMissingService()
{
    static constexpr const char* kLine = "Error: Not enough memory. Mail service not found.";
    m_frame.Error().Error("%s", kLine);
    m_job.Error("%s", kLine);
    RaiseError(codes::kNotEnoughMemory, "Not enough memory.");
}

int CSendPipeline::Deliver(CMail& mail)
{
    int result = 0;
    try {
        mail.Progress().Begin(mail.Progress().IsSet() ? mail.GetContentSize() : 0);
        result = !mail.Progress().IsCancelled() ? m_service->Send(mail) ? 1 : 0
                                                : FailBoth(codes::kCancelled, kCancelledText);
    } catch (const std::bad_alloc&) {
        TellHost(mail, codes::kNotEnoughMemory);
        throw;
    }
    TellHost(mail, PendingError());
    if (result == 0 && m_service->TellsAtOnce()) {
        m_frame.Fail();
    }
    try {
        ReportResult(result);
    } catch (const std::bad_alloc&) {
        // What became of the mail is known: it must not turn into a failure for want of a line.
    }
    return result; // on the old paths a failed delivery's code stays pending: the next working call tells it
}

// Completes the report, for those of whom the service could tell nothing, and hands it to the host.
void CSendPipeline::TellHost(CMail& mail, int code) noexcept
{
    try {
        CDeliveryReport& report = mail.Report();
        std::size_t left = report.GetCount(); // to pass over
        const std::string reason = report.GetReason().empty() ? NotSentWords(code) : report.GetReason();
        for (std::int32_t i = 0; i < mail.GetMessageCount(); ++i) {
            for (const CMailAddress* const recipient : mail.GetRecipients(i)) {
                if (left > 0) {
                    --left;
                } else {
                    report.Add(recipient->GetMailbox().View(), 0, reason);
                }
            }
        }
        m_live.mailDeliveryReport.SetRaw(report.GetText().c_str());
    } catch (const std::bad_alloc&) {
        Trace(TraceLevel::Warning, "Warning: Not enough memory. The delivery report is lost.");
    }
}

void CSendPipeline::ReportResult(int result)
{
    if (!m_job.IsOpen() && !m_frame.Error().IsOpen()) {
        return; // to nobody
    }
    const CEString runtime = CTraceFile::RuntimeText(m_start);
    const long last = m_frame.Error().GetLast();
    m_frame.Error().Info("SEND: finished with LastError=%ld Result %d Runtime: %s", last, result,
                         runtime.CStr());
    if (result == 1) {
        m_job.Info("Success: SEND: finished with LastError=%ld Result %d Runtime: %s", last, result,
                   runtime.CStr());
        m_job.Info("Success: SEND was successfull");
    } else {
        m_job.Error("Error: SEND: finished with LastError=%ld Result %d Runtime: %s", last, result,
                    runtime.CStr());
        m_job.Error("Error: SEND failed");
    }
}

} // namespace

int RunSend(CCallFrame& frame)
{
    if (!frame.Enter()) {
        return 0;
    }
    CTraceFile job("VEL mail Protokollierung", frame.Mail().Live().mailTraceFilename.GetCString(),
                   CTraceFile::kBuiltInVariable, frame.Error().GetThreadId());
    job.EnsureWritable(); // one that cannot be written leaves its error pending, which ends the send below
    job.Info("New Protocoll is open:");
    if (frame.RejectPending(&job)) {
        return 0;
    }
    frame.Begin();
    return CSendPipeline(frame, job).Run();
}
