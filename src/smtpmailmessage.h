// One message of an SMTP session: a thin, error-reporting layer over the transport's message with its header
// fields and recipients. Owned by its session; that one belongs to the transport's session.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "src-baselib/cestring.h"
#include "src/transport/libesmtp.h"
#include "src/transport/transportcall.h"

class CDeliveryReport;
class CMail;
class CMailAddress;
class CMessageFeed;

enum class RecipientType : std::int32_t
{
    To,
    Cc,
    Bcc
};

// What became of a message, for the worst of its recipients. Refused: the server said so in so many words.
enum class Delivery : std::int32_t
{
    Sent,
    Refused,
    BrokenOff
};

class CSMTPMailMessage
{
public:
    // `job` and `feed` are not owned; `callback` gets this object as its argument.
    CSMTPMailMessage(smtp_message_t message, CMail& job, smtp_messagecb_t callback, CMessageFeed& feed);
    CSMTPMailMessage(const CSMTPMailMessage&) = delete;
    CSMTPMailMessage& operator=(const CSMTPMailMessage&) = delete;
    virtual ~CSMTPMailMessage() = default;

    // Sets a header field; `values` are those of smtp_set_header. Throws std::bad_alloc when it is not set.
    template<class... Values>
    void SetField(const char* name, Values... values)
    {
        if (CallTransport(smtp_set_header, m_message, name, values...) == 0) {
            throw std::bad_alloc();
        }
        ++m_fieldCount;
    }
    // How many header fields the transport has to write.
    [[nodiscard]] int GetFieldCount() const { return m_fieldCount; }
    // Adds one envelope recipient, which must live as long as the job. Refuses, with the type's error, a
    // mailbox that is empty, has a control character or is longer than a command line takes: it would spoil
    // the dialogue. Throws std::bad_alloc without memory.
    bool AddRecipient(RecipientType type, const CMailAddress& address);
    // Sets the To, Cc or Bcc header field to a prepared address list. Throws std::bad_alloc without memory.
    bool SetRecipientHeader(RecipientType type, const CEString& text);

    // What became of the message in the session that ended just now. Each refusal is a warning in the trace.
    [[nodiscard]] Delivery Settle() const;
    // Adds its recipients' lines. For one of whom the server has said nothing stand the code and the words
    // given here. Throws std::bad_alloc without memory.
    void Report(CDeliveryReport& report, int code, std::string_view words) const;
    // Its text for the transport, as the message callback gives it: the next chunk with its length, or the
    // beginning anew for a null `length`.
    const char* GiveText(int* length);
    // The job ends: its text is not read again, whatever the transport asks for.
    void ForgetJob()
    {
        m_job = nullptr;
        m_recipients = {};
    }

    [[nodiscard]] smtp_message_t Get() const { return m_message; }

private:
    struct Recipient
    {
        smtp_recipient_t transport; // null: not added
        const CMailAddress* address;
    };
    // What the server said of a recipient, and what that comes to; no status where it broke off.
    struct Judgement
    {
        Delivery delivery;
        const smtp_status_t* status;
    };
    [[nodiscard]] Judgement Judge(smtp_recipient_t recipient) const;

    smtp_message_t m_message;
    std::vector<Recipient> m_recipients;
    CMail* m_job;         // not owned; null when its send has ended
    int m_fieldCount = 2; // Date is the transport's own, Content-Type comes with the composed text
    CMessageFeed& m_feed;
};
