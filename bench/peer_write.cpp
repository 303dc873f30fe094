// Sends with nothing but system calls: the least dialogue that SMTP allows around write() of the composed
// text, which lies in memory. What the machine and the sink can do at most.
#include "harness.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kWriteSize = 65536;

// A file's content, mapped and brought into memory.
class MappedFile
{
public:
    explicit MappedFile(const std::string& name)
    {
        const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status = {};
        fstat(file, &status);
        m_size = static_cast<std::size_t>(status.st_size);
        m_data = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
        close(file);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile() { munmap(m_data, m_size); }

    [[nodiscard]] std::string_view View() const { return {static_cast<const char*>(m_data), m_size}; }

private:
    void* m_data = nullptr;
    std::size_t m_size = 0;
};

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
    explicit WritePeer(const Mail& mail) : m_mail(mail), m_text(mail.composedFile) {}

    bool Connect() override
    {
        m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        unsigned short port = 0;
        std::from_chars(m_mail.port.data(), m_mail.port.data() + m_mail.port.size(), port);
        address.sin_port = htons(port);
        inet_pton(AF_INET, kServer, &address.sin_addr);
        const int on = 1;
        setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && Expect('2') &&
               Command("EHLO bench\r\n", '2');
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
        close(m_socket);
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
        while (!text.empty()) {
            const ssize_t count = write(m_socket, text.data(), std::min(text.size(), kWriteSize));
            if (count <= 0) {
                std::perror("write");
                return false;
            }
            text.remove_prefix(static_cast<std::size_t>(count));
        }
        return true;
    }

    // The sink sends each answer whole, and none before it is due.
    bool Expect(char wanted)
    {
        char reply[512];
        const ssize_t count = read(m_socket, reply, sizeof reply);
        if (count <= 0 || reply[0] != wanted) {
            std::fprintf(stderr, "unexpected answer\n");
            return false;
        }
        return true;
    }

    Mail m_mail;
    MappedFile m_text;
    int m_socket = -1;
};

} // namespace

std::unique_ptr<Peer> MakePeer(const Mail& mail)
{
    return std::make_unique<WritePeer>(mail);
}
