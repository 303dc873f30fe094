// One libESMTP session with its server, its authentication context and the messages added to it. Each send
// adds its messages and starts the session; they stay in it until it is destroyed or, after a send that was
// not delivered whole, made anew. Belongs to one thread.
#pragma once

#include <memory>

#include "src-baselib/cestring.h"
#include "src-baselib/pointerarray.h"
#include "src/libesmtp.h"
#include "src/messagefeed.h"
#include "src/smtpmailmessage.h"
#include "src/smtptrace.h"
#include "src/transportsocket.h"

class CSMTPMailSession
{
public:
    CSMTPMailSession();
    CSMTPMailSession(const CSMTPMailSession&) = delete;
    CSMTPMailSession& operator=(const CSMTPMailSession&) = delete;
    virtual ~CSMTPMailSession();

    // Makes the libESMTP session and its authentication context for the current server. Error 697.
    bool Create();
    // Both texts as they are; a port is always appended to the server. Error 697 without memory.
    bool SetServer(const CEString& host, const CEString& port);
    // A new message with the header fields every mail carries; owned by this session. Null after error 698,
    // or code 0 when there is no libESMTP session.
    CSMTPMailMessage* AddMessage(const CEString& subject, CMail& job);
    // Begins a send: after one that was not delivered whole the libESMTP session is made anew, since it would
    // send the old messages again, and so it is after many that were. False when that is not possible.
    bool BeginSend();
    // Runs the dialogue for the messages added since BeginSend. True when every recipient was sent the mail
    // or refused by the server; otherwise the error of the failed dialogue is raised.
    bool Start();
    // Ends a send: its job will not be read again.
    void EndSend();
    void Destroy();

    // For the message that the transport pulls: begins it anew, and gives its next chunk as CMessageFeed
    // does.
    void RewindMessage(smtp_messagecb_t compose, CMail& job);
    const char* NextChunk(smtp_messagecb_t compose, CMail& job, int& length);
    // The message cannot be completed, for the reason `error` (an errno).
    void FailMessage(int error) { m_feed.Fail(error); }

    [[nodiscard]] const CEString& GetHost() const { return m_host; }
    [[nodiscard]] const CEString& GetPort() const { return m_port; }
    // The callback for a message that is one whole text.
    [[nodiscard]] smtp_messagecb_t GetMessageCallback() const { return m_messageCallback; }

private:
    bool Renew();
    bool Settle(bool started, int number);
    static void OnEvent(smtp_session_t session, int event, void* argument, ...);

    smtp_session_t m_session = nullptr;
    auth_context_t m_authContext = nullptr;
    CMessageFeed m_feed;
    COwnedArray<CSMTPMailMessage> m_messages;
    CEString m_host = "localhost";
    CEString m_port = "25";
    smtp_messagecb_t m_messageCallback;
    CDialogueMonitor m_monitor;
    CTransportSocket m_socket;
    std::int32_t m_firstOfSend = 0; // index of the send's first message
    bool m_mustRenew = false;
};

// libESMTP's callback for authentication; the context is never attached to a session, so no server asks for
// it.
int TestAuthCallback(auth_client_request_t request, char** result, int fields, void* argument);

// libESMTP message callback over a zero-terminated text: hands it over once after each rewind.
const char* WholeTextCallback(void** context, int* length, void* text);

// The library's code for the error number of a session that could not be run.
[[nodiscard]] int StartErrorCode(int number);
