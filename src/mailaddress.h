// A mail address: the bare mailbox and the name shown with it.
#pragma once

#include <string_view>

#include "src-baselib/cestring.h"

class CMailAddress
{
public:
    CMailAddress() = default;
    CMailAddress(const CEString& mailbox, const CEString& fullName) : m_mailbox(mailbox), m_fullName(fullName)
    {
    }
    virtual ~CMailAddress() = default;

    // Whether `address` is a mailbox this system sends to: local part, at sign and a domain of labels that
    // begin with a letter. A narrow subset of the Internet's grammar: no quoting, comments, address literals,
    // blanks.
    [[nodiscard]] static bool IsValidAddress(const CEString& address);

    [[nodiscard]] const CEString& GetMailbox() const { return m_mailbox; }
    [[nodiscard]] const CEString& GetFullName() const { return m_fullName; }
    void SetMailbox(const CEString& mailbox) { m_mailbox = mailbox; }
    void SetFullName(const CEString& fullName) { m_fullName = fullName; }

private:
    CEString m_mailbox;
    CEString m_fullName;
};
