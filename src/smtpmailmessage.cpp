#include "src/smtpmailmessage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src-baselib/tracefile.h"
#include "src/mail.h"
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

// Called through the transport's frames, so it needs no memory and throws nothing.
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

struct Settlement
{
    smtp_message_t message;
    CMail& job;
    Delivery worst;
};

// The one rule that held for every broken dialogue: the transport's result, error number and events do not
// tell.
void SettleRecipient(smtp_recipient_t recipient, const char* mailbox, void* argument)
{
    auto& settlement = *static_cast<Settlement*>(argument);
    const smtp_status_t* const own = smtp_recipient_status(recipient);
    const smtp_status_t* const transfer = smtp_message_transfer_status(settlement.message);
    const smtp_status_t* const reversePath = smtp_reverse_path_status(settlement.message);

    Delivery delivery = Delivery::BrokenOff;
    if (smtp_recipient_check_complete(recipient) != 0 && IsSuccess(own) && IsSuccess(transfer)) {
        delivery = Delivery::Sent;
    } else {
        for (const smtp_status_t* const status : {own, transfer, reversePath}) {
            if (delivery == Delivery::BrokenOff && IsRefusal(status)) {
                delivery = Delivery::Refused;
                TellRefusal(settlement.job, mailbox, *status);
            }
        }
    }
    settlement.worst = std::max(settlement.worst, delivery);
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

bool CSMTPMailMessage::AddRecipient(RecipientType type, const CEString& mailbox)
{
    const TypeRow* const row = FindType(type);
    m_lastRecipient = IsUsableMailbox(mailbox.View())
                          ? CallTransport(smtp_add_recipient, m_message, mailbox.CStr())
                          : nullptr;
    if (m_lastRecipient == nullptr) {
        RaiseForType(row, row == nullptr ? "" : row->recipientPrefix, mailbox);
    }
    return m_lastRecipient != nullptr;
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

Delivery CSMTPMailMessage::Settle() const
{
    Settlement settlement = {m_message, *m_job, Delivery::Sent};
    smtp_enumerate_recipients(m_message, SettleRecipient, &settlement);
    return settlement.worst;
}
