#include "src/smtpmailmessage.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "src-baselib/report.h"
#include "src/smtpmailsession.h"

namespace {

constexpr int kNotEnoughMemory = 10;
// libESMTP cuts a command at 1023 characters; a cut mailbox could be somebody else's.
constexpr std::size_t kLongestMailbox = 1000;

struct TypeRow
{
    const char* header;
    int code;
    const char* recipientPrefix;
    const char* headerPrefix;
};
constexpr TypeRow kTypes[] = {
    {"To", 650, "Failed to add Recipient to message! Possibly invalid Recipient string >>> ",
     "Failed to add To Recipient to message header! Possibly invalid To Recipient string >>> "},
    {"Cc", 692, "Failed to add CC Recipient to message! Possibly invalid CC Recipient string >>> ",
     "Failed to add CC Recipient to message! Possibly invalid CC Recipient string >>> "},
    {"Bcc", 693, "Failed to add BCC Recipient to message! Possibly invalid BCC Recipient string >>> ",
     "Failed to add BCC Recipient to message! Possibly invalid BCC Recipient string >>> "},
};
constexpr int kUnknownTypeCode = 694;
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
        RaiseError(kUnknownTypeCode, kUnknownTypeText, where);
        return;
    }
    CEString message(prefix);
    message.Append(text.View());
    message.Append(" <<<");
    RaiseError(row->code, message.CStr(), where);
}

bool IsUsableMailbox(std::string_view mailbox)
{
    constexpr unsigned char kDelete = 127;
    return !mailbox.empty() && mailbox.size() <= kLongestMailbox &&
           std::none_of(mailbox.begin(), mailbox.end(), [](char c) {
               const auto byte = static_cast<unsigned char>(c);
               return byte < ' ' || byte == kDelete;
           });
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

// Called through libESMTP's frames, so it needs no memory and throws nothing.
void TraceRefusal(const char* mailbox, const smtp_status_t& status)
{
    char text[512] = "";
    std::strncpy(text, status.text == nullptr ? "" : status.text, sizeof text - 1);
    std::replace_if(
        std::begin(text), std::end(text), [](char c) { return c == '\r' || c == '\n'; }, ' ');
    Trace(TraceLevel::Warning, "Warning: The server refused the recipient '%s': %d %s", mailbox, status.code,
          text);
}

struct Settlement
{
    smtp_message_t message;
    Delivery worst;
};

// The one rule that held for every broken dialogue: libESMTP's result, error number and events do not tell.
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
                TraceRefusal(mailbox, *status);
            }
        }
    }
    settlement.worst = std::max(settlement.worst, delivery);
}

} // namespace

CSMTPMailMessage::CSMTPMailMessage(smtp_message_t message, CMail& job, smtp_messagecb_t callback,
                                   CSMTPMailSession& session)
    : m_message(message), m_job(&job), m_callback(callback), m_session(session)
{
    if (smtp_set_messagecb(m_message, &CSMTPMailMessage::Feed, this) == 0) {
        if (const TransportTrace trace = GetTransportTrace()) {
            trace("No message callback found \n");
        }
    }
}

// The callback of libESMTP. No exception may cross its frames.
const char* CSMTPMailMessage::Feed(void** context, int* length, void* argument)
{
    auto& self = *static_cast<CSMTPMailMessage*>(argument);
    *context = nullptr;
    if (length != nullptr) {
        *length = 0;
    }
    if (self.m_job == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        if (length == nullptr) {
            self.m_session.RewindMessage(self.m_callback, *self.m_job);
            return nullptr;
        }
        return self.m_session.NextChunk(self.m_callback, *self.m_job, *length);
    } catch (const std::exception&) {
        self.m_session.FailMessage(ENOMEM);
        try {
            RaiseError(kNotEnoughMemory, "Not enough memory.");
        } catch (const std::exception&) {
            // Not even the trace line could be written; the error itself is pending.
        }
        errno = ENOMEM;
        return nullptr;
    }
}

bool CSMTPMailMessage::AddRecipient(RecipientType type, const CEString& mailbox)
{
    const TypeRow* const row = FindType(type);
    m_lastRecipient =
        IsUsableMailbox(mailbox.View()) ? smtp_add_recipient(m_message, mailbox.CStr()) : nullptr;
    if (m_lastRecipient == nullptr) {
        RaiseForType(row, row == nullptr ? "" : row->recipientPrefix, mailbox);
    }
    return m_lastRecipient != nullptr;
}

bool CSMTPMailMessage::SetRecipientHeader(RecipientType type, const CEString& text)
{
    const TypeRow* const row = FindType(type);
    const bool set = row != nullptr && smtp_set_header(m_message, row->header, nullptr, text.CStr()) != 0;
    if (!set) {
        RaiseForType(row, row == nullptr ? "" : row->headerPrefix, text);
    }
    if (type == RecipientType::To) {
        smtp_set_header_option(m_message, "To", Hdr_OVERRIDE, 1);
    }
    return set;
}

Delivery CSMTPMailMessage::Settle() const
{
    Settlement settlement = {m_message, Delivery::Sent};
    smtp_enumerate_recipients(m_message, SettleRecipient, &settlement);
    return settlement.worst;
}
