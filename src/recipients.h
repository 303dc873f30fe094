// Turns the paired lists of mailboxes and full names into the recipients of a mail.
#pragma once

#include "src/mail.h"
#include "src/propmail.h"
#include "src/smtpmailmessage.h"

// Adds the recipients of one kind. False when one is malformed or, for To, when there is none, and
// MailRecipientCheck is on; error 650 is then raised.
[[nodiscard]] bool AddRecipients(RecipientType kind, const CLiveMailProperties& properties, CMail& mail);

// `value` without line ends, which would begin a header field of their own: each run of them becomes one
// blank, with a warning that names the property.
[[nodiscard]] CEString HeaderValue(const CProperty& property, const CEString& value);
