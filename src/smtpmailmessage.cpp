#include "src/smtpmailmessage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src-baselib/tracefile.h"
#include "src/mail.h"
#include "src/mailaddress.h"
#include "src/transport/messagefeed.h"
#include "src/transport/transporttrace.h"

namespace {

// The transport cuts a command at 1023 characters; a cut mailbox could be somebody else's.
constexpr std::size_t kLongestMailbox = 1000;

struct TypeRow
{
    const char* header;
    int code;
    const char* recipientPrefix;
    const char* headerPrefix;
};
constexpr TypeRow kTypes[] = {
    {"To", codes::kNoRecipient, "Failed to add Recipient to message! Possibly invalid Recipient string >>> ",
     "Failed to add To Recipient to message header! Possibly invalid To Recipient string >>> "},
    {"Cc", codes::kNoCcRecipient,
     "Failed to add CC Recipient to message! Possibly invalid CC Recipient string >>> ",
     "Failed to add CC Recipient to message! Possibly invalid CC Recipient string >>> "},
    {"Bcc", codes::kNoBccRecipient,
     "Failed to add BCC Recipient to message! Possibly invalid BCC Recipient string >>> ",
     "Failed to add BCC Recipient to message! Possibly invalid BCC Recipient string >>> "},
};
constexpr const char* kUnknownTypeText = "Failed to set any recipient! Please check your property settings";

const TypeRow* FindType(RecipientType type)
{
    const auto index = static_cast<std::size_t>(type);
    return index < std::size(kTypes) ? &kTypes[index] : nullptr;
}

void RaiseForType(const TypeRow* row, const char* prefix, const CEString& text,
                  const SourcePlace& where = SourcePlace::Here())
{
    if (row == nullptr) {
        RaiseError(codes::kNoKnownRecipient, kUnknownTypeText, where);
        return;
    }
    CEString message(prefix);
    message.Append(text.View());
    message.Append(" <<<");
    RaiseError(row->code, message.CStr(), where);
}

// Whether it can stand between "<" and ">" in a command and be nothing but the mailbox.
bool IsUsableMailbox(std::string_view mailbox)
{
    constexpr unsigned char kDelete = 127;
    bool quoted = false;
    bool escaped = false; // by a backslash, within quotes
    for (const char c : mailbox) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == kDelete || (!quoted && (c == ' ' || c == '<' || c == '>'))) {
            return false;
        }
        quoted = quoted != (c == '"' && !escaped);
        escaped = quoted && c == '\\' && !escaped;
    }
    return !mailbox.empty() && mailbox.size() <= kLongestMailbox && !quoted;
}

bool IsSuccess(const smtp_status_t* status)
{
    return status != nullptr && status->code >= 200 && status->code <= 299;
}

// A reply that broke off leaves its code behind, but no text: that is no refusal.
bool IsRefusal(const smtp_status_t* status)
{
    return status != nullptr && status->code >= 400 && status->code <= 599 && status->text != nullptr;
}

void TellRefusal(CMail& job, const char* mailbox, const smtp_status_t& status)
{
    char text[512] = "";
    std::strncpy(text, status.text == nullptr ? "" : status.text, sizeof text - 1);
    std::replace_if(
        std::begin(text), std::end(text), [](char c) { return c == '\r' || c == '\n'; }, ' ');
    static constexpr const char* kLine = "Warning: The server refused the recipient '%s': %d %s";
    Trace(TraceLevel::Warning, kLine, mailbox, status.code, text);
    if (CTraceFile* const protocol = job.GetProtocol()) {
        protocol->Warning(kLine, mailbox, status.code, text);
    }
}

// The server's words. Where it gives enhanced codes the transport takes them out, but for what is none.
std::string WordsOf(const smtp_status_t& status)
{
    const std::string_view text = status.text == nullptr ? "" : status.text;
    const std::string kind = std::to_string(status.enh_class);
    const bool none =
        status.enh_class != status.code / 100 || (status.enh_detail == 0 && text.starts_with(kind));
    return (none ? std::string()
                 : kind + "." + std::to_string(status.enh_subject) + "." + std::to_string(status.enh_detail) +
                       " ")
        .append(text);
}

} // namespace

CSMTPMailMessage::CSMTPMailMessage(smtp_message_t message, CMail& job, smtp_messagecb_t callback,
                                   CMessageFeed& feed)
    : m_message(message), m_job(&job), m_feed(feed)
{
    if (smtp_set_messagecb(m_message, callback, this) == 0) {
        TraceTransport("No message callback found \n");
    }
}

const char* CSMTPMailMessage::GiveText(int* length)
{
    if (m_job == nullptr) {
        return TellTransport(nullptr, EINVAL);
    }
    return length == nullptr ? m_feed.Begin(*m_job, m_fieldCount) : m_feed.Next(*length);
}

bool CSMTPMailMessage::AddRecipient(RecipientType type, const CMailAddress& address)
{
    const TypeRow* const row = FindType(type);
    const CEString& mailbox = address.GetMailbox();
    Recipient& added = m_recipients.emplace_back(Recipient{nullptr, &address});
    if (IsUsableMailbox(mailbox.View())) {
        added.transport = CallTransport(smtp_add_recipient, m_message, mailbox.CStr());
    }
    if (added.transport == nullptr) {
        RaiseForType(row, row == nullptr ? "" : row->recipientPrefix, mailbox);
    }
    return added.transport != nullptr;
}

bool CSMTPMailMessage::SetRecipientHeader(RecipientType type, const CEString& text)
{
    const TypeRow* const row = FindType(type);
    const bool set = row != nullptr && CallTransport(smtp_set_header, m_message, row->header,
                                                     static_cast<const char*>(nullptr), text.CStr()) != 0;
    m_fieldCount += set ? 1 : 0;
    if (!set) {
        RaiseForType(row, row == nullptr ? "" : row->headerPrefix, text);
    }
    if (type == RecipientType::To) {
        CallTransport(smtp_set_header_option, m_message, "To", Hdr_OVERRIDE, 1);
    }
    return set;
}

// The one rule that held for every broken dialogue: the transport's result, error number and events do not
// tell.
CSMTPMailMessage::Judgement CSMTPMailMessage::Judge(smtp_recipient_t recipient) const
{
    const smtp_status_t* const own = smtp_recipient_status(recipient);
    const smtp_status_t* const transfer = smtp_message_transfer_status(m_message);
    const smtp_status_t* const reversePath = smtp_reverse_path_status(m_message);
    if (smtp_recipient_check_complete(recipient) != 0 && IsSuccess(own) && IsSuccess(transfer)) {
        return {Delivery::Sent, transfer};
    }
    for (const smtp_status_t* const status : {own, transfer, reversePath}) {
        if (IsRefusal(status)) {
            return {Delivery::Refused, status};
        }
    }
    return {Delivery::BrokenOff, nullptr};
}

Delivery CSMTPMailMessage::Settle() const
{
    Delivery worst = Delivery::Sent;
    for (const Recipient& recipient : m_recipients) {
        if (recipient.transport != nullptr) {
            const Judgement judgement = Judge(recipient.transport);
            if (judgement.delivery == Delivery::Refused) {
                TellRefusal(*m_job, recipient.address->GetMailbox().CStr(), *judgement.status);
            }
            worst = std::max(worst, judgement.delivery);
        }
    }
    return worst;
}

void CSMTPMailMessage::Report(CDeliveryReport& report, int code, std::string_view words) const
{
    for (const Recipient& recipient : m_recipients) {
        const std::string_view mailbox = recipient.address->GetMailbox().View();
        if (recipient.transport == nullptr) {
            report.Add(mailbox, 0, "not sent: the mailbox cannot stand in a command");
        } else if (const smtp_status_t* const status = Judge(recipient.transport).status) {
            report.Add(mailbox, status->code, WordsOf(*status));
        } else {
            report.Add(mailbox, code, words);
        }
    }
}
