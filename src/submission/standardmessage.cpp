#include "src/submission/standardmessage.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <utility>

#include "src-baselib/cepaths.h"
#include "src-baselib/errorcodes.h"
#include "src-baselib/platform.h"
#include "src-baselib/report.h"
#include "src-baselib/tracefile.h"
#include "src/submission/additionalheader.h"
#include "src/submission/ascii.h"
#include "version.h"

namespace {

constexpr const char* kTextFailed = "The mail text could not be read to its end.";
constexpr const char* kAttachmentFailed = "This attachment could not be read to its end: ";
constexpr std::int32_t kBase64Line = CBase64FilterIo::kLineCapacity + 2;

// The zone is the difference between the local time and the clock; both are read within the minute.
std::string DateField()
{
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    using namespace std::chrono;
    const platform::LocalTime now = platform::GetLocalTime();
    const sys_days day = year(now.year) / now.month / now.day;
    const sys_seconds local = sys_seconds(day) + hours(now.hour) + minutes(now.minute) + seconds(now.second);
    const auto east = round<minutes>(local.time_since_epoch() - seconds(platform::GetClockTime().seconds));
    const int zone = static_cast<int>(abs(east).count());
    char text[80];
    std::snprintf(text, sizeof text, "Date: %s, %02d %s %04d %02d:%02d:%02d %c%02d%02d\r\n",
                  kDays[weekday(day).c_encoding()], now.day, kMonths[now.month - 1], now.year, now.hour,
                  now.minute, now.second, east < minutes(0) ? '-' : '+', zone / 60, zone % 60);
    return text;
}

// What no quoted-printable and no base64 line holds, so that only a text that goes as it is could have it.
std::string DrawBoundary()
{
    std::random_device random;
    char text[40];
    std::snprintf(text, sizeof text, "=_velmail_%08x%08x", random(), random());
    return text;
}

// Whether the mailbox stands in a header field and in an envelope for itself alone.
bool IsSendable(std::string_view mailbox)
{
    constexpr std::size_t kLongest = 320;
    return !mailbox.empty() && mailbox.size() <= kLongest &&
           std::all_of(mailbox.begin(), mailbox.end(), [](char c) {
               return IsVisible(c) && std::string_view("<>()\",;\\").find(c) == std::string_view::npos;
           });
}

} // namespace

bool CStandardComposer::Refuse(int code, const char* what, std::string_view given,
                               const SourcePlace& where) const
{
    const std::string text = what + WithoutControls(given);
    RaiseError(code, text.c_str(), where);
    if (m_job->GetProtocol() != nullptr) {
        m_job->GetProtocol()->Error("Error: %s", text.c_str());
    }
    return false;
}

bool CStandardComposer::Prepare(CMail& job, std::string_view messageId)
{
    m_job = &job;
    m_state = PullState::Failed;
    m_messageId = messageId;
    if (!ParseCharset(job.GetCharset().View(), m_charset)) {
        return Refuse(codes::kInvalidValue,
                      "Property 'MailCharset' has a value that cannot be used: ", job.GetCharset().View());
    }
    if (!ReadAdditionalHeader(job.GetAdditionalHeader().View(), m_charset, m_additional)) {
        return Refuse(codes::kInvalidValue, "Property 'MailAdditionalSMTPHeader', line ", m_additional);
    }
    return CheckAddresses() && CheckAttachments() && PrepareText();
}

// Those of the recipients: the host may have left them unchecked, which the others never are.
bool CStandardComposer::CheckAddresses() const
{
    for (const CMail::Addresses* const list : {&m_job->To(), &m_job->Cc(), &m_job->Bcc()}) {
        for (std::int32_t i = 0; i < list->GetCount(); ++i) {
            const std::string_view mailbox = list->At(i)->GetMailbox().View();
            if (!IsSendable(mailbox)) {
                return Refuse(codes::kInvalidAddress, "Not an address that can be sent: ", mailbox);
            }
        }
    }
    return true;
}

bool CStandardComposer::CheckAttachments() const
{
    for (std::int32_t i = 0; i < m_job->Attachments().GetCount(); ++i) {
        const CEString& type = m_job->Attachments().At(i)->GetMimeType();
        ContentType parsed;
        if (!type.IsEmpty() && !ParseContentType(type.View(), parsed)) {
            return Refuse(codes::kInvalidValue, "Not a content type for an attachment: ", type.View());
        }
    }
    return true;
}

bool CStandardComposer::PrepareText()
{
    const CEString& type = m_job->Text().GetContentType();
    if (!ParseContentType(type.IsEmpty() ? "text/plain" : type.View(), m_textType)) {
        return Refuse(codes::kInvalidValue, "Not a content type for the mail text: ", type.View());
    }
    CTextScan scan;
    IOElement* const stream = m_job->Text().OpenStream();
    for (std::int32_t count = kTextChunk; count > 0;) {
        count = kTextChunk;
        if (!stream->Read(m_text, count)) {
            return Refuse(codes::kMailText, kTextFailed);
        }
        scan.Add({m_text, static_cast<std::size_t>(count)});
    }
    stream->Close();
    if (!m_job->Text().IsDelivered()) {
        return Refuse(codes::kMailText, kTextFailed);
    }
    m_plainText = scan.IsPlain();
    m_textSize = scan.EncodedSize();
    if (m_textType.IsComposite() && !m_plainText) {
        return Refuse(codes::kInvalidValue,
                      "A mail text of several parts must be ASCII in lines of at most 998 characters.");
    }
    if (m_textType.Is("text/") && !m_textType.Has("charset")) {
        m_textType.parameters.emplace_back("charset", CharsetLabel(m_charset, scan.IsUtf8()));
    }
    return true;
}

std::int64_t CStandardComposer::EstimateSize()
{
    if (m_boundary.empty()) { // all are of one length
        m_boundary = DrawBoundary();
    }
    m_header = Header();
    std::int64_t size = m_textSize + static_cast<std::int64_t>(m_header.size());
    for (std::int32_t i = 0; i < m_job->Attachments().GetCount(); ++i) {
        const CMailAttachment& attachment = *m_job->Attachments().At(i);
        const std::int64_t bytes = attachment.GetContentSize();
        if (bytes < 0) {
            return -1;
        }
        constexpr std::int64_t kBytesPerLine = CBase64FilterIo::kLineCapacity / 4 * 3;
        size += (bytes + kBytesPerLine - 1) / kBytesPerLine * kBase64Line;
        size += static_cast<std::int64_t>(AttachmentHeader(attachment).size());
    }
    return size + static_cast<std::int64_t>(m_boundary.size()) + 8; // the last one
}

void CStandardComposer::AppendAddress(const CMailAddress& address, bool last, CHeaderFolder& fields) const
{
    const std::string mailbox(address.GetMailbox().View());
    const char* const separator = last ? "" : ",";
    if (address.GetFullName().IsEmpty() || address.GetFullName() == address.GetMailbox()) {
        const bool bare = CMailAddress::IsValidAddress(address.GetMailbox());
        fields.Add((bare ? mailbox : "<" + mailbox + ">") + separator);
        return;
    }
    fields.AddPhrase(ToUtf8(address.GetFullName().View(), m_charset));
    fields.Add("<" + mailbox + ">" + separator);
}

// The addresses from `first` to the one before `end`; no field where there is none.
void CStandardComposer::AppendAddresses(const char* name, const CMail::Addresses& list, std::int32_t first,
                                        std::int32_t end, CHeaderFolder& fields) const
{
    if (first < end) {
        fields.Begin(name);
        for (std::int32_t i = first; i < end; ++i) {
            AppendAddress(*list.At(i), i + 1 == end, fields);
        }
        fields.End();
    }
}

std::string CStandardComposer::Header() const
{
    std::string out = DateField();
    CHeaderFolder fields(out);
    const auto appendAddress = [&](const char* name, const CMailAddress& address) {
        fields.Begin(name);
        AppendAddress(address, true, fields);
        fields.End();
    };
    appendAddress("From:", m_job->Sender());
    if (!m_job->ReplyTo().GetMailbox().IsEmpty()) {
        appendAddress("Reply-To:", m_job->ReplyTo());
    }
    const bool one = m_only >= 0;
    AppendAddresses("To:", m_job->To(), one ? m_only : 0, one ? m_only + 1 : m_job->To().GetCount(), fields);
    AppendAddresses("Cc:", m_job->Cc(), 0, m_job->Cc().GetCount(), fields);
    if (m_job->To().GetCount() + m_job->Cc().GetCount() == 0) {
        out += "To: undisclosed-recipients:;\r\n"; // a mail with nobody in sight looks like spam
    }
    fields.Begin("Subject:");
    fields.AddText(ToUtf8(m_job->GetSubject().View(), m_charset));
    fields.End();
    out += "Message-ID: <" + (one ? std::to_string(m_only) + "." + m_messageId : m_messageId);
    out += ">\r\nMIME-Version: 1.0\r\nX-User-Agent: VEL Mail " VELMAIL_VERSION "\r\n" + m_additional;
    if (m_job->Attachments().GetCount() > 0) {
        out += "Content-Type: multipart/mixed;\r\n boundary=\"" + m_boundary + "\"\r\n\r\n--" + m_boundary;
        out += "\r\n";
    }
    out += m_textType.Field() + "\r\nContent-Transfer-Encoding: ";
    return out += m_plainText ? "7bit\r\n\r\n" : "quoted-printable\r\n\r\n";
}

ContentType CStandardComposer::TypeOf(const CMailAttachment& attachment) const
{
    ContentType type;
    const CEString& given = attachment.GetMimeType();
    const char* const known = ContentTypeOfFile(FileNamePart(attachment.GetName().View()));
    if (!ParseContentType(given.IsEmpty() ? known : given.View(), type) || type.IsComposite()) {
        type = {"application/octet-stream", {}}; // those must not be encoded, and attachments are
    }
    return type;
}

std::string CStandardComposer::AttachmentHeader(const CMailAttachment& attachment) const
{
    const std::string name = ToUtf8(FileNamePart(attachment.GetName().View()), m_charset);
    const ContentType type = TypeOf(attachment);
    std::string header = "\r\n--" + m_boundary + "\r\n" + type.Field();
    if (!name.empty() && !type.Has("name")) {
        header += OldFileNameParameter(name);
    }
    header += "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment";
    if (!name.empty()) {
        header += FileNameParameter(name);
    }
    return header += "\r\n\r\n";
}

void CStandardComposer::Begin(CMail& job)
{
    m_job = &job;
    m_state = PullState::Failed; // should it end here for want of memory
    if (job.Attachments().GetCount() > 0) {
        m_boundary = DrawBoundary();
    }
    m_step = Step::Header;
    m_header.clear();
    m_pending.clear();
    m_sent = 0;
    m_stream = nullptr;
    m_attachment = 0;
    m_textEncoder.Begin(m_plainText);
    m_state = PullState::More;
}

Pulled CStandardComposer::Next(char* room, std::int32_t size)
{
    if (m_state != PullState::More) {
        return {0, m_state};
    }
    m_state = PullState::Failed; // as above
    std::int32_t used = 0;
    while (used < size) {
        std::int32_t count = size - used;
        if (m_sent < m_pending.size()) {
            count = static_cast<std::int32_t>(
                m_pending.copy(room + used, static_cast<std::size_t>(count), m_sent));
            m_sent += static_cast<std::size_t>(count);
            used += count;
            continue;
        }
        m_pending.clear();
        m_sent = 0;
        if (m_step == Step::Complete || (m_step == Step::Attachment && count <= kBase64Line)) {
            break;
        }
        if (m_step == Step::Attachment) { // whose lines go to where they are wanted
            m_lines.ReadLines(room + used, count);
            used += count;
        }
        if (!(m_step == Step::Attachment ? count > 0 || EndAttachment() : Compose())) {
            return {0, PullState::Failed};
        }
    }
    m_state = used == 0 ? PullState::End : PullState::More;
    return {used, m_state};
}

bool CStandardComposer::Compose()
{
    switch (m_step) {
    case Step::Header:
        m_pending = m_header.empty() ? Header() : std::exchange(m_header, {});
        m_stream = m_job->Text().OpenStream();
        m_step = Step::Text;
        return true;
    case Step::Text:
        return ComposeText();
    default:
        return BeginAttachment();
    }
}

bool CStandardComposer::ComposeText()
{
    std::int32_t count = kTextChunk;
    if (!m_stream->Read(m_text, count)) {
        return Refuse(codes::kMailText, kTextFailed);
    }
    if (count > 0) {
        return m_textEncoder.Add({m_text, static_cast<std::size_t>(count)}, m_pending) ||
               Refuse(codes::kMailText, "The mail text was changed while it was sent.");
    }
    if (!m_job->Text().IsDelivered()) {
        return Refuse(codes::kMailText, kTextFailed);
    }
    // Before a boundary stands a line end that belongs to it: the text keeps the end it has.
    const bool alone = m_job->Attachments().GetCount() == 0;
    m_textEncoder.End(alone, m_pending);
    m_step = alone ? Step::Complete : Step::AttachmentHeader;
    return true;
}

bool CStandardComposer::BeginAttachment()
{
    if (m_attachment == m_job->Attachments().GetCount()) {
        m_pending = "\r\n--" + m_boundary + "--\r\n";
        m_step = Step::Complete;
        return true;
    }
    CMailAttachment& attachment = *m_job->Attachments().At(m_attachment);
    m_stream = attachment.OpenStream();
    if (m_stream == nullptr) {
        return Refuse(codes::kAttachment, kAttachmentFailed, attachment.GetName().View());
    }
    m_lines.SetInner(m_stream);
    m_pending = AttachmentHeader(attachment);
    m_step = Step::Attachment;
    return true;
}

bool CStandardComposer::EndAttachment()
{
    const CMailAttachment& attachment = *m_job->Attachments().At(m_attachment);
    if (!attachment.IsDelivered()) {
        return Refuse(codes::kAttachment, kAttachmentFailed, attachment.GetName().View());
    }
    m_stream->Close(); // of many attachments one is open
    ++m_attachment;
    m_step = Step::AttachmentHeader;
    return true;
}
