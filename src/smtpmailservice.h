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
