// Sends through the library's ten exports, as a host does: the properties are set once in each thread.
#include "harness.h"

#include <cstdint>
#include <cstdio>
#include <utility>

#include <velmail.h>

namespace {

bool Report(const char* call)
{
    int code = 0;
    char text[128] = "";
    VelMailGetLastError(&code);
    if (code == 0 && VelMailDisconnect() == 0) { // a failed delivery's code surfaces at the next call
        VelMailGetLastError(&code);
    }
    VelMailGetErrorText(code, text, sizeof text);
    std::fprintf(stderr, "%s: error %d: %s\n", call, code, text);
    return false;
}

class VelMailPeer : public Peer
{
public:
    explicit VelMailPeer(const Mail& mail)
    {
        if (mail.textInMemory) {
            m_text = ReadWholeFile(mail.textFile);
            VelMailSetProperty("MailTextMemoryAddress", Block(m_text).c_str());
        }
        if (mail.attachmentInMemory) {
            m_attachment = ReadWholeFile(mail.attachmentFile);
            VelMailSetProperty("MailAttachmentMemoryAddress", Block(m_attachment).c_str());
        }
        std::string recipients;
        for (const std::string& address : Recipients(mail)) {
            recipients.append(recipients.empty() ? "" : ";").append(address);
        }
        const std::pair<const char*, const char*> properties[] = {
            {"MailServer", kServer},
            {"MailServerPort", mail.port.c_str()},
            {"MailSenderMailBox", kSender},
            {"MailRecipientsMailBox", recipients.c_str()},
            {"MailSubject", kSubject},
            {"MailTextFilename", mail.textInMemory ? "" : mail.textFile.c_str()},
            {"MailAttachmentFilename", mail.attachmentFile.c_str()},
            {"MailAttachmentMimeType", mail.attachmentFile.empty() ? "" : "application/octet-stream"},
        };
        for (const auto& [name, value] : properties) {
            VelMailSetProperty(name, value);
        }
        if (!mail.protocol.empty()) {
            VelMailSetProperty("MailProtocol", mail.protocol.c_str());
            VelMailSetProperty("MailSecurity", mail.tls.empty() ? "NONE" : "TLS");
            VelMailSetProperty("MailSecurityCAFile", mail.tls.c_str());
        }
    }

    bool Connect() override { return VelMailConnect() != 0 || Report("VelMailConnect"); }
    bool Send() override { return VelMailSend() != 0 || Report("VelMailSend"); }
    bool Disconnect() override { return VelMailDisconnect() != 0 || Report("VelMailDisconnect"); }

private:
    static std::string Block(const std::string& memory)
    {
        return std::to_string(reinterpret_cast<std::uintptr_t>(memory.data())) + ";" +
               std::to_string(memory.size());
    }

    std::string m_text;
    std::string m_attachment;
};

} // namespace

std::unique_ptr<Peer> MakePeer(const Mail& mail)
{
    return std::make_unique<VelMailPeer>(mail);
}
