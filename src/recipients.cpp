#include "src/recipients.h"

#include <algorithm>
#include <new>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

namespace {

struct Kind
{
    const CSeparatedStringProperty& mailboxes;
    const CSeparatedStringProperty& fullNames;
    CMail::Addresses& addresses;
    const char* malformed; // begins the message about a malformed mailbox
};

Kind KindOf(RecipientType type, const CLiveMailProperties& properties, CMail& mail)
{
    switch (type) {
    case RecipientType::Cc:
        return {properties.mailCCRecipientsMailBox, properties.mailCCRecipientsFullName, mail.Cc(),
                "The eMail address of the CC Recipient "};
    case RecipientType::Bcc:
        return {properties.mailBCCRecipientsMailBox, properties.mailBCCRecipientsFullName, mail.Bcc(),
                "The eMail address of the BCC Recipient "};
    default:
        return {properties.mailRecipientsMailBox, properties.mailRecipientsFullName, mail.To(),
                "The eMail address of the Recipient "};
    }
}

bool Refuse(const CEString& text, const SourcePlace& where = SourcePlace::Here())
{
    Trace(TraceLevel::Error, "Error: %s", text.CStr());
    RaiseError(codes::kNoRecipient, text.CStr(), where);
    return false;
}

bool AddAddress(const Kind& lists, std::int32_t index)
{
    try {
        lists.addresses.Add(std::make_unique<CMailAddress>(
            lists.mailboxes.GetPart(index), HeaderValue(lists.fullNames, lists.fullNames.GetPart(index))));
        return true;
    } catch (const std::bad_alloc&) {
        Trace(TraceLevel::Error, "Error: Not enough memory!");
        RaiseError(codes::kNotEnoughMemory, "Not enough memory!");
        return false;
    }
}

} // namespace

CEString HeaderValue(const CProperty& property, const CEString& value)
{
    constexpr std::string_view kLineEnds = "\r\n";
    std::string_view rest = value.View();
    if (rest.find_first_of(kLineEnds) == std::string_view::npos) {
        return value;
    }
    Trace(TraceLevel::Warning, "Warning: Line ends in property '%s' are replaced by blanks.",
          property.GetName().CStr());
    CEString clean;
    while (!rest.empty()) {
        const std::size_t run = std::min(rest.find_first_of(kLineEnds), rest.size());
        clean.Append(rest.substr(0, run));
        rest.remove_prefix(run);
        if (!rest.empty()) {
            clean.Append(" ");
            rest.remove_prefix(std::min(rest.find_first_not_of(kLineEnds), rest.size()));
        }
    }
    return clean;
}

bool AddRecipients(RecipientType kind, const CLiveMailProperties& properties, CMail& mail)
{
    const Kind lists = KindOf(kind, properties, mail);
    const std::int32_t count = std::max(lists.mailboxes.GetPartCount(), lists.fullNames.GetPartCount());
    if (kind == RecipientType::To && count == 0 && properties.mailRecipientCheck.IsTrue()) {
        return Refuse(
            "At least one of Properties 'MailRecipientsMailBox' and 'MailRecipientsFullName' has to be "
            "set. There is no recipient.");
    }
    for (std::int32_t i = 0; i < count; ++i) {
        const CEString& mailbox = lists.mailboxes.GetPart(i);
        const bool given = i < lists.mailboxes.GetPartCount();
        if (given && !CMailAddress::IsValidAddress(mailbox) && properties.mailRecipientCheck.IsTrue()) {
            CEString text(lists.malformed);
            text.Append(mailbox.View());
            text.Append(" is not a correct eMail address.");
            return Refuse(text);
        }
        if (!AddAddress(lists, i)) {
            return false;
        }
    }
    return true;
}
