// Delivery through the user's own mail client. On systems without its library the logon of the constructor
// fails with error 60 and nothing can be sent.
#pragma once

#include <cstdint>

#include "src/mailservice.h"

enum class MapiState : std::int32_t
{
    NotTried = 0,
    NotAvailable = 1,
    LoggedOn = 2,
    LogonFailed = 3
};

class CMapiMailService : public CMailService
{
public:
    // Logs on at once; the state tells the result.
    CMapiMailService(bool tryLogonDialog, bool resolveNames);

    // Always succeeds: the constructor has logged on.
    bool Connect(const CMailConnectionInfo& info) override;
    bool Send(CMail& mail) override;
    bool Disconnect() override { return true; }
    [[nodiscard]] const CEString& GetServiceText() const override { return m_name; }
    [[nodiscard]] MapiState GetState() const { return m_state; }

private:
    bool Logon();
    bool BindLibrary();

    CEString m_name = "MAPI";
    MapiState m_state = MapiState::NotTried;
};
