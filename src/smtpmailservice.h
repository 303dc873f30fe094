// Delivery over SMTP: turns a mail job into the messages of a session and composes their text, a
// multipart/mixed document of one 8-bit text part and a base64 part for each attachment, in fixed memory.
#pragma once

#include <memory>

#include "src/mailservice.h"
#include "src/smtpmailsession.h"

class CSMTPMailService : public CMailService
{
public:
    CSMTPMailService() = default;
    // As Disconnect.
    ~CSMTPMailService() override { CSMTPMailService::Disconnect(); }

    // Makes the session; the server is not contacted before Send. Error 697.
    bool Connect(const CMailConnectionInfo& info) override;
    bool Send(CMail& mail) override;
    // Always succeeds.
    bool Disconnect() override;
    [[nodiscard]] const CEString& GetServiceText() const override { return m_name; }

private:
    bool PrepareMessage(CMail& mail, std::int32_t recipient);
    bool PrepareMessages(CMail& mail);

    std::unique_ptr<CSMTPMailSession> m_session; // null until connect
    CEString m_name = "SMTP";
};

// The message callback in libESMTP's form: `job` is the CMail to compose. Gives the next chunk of the calling
// thread's message, of at most CompositionState::kCapacity bytes, valid until the next call; null at its end,
// with errno 0, or when composition failed, with another errno. A null `length` begins the message anew.
const char* ComposeMessageChunk(void** context, int* length, void* job);
