// What tests of the submission path share: its servers and its hosts.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host.h"
#include "smtpserver.h"

inline const std::string& Authority()
{
    static const CTempFolder folder;
    static const std::string file = folder.Write("authority.pem", CertificatePem());
    return file;
}

// With STARTTLS or TLS at once; in clear text where the server has no TLS.
inline CServerOptions Secured(bool atOnce = false, std::vector<std::string> extensions = {})
{
    return {.extensions = std::move(extensions),
            .startTls = ServesTls() && !atOnce,
            .tlsAtOnce = ServesTls() && atOnce};
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
