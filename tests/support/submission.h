// What tests of the submission path share: its servers and its hosts.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host.h"
#include "smtpserver.h"

inline const std::string& Authority()
{
    static const CTempFolder folder;
    static const std::string file = folder.Write("authority.pem", AuthorityPem());
    return file;
}

// With a certificate, STARTTLS or TLS at once; in clear text where the server has no TLS.
inline CServerOptions Secured(ECertificate kind, bool atOnce = false,
                              std::vector<std::string> extensions = {})
{
    CServerOptions options = {std::move(extensions)};
    if (!ServesTls()) {
        return options;
    }
    options.tls = std::make_shared<const CTlsIdentity>(kind);
    options.tlsAtOnce = atOnce;
    return options;
}

inline Settings Submission(const CScriptedServer& server, const Settings& more = {})
{
    Settings all = more;
    all.insert({{"MailProtocol", "SUBMISSION"}, {"MailServer", "localhost"}});
    all.insert(ServesTls() ? Settings::value_type{"MailSecurityCAFile", Authority()}
                           : Settings::value_type{"MailSecurity", "NONE"});
    all.merge(SmallMail(server.Port()));
    return all;
}
