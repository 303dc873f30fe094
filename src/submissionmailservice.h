// Delivery to a submission server: a secured connection and a login, made when the host connects and kept
// until it disconnects, and standard messages. Each send is told to the host at once, with the server's
// words.
#pragma once

#include <memory>

#include "src/mailservice.h"
#include "src/submission/connection.h"
#include "src/submission/dialogue.h"

class CStandardComposer;

class CSubmissionMailService : public CMailService
{
public:
    CSubmissionMailService() = default;
    // Ends the connection without a word: this may be the end of the thread or of the process.
    ~CSubmissionMailService() override = default;

    // Connects and logs in. Errors 10, 100, 653 to 655, 664, 665, 669 to 679, 682, 697.
    bool Connect(const CMailConnectionInfo& info) override;
    // Sends the mail, each message of it to all of its recipients or to none.
    bool Send(CMail& mail) override;
    // Always succeeds.
    bool Disconnect() override;
    [[nodiscard]] const CEString& GetServiceText() const override { return m_name; }
    [[nodiscard]] bool TellsAtOnce() const override { return true; }

private:
    // The same connection again where it still stands, else a new one.
    [[nodiscard]] SubmissionFailure HaveConnection(const CSendProgress& progress);
    [[nodiscard]] SubmissionFailure OpenConnection(const CSendProgress& progress);
    SubmissionFailure SendMessage(CMail& mail, CStandardComposer& composer, std::int32_t message);

    const CurlLibrary* m_curl = nullptr; // null: there was no successful connect
    SubmissionSettings m_settings;
    CSubmissionConnection m_connection;
    std::unique_ptr<CSubmissionDialogue> m_dialogue; // over the open connection
    CEString m_name = "SUBMISSION";
};
