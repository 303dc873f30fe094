#include "src/smtpmailservice.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

#include "src-baselib/cepaths.h"
#include "src-baselib/neverdestroyed.h"
#include "src-baselib/report.h"
#include "src/composition.h"
#include "src/iofilter.h"
#include "src/transportlibrary.h"

namespace {

constexpr int kMailTextError = 695;
constexpr int kAttachmentError = 696;
constexpr int kSessionError = 697;
constexpr int kInternalError = 699;
constexpr const char* kCannotRead = "ERROR while reading from file.";

const CEString& FirstSet(const CEString& first, const CEString& second, const CEString& last)
{
    return !first.IsEmpty() ? first : !second.IsEmpty() ? second : last;
}

void AppendAddress(CEString& list, const CMailAddress& address)
{
    list.Append(list.IsEmpty() ? "\"" : ", \"");
    list.Append(address.GetFullName().View());
    list.Append("\" <");
    list.Append(address.GetMailbox().View());
    list.Append(">");
}

// Adds the recipients and sets their header field. One that cannot be added has raised its error and is in
// neither; the others go on.
void AddRecipients(CSMTPMailMessage& message, RecipientType type, const CMail::Addresses& addresses,
                   std::int32_t first, std::int32_t end)
{
    CEString list;
    for (std::int32_t i = first; i < end; ++i) {
        const CMailAddress& address = *addresses.At(i);
        if (message.AddRecipient(type, address.GetMailbox())) {
            AppendAddress(list, address);
        }
    }
    if (!list.IsEmpty()) {
        message.SetRecipientHeader(type, list);
    }
}

} // namespace

bool CSMTPMailService::Connect(const CMailConnectionInfo& info)
{
    CEString reason;
    if (!LoadTransport(reason)) {
        CEString text("Failed to create an SMTP session! The library libESMTP could not be loaded: ");
        text.Append(reason.View());
        RaiseError(kSessionError, text.CStr());
        return false;
    }
    m_session = std::make_unique<CSMTPMailSession>();
    SetTransportTrace(TraceSink);
    struct Undo // a session that is not aimed at its server must not be sent through
    {
        CSMTPMailSession* session;
        ~Undo()
        {
            if (session != nullptr) {
                session->Destroy();
            }
        }
    } undo = {m_session.get()};
    if (!m_session->Create() ||
        !m_session->SetServer(FirstSet(info.server, m_session->GetHost(), "localhost"),
                              FirstSet(info.port, m_session->GetPort(), "25"))) {
        return false;
    }
    undo.session = nullptr;
    return true;
}

bool CSMTPMailService::PrepareMessage(CMail& mail, std::int32_t recipient)
{
    CSMTPMailMessage* const message = m_session->AddMessage(mail.GetSubject(), mail);
    if (message == nullptr) {
        return false;
    }
    const CMailAddress& sender = mail.Sender();
    smtp_set_header(message->Get(), "From", sender.GetFullName().CStr(), sender.GetMailbox().CStr());
    smtp_set_reverse_path(message->Get(), sender.GetMailbox().CStr());

    // libESMTP leaves Content-* to the composed text and refuses these two; what it shows is its own rule.
    const CEString& type = mail.Text().GetContentType();
    smtp_set_header(message->Get(), "Content-Type", type.IsEmpty() ? "text/plain" : type.CStr());
    smtp_set_header_option(message->Get(), "Content-Type", Hdr_OVERRIDE, 1);

    const bool one = mail.IsMessagePerRecipient();
    AddRecipients(*message, RecipientType::To, mail.To(), one ? recipient : 0,
                  one ? recipient + 1 : mail.To().GetCount());
    AddRecipients(*message, RecipientType::Cc, mail.Cc(), 0, mail.Cc().GetCount());
    AddRecipients(*message, RecipientType::Bcc, mail.Bcc(), 0, mail.Bcc().GetCount());

    const CMailAddress& replyTo = mail.ReplyTo();
    if (!replyTo.GetMailbox().IsEmpty()) {
        smtp_set_header(message->Get(), "Reply-To", replyTo.GetFullName().CStr(),
                        replyTo.GetMailbox().CStr());
    }
    return true;
}

bool CSMTPMailService::PrepareMessages(CMail& mail)
{
    if (!mail.IsMessagePerRecipient()) {
        return PrepareMessage(mail, 0);
    }
    for (std::int32_t i = 0; i < mail.To().GetCount(); ++i) {
        if (!PrepareMessage(mail, i)) {
            return false;
        }
    }
    return true;
}

bool CSMTPMailService::Send(CMail& mail)
{
    if (!m_session) {
        RaiseError(0, "Invalid session object ( m_pSessionSMTPSession )!");
        return false;
    }
    if (!mail.GetAdditionalHeader().IsEmpty()) {
        Trace(TraceLevel::Warning, "Warning: Property 'MailAdditionalSMTPHeader' is not sent.");
    }
    if (!m_session->BeginSend()) {
        return false;
    }
    struct SendEnd // the job does not outlive this call, whatever ends it
    {
        CSMTPMailSession& session;
        ~SendEnd() { session.EndSend(); }
    } const end = {*m_session};
    return PrepareMessages(mail) && m_session->Start();
}

bool CSMTPMailService::Disconnect()
{
    m_session.reset();
    return true;
}

namespace {

// One boundary for the life of the loaded library; drawn, so that it tells nothing of its address space.
const CEString& Boundary()
{
    struct Drawn : CEString
    {
        Drawn() { Format("velmail%d", static_cast<int>(std::random_device()() & 0x7FFFFFFFU)); }
    };
    static CNeverDestroyed<Drawn> boundary;
    return boundary.Get();
}

// The end of a message that cannot be completed: libESMTP drops the connection on an errno other than 0, so
// that nothing cut short is delivered.
const char* FailComposition(CompositionState& state, int code, const char* text,
                            const SourcePlace& where = SourcePlace::Here())
{
    state.failed = true;
    Trace(TraceLevel::Error, "%s", text);
    RaiseError(code, text, where);
    errno = EIO;
    return nullptr;
}

const char* GiveOut(CompositionState& state, int& length, int count)
{
    length = count;
    errno = 0;
    return state.buffer;
}

// Gives out `text`, in as many chunks as it takes.
const char* GiveOutText(CompositionState& state, int& length, std::string_view text)
{
    const std::size_t count = std::min<std::size_t>(text.size(), CompositionState::kCapacity);
    std::copy_n(text.data(), count, state.buffer);
    CEString rest(text.substr(count)); // `text` may be the overflow itself
    state.overflow = std::move(rest);
    return GiveOut(state, length, static_cast<int>(count));
}

CEString MessageHead(const CompositionState& state)
{
    const CEString& type = state.job->Text().GetContentType();
    const bool hasCharset = type.View().find("charset") != std::string_view::npos;
    CEString head("Content-Type: multipart/mixed;boundary=\"");
    head.Append(state.boundary.View());
    head.Append("\"\r\n\r\nMIME-Version: 1.0\r\n--"); // that field stands in the preamble on purpose
    head.Append(state.boundary.View());
    head.Append("\r\nContent-Type: ");
    head.Append(type.View());
    head.Append(hasCharset ? "\r\n" : "; charset=ISO-8859-1\r\n");
    head.Append("Content-Transfer-Encoding: 8bit\r\n\r\n");
    return head;
}

CEString PartHeader(const CompositionState& state, const CMailAttachment& attachment)
{
    const std::string_view name = FileNamePart(attachment.GetName().View());
    CEString header("--");
    header.Append(state.boundary.View());
    header.Append("\r\nContent-Type: ");
    header.Append(attachment.GetMimeType().View());
    header.Append("; name=\"");
    header.Append(name);
    header.Append("\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: inline; filename=\"");
    header.Append(name);
    header.Append("\"\r\n\r\n");
    return header;
}

const char* ComposeHead(CompositionState& state, int& length, CMail* job)
{
    state.job = job;
    state.attachmentCount = job->Attachments().GetCount();
    state.attachmentIndex = 0;
    state.attachmentHeaderSent = false;
    state.boundary = Boundary();
    const CEString head = MessageHead(state);
    state.textStream = job->Text().OpenStream();
    if (state.textStream == nullptr) {
        return FailComposition(state, kInternalError, "ERROR: Internal Program Error.");
    }
    state.phase = CompositionPhase::Text;
    const auto used =
        static_cast<std::int32_t>(std::min<std::size_t>(head.GetLength(), CompositionState::kCapacity));
    if (head.GetLength() > static_cast<std::size_t>(used)) {
        return GiveOutText(state, length, head.View());
    }
    std::memcpy(state.buffer, head.CStr(), head.GetLength());
    std::int32_t count = CompositionState::kCapacity - used;
    if (!state.textStream->Read(state.buffer + used, count)) {
        return FailComposition(state, kMailTextError, kCannotRead);
    }
    return GiveOut(state, length, used + count);
}

const char* ComposeText(CompositionState& state, int& length)
{
    std::int32_t count = CompositionState::kCapacity;
    if (!state.textStream->Read(state.buffer, count)) {
        return FailComposition(state, kMailTextError, kCannotRead);
    }
    if (count > 0) {
        return GiveOut(state, length, count);
    }
    if (!state.job->Text().IsDelivered()) {
        return FailComposition(state, kMailTextError, kCannotRead);
    }
    state.phase = CompositionPhase::Attachments;
    return GiveOutText(state, length, "\r\n");
}

const char* ComposeAttachment(CompositionState& state, int& length)
{
    CMailAttachment& attachment = *state.job->Attachments().At(state.attachmentIndex);
    if (!state.attachmentHeaderSent && state.attachmentStream == nullptr) {
        state.attachmentStream = attachment.OpenStream();
        state.attachmentLines.SetInner(state.attachmentStream);
    }
    if (state.attachmentStream == nullptr) {
        return FailComposition(state, kAttachmentError, kCannotRead);
    }
    // The line is written where it is given out from; only the first one still needs its header in front.
    std::int32_t count = state.attachmentHeaderSent ? state.lineRoom : CompositionState::kOneLine;
    state.attachmentLines.ReadLines(state.buffer, count);
    if (count > 0 && state.attachmentHeaderSent) {
        return GiveOut(state, length, count);
    }
    if (count > 0) {
        CEString chunk = PartHeader(state, attachment);
        chunk.Append(std::string_view(state.buffer, static_cast<std::size_t>(count)));
        state.attachmentHeaderSent = true;
        return GiveOutText(state, length, chunk.View());
    }
    if (!attachment.IsDelivered()) {
        return FailComposition(state, kAttachmentError, kCannotRead);
    }
    ++state.attachmentIndex;
    state.attachmentHeaderSent = false;
    state.attachmentStream = nullptr;
    return GiveOutText(state, length, "\r\n"); // for an attachment without a byte this is all
}

const char* ComposeEnd(CompositionState& state, int& length)
{
    if (state.attachmentIndex > state.attachmentCount) {
        length = 0;
        errno = 0;
        return nullptr;
    }
    ++state.attachmentIndex;
    CEString last("--");
    last.Append(state.boundary.View());
    last.Append("--\r\n");
    return GiveOutText(state, length, last.View());
}

const char* ComposeNext(CompositionState& state, int& length, CMail* job)
{
    if (state.failed) {
        errno = EIO;
        return nullptr;
    }
    if (!state.overflow.IsEmpty()) {
        return GiveOutText(state, length, state.overflow.View());
    }
    switch (state.phase) {
    case CompositionPhase::NotStarted:
        return ComposeHead(state, length, job);
    case CompositionPhase::Text:
        return ComposeText(state, length);
    case CompositionPhase::Attachments:
        break;
    }
    return state.attachmentIndex < state.attachmentCount ? ComposeAttachment(state, length)
                                                         : ComposeEnd(state, length);
}

} // namespace

const char* ComposeMessageChunk(void** context, int* length, void* job)
{
    *context = nullptr;
    ThreadComposition* const composition = CurrentComposition();
    if (composition == nullptr || job == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    CompositionState& state = composition->message;
    if (length == nullptr) {
        state.phase = CompositionPhase::NotStarted;
        state.failed = false;
        state.attachmentStream = nullptr;
        state.overflow.Clear();
        errno = 0;
        return nullptr;
    }
    *length = 0;
    return ComposeNext(state, *length, static_cast<CMail*>(job));
}
