#include "src/smtpmailservice.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "src-baselib/cepaths.h"
#include "src-baselib/drawnonce.h"
#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src/iofilter.h"
#include "src/transport/transportlibrary.h"
#include "src/transport/transporttrace.h"

namespace {

constexpr const char* kCannotRead = "ERROR while reading from file.";

// Composes the multipart/mixed text of a job into the room that it is given: each call fills it with what the
// streams have, up to a rest too small for a line.
class CMimeComposer : public CMessageSource
{
public:
    void Begin(CMail& job) override;
    Pulled Next(char* room, std::int32_t size) override;

private:
    enum class Phase : std::uint8_t
    {
        Head,
        Text,
        Attachment, // its beginning
        Lines,      // of the attachment
        LastBoundary,
        Complete
    };
    // What is left of the room.
    struct Room
    {
        char* place;
        std::int32_t left;

        void Use(std::int32_t count)
        {
            place += count;
            left -= count;
        }
    };

    void ComposeHead(Room& room);
    void ComposeText(Room& room);
    void BeginAttachment(Room& room);
    void ComposeLines(Room& room);
    void EndAttachment(Room& room);
    void PutHeader(Room& room, const CMailAttachment& attachment, std::string_view line);
    void Put(Room& room, std::initializer_list<std::string_view> pieces);
    bool PutOut(Room& room);
    void Fail(int code, const char* text, const SourcePlace& where = SourcePlace::Here());

    CMail* m_job = nullptr; // not owned; valid while its message is pulled
    Phase m_phase = Phase::Head;
    bool m_failed = false;
    CEString m_boundary;
    CEString m_text;                      // short texts that did not fit, which go out first
    std::size_t m_textSent = 0;           // of them
    CrLfFilterIo* m_textStream = nullptr; // the job's
    std::int32_t m_attachment = 0;        // index of the current one
    CBase64FilterIo m_lines;              // over its stream
};

void CMimeComposer::Begin(CMail& job)
{
    m_job = &job;
    m_phase = Phase::Head;
    m_failed = false;
    m_text.Assign("");
    m_textSent = 0;
    m_attachment = 0;
}

Pulled CMimeComposer::Next(char* room, std::int32_t size)
{
    Room rest = {room, size};
    while (!m_failed && m_phase != Phase::Complete && rest.left >= CBase64FilterIo::kOneLine &&
           PutOut(rest)) {
        switch (m_phase) {
        case Phase::Head:
            ComposeHead(rest);
            break;
        case Phase::Text:
            ComposeText(rest);
            break;
        case Phase::Attachment:
            BeginAttachment(rest);
            break;
        case Phase::Lines:
            ComposeLines(rest);
            break;
        default:
            m_phase = Phase::Complete;
        }
    }
    const PullState state = m_failed                     ? PullState::Failed
                            : m_phase == Phase::Complete ? PullState::End
                                                         : PullState::More;
    return {size - rest.left, state};
}

// Gives out the short texts. False when the room is full before they are.
bool CMimeComposer::PutOut(Room& room)
{
    const std::string_view rest = m_text.View().substr(m_textSent);
    const std::size_t count = std::min(rest.size(), static_cast<std::size_t>(room.left));
    std::copy_n(rest.data(), count, room.place);
    room.Use(static_cast<std::int32_t>(count));
    m_textSent += count;
    if (count < rest.size()) {
        return false;
    }
    m_text.Assign("");
    m_textSent = 0;
    return room.left >= CBase64FilterIo::kOneLine;
}

void CMimeComposer::Fail(int code, const char* text, const SourcePlace& where)
{
    m_failed = true;
    Trace(TraceLevel::Error, "%s", text);
    RaiseError(code, text, where);
}

// Short texts go where they go out from, as far as they fit.
void CMimeComposer::Put(Room& room, std::initializer_list<std::string_view> pieces)
{
    for (const std::string_view piece : pieces) {
        if (m_text.IsEmpty() && piece.size() <= static_cast<std::size_t>(room.left)) {
            std::copy(piece.begin(), piece.end(), room.place);
            room.Use(static_cast<std::int32_t>(piece.size()));
        } else {
            m_text.Append(piece);
        }
    }
}

void CMimeComposer::ComposeHead(Room& room)
{
    // One boundary for the life of the loaded library; drawn, so that it tells nothing of its address space.
    static constinit CDrawnOnce drawn;
    char number[16];
    const auto* const end =
        std::to_chars(std::begin(number), std::end(number), drawn.Get() & 0x7FFFFFFFU).ptr;
    m_boundary = "velmail";
    m_boundary.Append(std::string_view(number, static_cast<std::size_t>(end - number)));
    const std::string_view boundary = m_boundary.View();
    const std::string_view type = m_job->Text().GetContentType().View();
    const bool hasCharset = type.find("charset") != std::string_view::npos;
    Put(room, {"Content-Type: multipart/mixed;boundary=\"", boundary,
               "\"\r\n\r\nMIME-Version: 1.0\r\n--", // that field stands in the preamble on purpose
               boundary, "\r\nContent-Type: ", type, hasCharset ? "\r\n" : "; charset=ISO-8859-1\r\n",
               "Content-Transfer-Encoding: 8bit\r\n\r\n"});
    m_textStream = m_job->Text().OpenStream();
    m_phase = Phase::Text;
    if (m_textStream == nullptr) {
        Fail(codes::kInternal, "ERROR: Internal Program Error.");
    }
}

void CMimeComposer::ComposeText(Room& room)
{
    std::int32_t count = room.left;
    if (!m_textStream->ReadText(room.place, count)) {
        Fail(codes::kMailText, kCannotRead);
        return;
    }
    room.Use(count);
    if (count > 0) {
        return;
    }
    if (!m_job->Text().IsDelivered()) {
        Fail(codes::kMailText, kCannotRead);
        return;
    }
    Put(room, {"\r\n"});
    m_phase = Phase::Attachment;
}

void CMimeComposer::PutHeader(Room& room, const CMailAttachment& attachment, std::string_view line)
{
    const std::string_view name = FileNamePart(attachment.GetName().View());
    Put(room, {"--", m_boundary.View(), "\r\nContent-Type: ", attachment.GetMimeType().View(), "; name=\"",
               name, "\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: inline; filename=\"",
               name, "\"\r\n\r\n", line});
}

void CMimeComposer::BeginAttachment(Room& room)
{
    if (m_attachment == m_job->Attachments().GetCount()) {
        Put(room, {"--", m_boundary.View(), "--\r\n"});
        m_phase = Phase::LastBoundary;
        return;
    }
    CMailAttachment& attachment = *m_job->Attachments().At(m_attachment);
    IOElement* const stream = attachment.OpenStream();
    if (stream == nullptr) {
        Fail(codes::kAttachment, kCannotRead);
        return;
    }
    m_lines.SetInner(stream);
    char line[CBase64FilterIo::kOneLine]; // only an attachment that has one has a header
    std::int32_t count = CBase64FilterIo::kLineCapacity;
    m_lines.Read(line, count);
    if (count == 0) {
        EndAttachment(room);
        return;
    }
    PutHeader(room, attachment, {line, static_cast<std::size_t>(count)});
    m_phase = Phase::Lines;
}

void CMimeComposer::ComposeLines(Room& room)
{
    std::int32_t count = room.left;
    m_lines.ReadLines(room.place, count);
    room.Use(count);
    if (count == 0) {
        EndAttachment(room);
    }
}

void CMimeComposer::EndAttachment(Room& room)
{
    if (!m_job->Attachments().At(m_attachment)->IsDelivered()) {
        Fail(codes::kAttachment, kCannotRead);
        return;
    }
    ++m_attachment;
    Put(room, {"\r\n"}); // for an attachment without a byte this is all
    m_phase = Phase::Attachment;
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
        if (message.AddRecipient(type, address)) {
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
        RaiseError(codes::kSession, text.CStr());
        return false;
    }
    m_session = std::make_unique<CSMTPMailSession>(std::make_unique<CMimeComposer>());
    SetTransportTrace(TraceSink);
    if (!m_session->Create(info)) {
        m_session->Destroy(); // one that is not aimed at its server must not be sent through
        return false;
    }
    return true;
}

bool CSMTPMailService::PrepareMessage(CMail& mail, std::int32_t recipient)
{
    CSMTPMailMessage* const message = m_session->AddMessage(mail.GetSubject(), mail);
    if (message == nullptr) {
        return false;
    }
    const CMailAddress& sender = mail.Sender();
    message->SetField("From", sender.GetFullName().CStr(), sender.GetMailbox().CStr());
    CallTransport(smtp_set_reverse_path, message->Get(), sender.GetMailbox().CStr());

    // The transport leaves Content-* to the composed text and refuses these two; what it shows is its own
    // rule.
    const CEString& type = mail.Text().GetContentType();
    CallTransport(smtp_set_header, message->Get(), "Content-Type",
                  type.IsEmpty() ? "text/plain" : type.CStr());
    CallTransport(smtp_set_header_option, message->Get(), "Content-Type", Hdr_OVERRIDE, 1);

    const bool one = mail.IsMessagePerRecipient();
    AddRecipients(*message, RecipientType::To, mail.To(), one ? recipient : 0,
                  one ? recipient + 1 : mail.To().GetCount());
    AddRecipients(*message, RecipientType::Cc, mail.Cc(), 0, mail.Cc().GetCount());
    AddRecipients(*message, RecipientType::Bcc, mail.Bcc(), 0, mail.Bcc().GetCount());

    const CMailAddress& replyTo = mail.ReplyTo();
    if (!replyTo.GetMailbox().IsEmpty()) {
        message->SetField("Reply-To", replyTo.GetFullName().CStr(), replyTo.GetMailbox().CStr());
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
    mail.CountReads();
    return PrepareMessages(mail) && m_session->Start(mail);
}

bool CSMTPMailService::Disconnect()
{
    m_session.reset();
    return true;
}
