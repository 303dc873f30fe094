#include "tools/hostoptions.h"

#include <array>
#include <cstddef>

#include "tools/hostoutcome.h"

namespace {

constexpr std::array kProperties = {
    PropertyInfo{"MailSenderMailBox", PropertyKind::Text, "sender's address; not required for MAPI"},
    PropertyInfo{"MailSenderFullName", PropertyKind::Text, "sender's display name; the address when empty"},
    PropertyInfo{"MailRecipientsMailBox", PropertyKind::List, "To addresses"},
    PropertyInfo{"MailRecipientsFullName", PropertyKind::List, "To display names, by position"},
    PropertyInfo{"MailCCRecipientsMailBox", PropertyKind::List, "Cc addresses"},
    PropertyInfo{"MailCCRecipientsFullName", PropertyKind::List, "Cc display names, by position"},
    PropertyInfo{"MailBCCRecipientsMailBox", PropertyKind::List, "Bcc addresses"},
    PropertyInfo{"MailBCCRecipientsFullName", PropertyKind::List, "Bcc display names, by position"},
    PropertyInfo{"MailRecipientCheck", PropertyKind::Text,
                 "1 (default): a bad or missing recipient stops the send"},
    PropertyInfo{"MailReplyToMailBox", PropertyKind::Text, "Reply-To address"},
    PropertyInfo{"MailReplyToFullName", PropertyKind::Text, "Reply-To display name"},
    PropertyInfo{"MailSubject", PropertyKind::Text, "subject; required"},
    PropertyInfo{"MailTextFilename", PropertyKind::Text, "file that holds the mail text"},
    PropertyInfo{"MailTextMemoryAddress", PropertyKind::Blocks,
                 "mail text from memory; wins over MailTextFilename"},
    PropertyInfo{"MailTextContentType", PropertyKind::Text,
                 "content type of the text; by the file's name if empty"},
    PropertyInfo{"MailAttachmentFilename", PropertyKind::List,
                 "files to attach, or names of those in memory"},
    PropertyInfo{"MailAttachmentMemoryAddress", PropertyKind::Blocks,
                 "attachments from memory, one for each name"},
    PropertyInfo{"MailAttachmentMimeType", PropertyKind::List,
                 "MIME types, by position; else text/plain (SUBMISSION: by name)"},
    PropertyInfo{"MailAdditionalSMTPHeader", PropertyKind::Text, "header lines, sent by SUBMISSION only"},
    PropertyInfo{"UseBulkMail", PropertyKind::Flag, "1: one message for each To recipient (not by MAPI)"},
    PropertyInfo{"MailProtocol", PropertyKind::Text, "SMTP (also when empty), SUBMISSION or MAPI"},
    PropertyInfo{"MailServer", PropertyKind::Text, "mail server; localhost when empty"},
    PropertyInfo{"MailServerPort", PropertyKind::Text, "its port; 25 when empty, 587 for SUBMISSION"},
    PropertyInfo{"MailAuthLogin", PropertyKind::Text, "login of SUBMISSION; none when empty"},
    PropertyInfo{"MailAuthPassword", PropertyKind::Secret,
                 "its password or token; @FILE: the file's first line"},
    PropertyInfo{"MailWorkSpace", PropertyKind::Text,
                 "working folder of the send, for its text and attachments"},
    PropertyInfo{"MailTraceFilename", PropertyKind::Text,
                 "protocol file of the send (job.trc or \"job.trc;ERROR\")"},
    PropertyInfo{"MailDialog", PropertyKind::Flag, "1: MAPI resolves names"},
    PropertyInfo{"MailLogonDialog", PropertyKind::Flag, "1: MAPI may show the client's logon dialog"},
    PropertyInfo{"MailResolveName", PropertyKind::Flag, "kept; no delivery reads it"},
    PropertyInfo{"MailAvailable", PropertyKind::ReadOnly, "MailNone, MailActive or MailDeactivated (MAPI)"},
    PropertyInfo{"MailSecurity", PropertyKind::Text,
                 "SUBMISSION: STARTTLS, TLS (also when empty, port 465) or NONE"},
    PropertyInfo{"MailSecurityCAFile", PropertyKind::Text,
                 "SUBMISSION: PEM file trusted instead of the system's"},
    PropertyInfo{"MailAuthMechanism", PropertyKind::Text,
                 "SUBMISSION: PLAIN, LOGIN, CRAM-MD5, XOAUTH2 or OAUTHBEARER"},
    PropertyInfo{"MailCharset", PropertyKind::Text, "SUBMISSION: UTF-8, ISO-8859-1 or WINDOWS-1252"},
    PropertyInfo{"MailDeliveryReport", PropertyKind::ReadOnly,
                 "what the server said of each recipient, after a send"},
    PropertyInfo{"MailProgressMemoryAddress", PropertyKind::Host,
                 "24 bytes of the host's memory; this program uses its own"},
    PropertyInfo{"MailTimeout", PropertyKind::Text, "seconds that the server may stay silent, 1 to 86400"},
};

constexpr const char* kUsage = R"(Usage: velmail [OPTION ...] Name=Value ...
       velmail [--library PATH] [Name=Value ...] --get Name ...
       velmail [--library PATH] --version
       velmail --help

Sets the properties of one mail, connects, sends the mail and disconnects, and says what became of it.

  --quiet          print errors alone: no result of a mail that was sent, no progress
  --trace FILE     keep the trace of the library in FILE (or "FILE;DEBUG"), as VEL_MAILTRACE=FILE does
  --library PATH   load this library, not the one that belongs to the program
  --get Name       print the value of a property after the settings and send nothing; may be repeated
  --version        print the versions of the program and of the library, and where that was loaded from
  --help           print this text

The exit status:
  0  every recipient's server said yes
  1  the mail could not be built: a setting or a file is wrong
  2  wrong usage
  3  the server refused a recipient or the mail; each refusal is printed with the server's words
  4  no connection, or it was lost, or it could not be secured
  5  the login was refused
  6  cancelled with Ctrl-C: the server has no mail, but for messages of UseBulkMail that it had before

Properties (names are case-sensitive, values are passed on byte for byte, of repeated settings the last
counts; parts of a list are separated by ";" without blanks; a flag is a number):

)";

constexpr const char* kNotes = R"(
Name=@FILE is for the two properties of kind @file: FILE is read at once and handed over in memory.
 - MailTextMemoryAddress=@FILE sends FILE as the mail text. Given again, the files are joined.
 - MailAttachmentMemoryAddress=@FILE attaches FILE. Given again, each file becomes an attachment of its own.
   They are named after their files, or by MailAttachmentFilename, which then needs one name for each.
   Attachments come either all from memory or all from files.

Over SMTP those recipients whom the server did not refuse get the mail; with SUBMISSION a refusal of one is one for
all. The reason of a failure is read from a trace, in a private temporary file unless one is named.

Examples:
  velmail MailServer=mail.example.org MailServerPort=25 MailSenderMailBox=me@example.org \
          "MailRecipientsMailBox=you@example.org;them@example.org" "MailSubject=The minutes" \
          MailTextFilename=minutes.txt MailAttachmentFilename=plan.pdf MailAttachmentMimeType=application/pdf
  velmail MailProtocol=SUBMISSION MailServer=mail.example.com MailAuthLogin=me@example.com \
          MailAuthPassword=@password.txt MailSenderMailBox=me@example.com MailRecipientsMailBox=you@example.com \
          MailSubject=Hello MailTextFilename=letter.txt
)";

const char* KindText(PropertyKind kind)
{
    switch (kind) {
    case PropertyKind::Text:
        return "text";
    case PropertyKind::List:
        return "list";
    case PropertyKind::Flag:
        return "flag";
    case PropertyKind::Blocks:
        return "@file";
    case PropertyKind::Secret:
        return "text";
    case PropertyKind::ReadOnly:
        return "read";
    case PropertyKind::Host:
        return "text";
    }
    return "";
}

// The arguments still to be read, with the values of options as "--option VALUE" or "--option=VALUE".
class CArgumentReader
{
public:
    explicit CArgumentReader(const std::vector<std::string>& arguments) : m_arguments(arguments) {}

    bool Next()
    {
        if (m_next == m_arguments.size()) {
            return false;
        }
        m_current = m_arguments[m_next++];
        return true;
    }

    [[nodiscard]] const std::string& Current() const { return m_current; }

    bool TakeOption(const std::string& option, std::string& value)
    {
        if (m_current.starts_with(option + "=")) {
            value = m_current.substr(option.size() + 1);
        } else if (m_current == option && Next()) {
            value = m_current;
        } else if (m_current == option) {
            value.clear();
        } else {
            return false;
        }
        if (value.empty()) {
            throw CHostFailure("'" + option + "' needs a value; try --help", ExitStatus::Usage);
        }
        return true;
    }

private:
    const std::vector<std::string>& m_arguments;
    std::size_t m_next = 0;
    std::string m_current;
};

Setting ReadSetting(const std::string& argument)
{
    const std::size_t separator = argument.find('=');
    if (argument.starts_with("-")) {
        throw CHostFailure("unknown option '" + argument + "'; try --help", ExitStatus::Usage);
    }
    if (separator == std::string::npos || separator == 0) {
        throw CHostFailure("'" + argument + "' is not of the form Name=Value; try --help", ExitStatus::Usage);
    }
    return {argument.substr(0, separator), argument.substr(separator + 1)};
}

} // namespace

HostOptions ReadOptions(const std::vector<std::string>& arguments)
{
    HostOptions options;
    CArgumentReader reader(arguments);
    std::string query;
    while (reader.Next()) {
        if (reader.Current() == "--help" || reader.Current() == "-h") {
            options.action = HostAction::Help;
            return options;
        }
        if (reader.Current() == "--version") {
            options.action = HostAction::Version;
        } else if (reader.Current() == "--quiet") {
            options.quiet = true;
        } else if (reader.TakeOption("--trace", options.trace)) {
            continue;
        } else if (reader.TakeOption("--get", query)) {
            options.queries.push_back(query);
        } else if (!reader.TakeOption("--library", options.library)) {
            options.settings.push_back(ReadSetting(reader.Current()));
        }
    }
    if (options.action == HostAction::Version) {
        return options;
    }
    if (options.settings.empty() && options.queries.empty()) {
        throw CHostFailure("there is nothing to send; try --help", ExitStatus::Usage);
    }
    options.action = options.queries.empty() ? HostAction::Send : HostAction::Get;
    return options;
}

const PropertyInfo* FindProperty(const std::string& name)
{
    for (const PropertyInfo& property : kProperties) {
        if (name == property.name) {
            return &property;
        }
    }
    return nullptr;
}

std::string HelpText()
{
    std::string text = kUsage;
    for (const PropertyInfo& property : kProperties) {
        std::string line = std::string("  ") + property.name;
        line.resize(31, ' ');
        line += KindText(property.kind);
        line.resize(38, ' ');
        text += line + property.meaning + "\n";
    }
    return text + kNotes;
}
