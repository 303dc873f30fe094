#include "src/submission/loginwatch.h"

#include "src-baselib/errorcodes.h"

namespace {
constexpr int kReady = 220;
constexpr int kDone = 250;
constexpr int kLoggedIn = 235;
constexpr int kChallenge = 334;
constexpr int kServiceEnds = 421;
} // namespace

void CLoginWatch::Sent(std::string_view line)
{
    if (m_step == Step::Login) {
        return; // what it says within the login is no command
    }
    m_step = line.starts_with("EHLO")       ? Step::Ehlo
             : line.starts_with("STARTTLS") ? Step::StartTls
             : line.starts_with("AUTH")     ? Step::Login
                                            : Step::Other;
    m_askedLogin = m_askedLogin || m_step == Step::Login;
    m_hidden = m_step == Step::Login;
}

std::string_view CLoginWatch::Shown(std::string_view line) const
{
    return m_hidden ? std::string_view("(login data)\r\n") : line;
}

bool CLoginWatch::Received(std::string_view line)
{
    m_reader.Add(line);
    for (SubmissionReply reply;;) {
        switch (m_reader.Next(reply)) {
        case ReplyState::More:
            return true;
        case ReplyState::Bad:
            return Fail(codes::kInvalidResponse, "The server's answer is not SMTP.", nullptr);
        case ReplyState::Complete:
            m_hidden = m_hidden && reply.code == kChallenge;
            if (!Judge(reply)) {
                return false;
            }
        }
    }
}

bool CLoginWatch::Fail(int code, const char* text, const SubmissionReply* reply)
{
    if (!m_failure.IsSet()) {
        m_failure = {code, text};
        if (reply != nullptr) {
            m_failure.text.append(" ").append(reply->Words());
        }
    }
    return false;
}

bool CLoginWatch::Judge(const SubmissionReply& reply)
{
    const Step step = m_step;
    if (step == Step::Other) {
        return true; // libcurl's leave
    }
    if (step != Step::Login || reply.code != kChallenge) {
        m_step = Step::Nothing;
    }
    if (step == Step::Nothing) {
        return Fail(codes::kInvalidResponse, "The server answers what it was not asked:", &reply);
    }
    if (reply.code == kServiceEnds) {
        return Fail(codes::kDroppedConnection, "The server ends the connection:", &reply);
    }
    const bool fits = step == Step::Connect || step == Step::StartTls ? reply.code == kReady
                      : step == Step::Ehlo                            ? reply.code == kDone
                                           : reply.code == kLoggedIn || reply.code == kChallenge;
    if (!fits && !reply.IsRefusal()) {
        return Fail(codes::kInvalidResponse, "The server's answer does not fit:", &reply);
    }
    if (!fits) {
        return step == Step::StartTls ? Fail(codes::kSecurity, "The server refuses encryption:", &reply)
               : step == Step::Login  ? Fail(codes::kLogin, "The server refused the login:", &reply)
                                      : Fail(codes::kUnknown, "The server refused us:", &reply);
    }
    if (step == Step::Ehlo) {
        m_offer = SubmissionOffer::Read(reply.text);
    }
    m_agreedTls = m_agreedTls || step == Step::StartTls;
    m_loggedIn = m_loggedIn || reply.code == kLoggedIn;
    return true;
}
