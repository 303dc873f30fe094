// Delivery through the user's own mail client, by Simple MAPI. Where there is no such client the logon of the
// constructor fails and nothing can be sent. The client may show dialogs and block the calling thread; its
// library is never unloaded and its session never logged off.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "src-baselib/privatefile.h"
#include "src/mailservice.h"
#include "src/mapi/mapiplatform.h"
#include "src/mapi/simplemapi.h"

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
    // Logs on at once; the state tells the result. `tryLogonDialog` allows more than the first, silent
    // attempt; `resolveNames` has the client look up the sender's and the recipients' names.
    CMapiMailService(bool tryLogonDialog, bool resolveNames,
                     std::unique_ptr<CMapiPlatform> platform = MakeMapiPlatform());

    // Always succeeds: the constructor has logged on. With `info.showDialog` the client shows each mail
    // before it sends it.
    bool Connect(const CMailConnectionInfo& info) override;
    // True also when the user cancelled the mail in the client.
    bool Send(CMail& mail) override;
    // Removes the files that memory attachments were handed over in.
    bool Disconnect() override;
    [[nodiscard]] const CEString& GetServiceText() const override { return m_name; }
    [[nodiscard]] MapiState GetState() const { return m_state; }

private:
    struct Outgoing; // a mail on its way

    // The client's functions, null until they are found.
    struct Functions
    {
        CMapiPlatform::Function initialize = nullptr;
        MapiLogonFunction* logon = nullptr;
        CMapiPlatform::Function logonEx = nullptr;
        CMapiPlatform::Function logoff = nullptr;
        MapiSendMailFunction* sendMail = nullptr;
        MapiResolveNameFunction* resolveName = nullptr;
        MapiFreeBufferFunction* freeBuffer = nullptr;
        CMapiPlatform::Function uninitialize = nullptr;
    };

    bool Logon();
    bool BindLibrary();
    template<class Function>
    bool Find(const char* name, Function*& function);

    bool Compose(CMail& mail, Outgoing& outgoing);
    static bool AddAttachments(CMail& mail, Outgoing& outgoing);
    static bool ChoosePath(CMailAttachment& attachment, Outgoing& outgoing, CEString& path);
    static bool AddText(CMail& mail, Outgoing& outgoing);
    void AddSender(const CMail& mail, Outgoing& outgoing);
    bool AddRecipients(const CMail& mail, Outgoing& outgoing);
    void FillRecipient(const CMailAddress& address, MapiRecipDesc& recipient, Outgoing& outgoing);
    // The client's entry for a name, null when it knows none or is not to be asked.
    MapiRecipDesc* Resolve(const char* name);
    void Free(MapiRecipDesc* entry);

    CEString m_name = "MAPI";
    std::unique_ptr<CMapiPlatform> m_platform;
    MapiHandle m_session = 0;
    MapiHandle m_window = 0; // the dialogs have no parent
    MapiState m_state = MapiState::NotTried;
    bool m_tryLogonDialog;
    bool m_resolveNames;
    bool m_showDialog = false;
    std::uintptr_t m_library = 0;
    Functions m_functions;
    // Of mails that were sent: the client may still be reading them.
    std::vector<std::unique_ptr<CPrivateFile>> m_handedOver;
};
