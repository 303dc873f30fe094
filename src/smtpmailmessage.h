// One message of an SMTP session: a thin, error-reporting layer over libESMTP's message with its header
// fields and recipients. Owned by its session; the libESMTP message belongs to the libESMTP session.
#pragma once

#include <cstdint>

#include "src-baselib/cestring.h"
#include "src/libesmtp.h"

class CMail;
class CSMTPMailSession;

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
    CSMTPMailMessage(smtp_message_t message, CMail& job, smtp_messagecb_t callback,
                     CSMTPMailSession& session);
    CSMTPMailMessage(const CSMTPMailMessage&) = delete;
    CSMTPMailMessage& operator=(const CSMTPMailMessage&) = delete;
    virtual ~CSMTPMailMessage() = default;

    // Adds one envelope recipient. Refuses, with the type's error, a mailbox that is empty, has a control
    // character or is longer than a command line takes: it would spoil the dialogue.
    bool AddRecipient(RecipientType type, const CEString& mailbox);
    // Sets the To, Cc or Bcc header field to a prepared address list.
    bool SetRecipientHeader(RecipientType type, const CEString& text);

    // What became of the message in the session that ended just now. Each refusal is a warning in the trace.
    [[nodiscard]] Delivery Settle() const;
    // The job ends: its text is not read again, whatever libESMTP asks for.
    void ForgetJob() { m_job = nullptr; }

    [[nodiscard]] smtp_message_t Get() const { return m_message; }

private:
    static const char* Feed(void** context, int* length, void* argument);

    smtp_message_t m_message;
    smtp_recipient_t m_lastRecipient = nullptr;
    CMail* m_job; // not owned; null when its send has ended
    smtp_messagecb_t m_callback;
    CSMTPMailSession& m_session;
};
