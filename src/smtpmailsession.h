// One session of the transport with its connection settings, its authentication context and the messages
// added to it. Each send adds its messages and starts the session; they stay in it until it is destroyed or,
// after a send that was not delivered whole, made anew. Belongs to one thread.
#pragma once

#include <memory>

#include "src-baselib/cestring.h"
#include "src-baselib/pointerarray.h"
#include "src/transport/libesmtp.h"
#include "src/transport/messagefeed.h"
#include "src/mailservice.h"
#include "src/smtpmailmessage.h"
#include "src/transport/dialoguemonitor.h"
#include "src/transport/transportsocket.h"

class CSMTPMailSession
{
public:
    // `composer` composes the text of the session's messages.
    explicit CSMTPMailSession(std::unique_ptr<CMessageSource> composer);
    CSMTPMailSession(const CSMTPMailSession&) = delete;
    CSMTPMailSession& operator=(const CSMTPMailSession&) = delete;
    virtual ~CSMTPMailSession();

    // Makes the transport's session and its authentication context for these settings, which are kept. An
    // empty host or port leaves the present one. The server is not contacted. Error 697.
    bool Create(const CMailConnectionInfo& info);
    // A new message with the header fields every mail carries; owned by this session. Null after error 698,
    // or code 0 when there is no session of the transport.
    CSMTPMailMessage* AddMessage(const CEString& subject, CMail& job);
    // Begins a send: after one that was not delivered whole the transport's session is made anew, since it
    // would send the old messages again, and so it is after many that were. False when that is not possible.
    bool BeginSend();
    // Runs the dialogue for the messages added since BeginSend. True when every recipient was sent the mail
    // or refused by the server; otherwise the error of the failed dialogue is raised. Each recipient gets its
    // line in the job's report, unless the dialogue could not begin.
    bool Start(CMail& job);
    // Ends a send: its job will not be read again.
    void EndSend();
    void Destroy();

    [[nodiscard]] const CEString& GetHost() const { return m_info.server; }
    [[nodiscard]] const CEString& GetPort() const { return m_info.port; }
    // The callback for a message that is one whole text.
    [[nodiscard]] smtp_messagecb_t GetMessageCallback() const { return m_messageCallback; }

private:
    bool Open();
    bool SetServer();
    void SetSilenceLimit();
    bool Settle(CDeliveryReport& report, bool started, int number);
    void Report(CDeliveryReport& report, bool started, int code, const char* connectFailure) const noexcept;
    static void OnEvent(smtp_session_t session, int event, void* argument, ...);

    smtp_session_t m_session = nullptr;
    auth_context_t m_authContext = nullptr;
    CMailConnectionInfo m_info;
    CEString m_hostName; // this machine's
    std::unique_ptr<CMessageSource> m_composer;
    CDialogueMonitor m_monitor;
    CTransportSocket m_socket;
    CMessageFeed m_feed; // of the three before it
    COwnedArray<CSMTPMailMessage> m_messages;
    smtp_messagecb_t m_messageCallback;
    std::int32_t m_firstOfSend = 0; // index of the send's first message
    bool m_mustRenew = false;
    bool m_wasStarted = false;
};

// The transport's callback for authentication; the context is never attached to a session, so no server asks
// for it.
int TestAuthCallback(auth_client_request_t request, char** result, int fields, void* argument);

// The transport's message callback: `message` is the CSMTPMailMessage whose text is wanted. Gives the next
// chunk, valid until the next call; null at the end, with errno 0, or when composition failed, with another
// errno. A null `length` begins the message anew.
const char* ComposeMessageChunk(void** context, int* length, void* message);

// The transport's message callback over a zero-terminated text: hands it over once after each rewind.
const char* WholeTextCallback(void** context, int* length, void* text);

// The library's code for the error number of a session that could not be run.
[[nodiscard]] int StartErrorCode(int number);
