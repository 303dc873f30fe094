// Follows what libcurl and the server say to each other until the login is done, and judges it: libcurl
// passes over a login that is not offered, skips lines that are no SMTP, and keeps the server's words to
// itself. It also keeps the login out of the trace. One connection.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "src/submission/dialogue.h"
#include "src/submission/failure.h"
#include "src/submission/replyreader.h"

class CLoginWatch
{
public:
    void Sent(std::string_view line);
    // False: the connection must end, for the reason in GetFailure.
    [[nodiscard]] bool Received(std::string_view line);
    // What of it may be traced.
    [[nodiscard]] std::string_view Shown(std::string_view line) const;

    [[nodiscard]] const SubmissionFailure& GetFailure() const { return m_failure; }
    [[nodiscard]] const SubmissionOffer& GetOffer() const { return m_offer; }
    // The server has said that the login is done.
    [[nodiscard]] bool IsLoggedIn() const { return m_loggedIn; }
    // It was asked to log in.
    [[nodiscard]] bool HasAskedLogin() const { return m_askedLogin; }
    // It has agreed to encryption.
    [[nodiscard]] bool HasAgreedTls() const { return m_agreedTls; }

private:
    enum class Step : std::uint8_t
    {
        Nothing, // asked
        Connect,
        Ehlo,
        StartTls,
        Login,
        Other
    };
    bool Judge(const SubmissionReply& reply);
    bool Fail(int code, const char* text, const SubmissionReply* reply);

    CReplyReader m_reader;
    Step m_step = Step::Connect;
    bool m_hidden = false; // the lines are the login's
    bool m_loggedIn = false;
    bool m_askedLogin = false;
    bool m_agreedTls = false;
    SubmissionOffer m_offer;
    SubmissionFailure m_failure;
};
