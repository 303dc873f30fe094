// Sends with nothing but system calls, or OpenSSL's: the least dialogue that SMTP allows around a write of
// the composed text, which lies in memory. What the machine and the sink can do at most.
#include "harness.h"

#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "line.h"
#include "mappedfile.h"

namespace {

std::string Header()
{
    std::string header = "From: ";
    header.append(kSender).append("\r\nTo: ").append(kRecipient);
    header.append("\r\nSubject: ").append(kSubject).append("\r\nX-User-Agent: ").append(kUserAgent);
    return header.append("\r\nMessage-Id: <").append(MakeMessageId()).append(">\r\n");
}

class WritePeer : public Peer
{
public:
    explicit WritePeer(const Mail& mail)
        : m_mail(mail), m_text(mail.composedFile), m_context(MakeTlsContext(mail.tls, false))
    {
    }

    bool Connect() override
    {
        const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        unsigned short port = 0;
        std::from_chars(m_mail.port.data(), m_mail.port.data() + m_mail.port.size(), port);
        address.sin_port = htons(port);
        inet_pton(AF_INET, kServer, &address.sin_addr);
        const int on = 1;
        setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        m_line.emplace(socket, m_context.get());
        return connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
               m_line->Connect() && Expect('2') && Command("EHLO bench\r\n", '2');
    }

    bool Send() override
    {
        return Command(std::string("MAIL FROM:<") + kSender + ">\r\n", '2') &&
               Command(std::string("RCPT TO:<") + kRecipient + ">\r\n", '2') &&
               (m_mail.chunking ? SendChunk() : SendData());
    }

    bool Disconnect() override
    {
        const bool taken = Command("QUIT\r\n", '2');
        m_line.reset();
        return taken;
    }

private:
    bool SendData()
    {
        return Command("DATA\r\n", '3') && Write(Header()) && Write(m_text.View()) &&
               Command("\r\n.\r\n", '2');
    }

    bool SendChunk()
    {
        const std::string header = Header();
        const std::size_t size = header.size() + m_text.View().size();
        return Write("BDAT " + std::to_string(size) + " LAST\r\n" + header) && Write(m_text.View()) &&
               Expect('2');
    }

    bool Command(std::string_view line, char wanted) { return Write(line) && Expect(wanted); }

    bool Write(std::string_view text)
    {
        if (!m_line->Send(text)) {
            std::perror("write");
            return false;
        }
        return true;
    }

    // The sink sends each answer whole, and none before it is due.
    bool Expect(char wanted)
    {
        char reply[512];
        if (m_line->Receive(reply, sizeof reply) == 0 || reply[0] != wanted) {
            std::fprintf(stderr, "unexpected answer\n");
            return false;
        }
        return true;
    }

    Mail m_mail;
    MappedFile m_text;
    TlsContext m_context;
    std::optional<Line> m_line;
};

} // namespace

std::unique_ptr<Peer> MakePeer(const Mail& mail)
{
    return std::make_unique<WritePeer>(mail);
}
