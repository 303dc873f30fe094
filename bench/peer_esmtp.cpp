// Sends with libESMTP alone, over text that is composed and encoded already: the ceiling that the dependency
// sets. Short mails come from memory, long ones are read from their file.
//
// TCP_NODELAY is set when the last byte is handed over and cleared for the next message. libESMTP does not
// show its socket; this program defines `connect` itself and so sees it.
#include "harness.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <libesmtp.h>

namespace {

constexpr off_t kLongestInMemory = 1 << 20;
constexpr std::size_t kChunkSize = 65536;

thread_local int connectedSocket = -1;

void SetNoDelay(int on)
{
    setsockopt(connectedSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

// The composed text, handed out through libESMTP's callback.
class ComposedText
{
public:
    explicit ComposedText(const Mail& mail)
        : m_file(open(mail.composedFile.c_str(), O_RDONLY | O_CLOEXEC)), m_chunking(mail.chunking)
    {
        struct stat status = {};
        if (fstat(m_file, &status) == 0 && status.st_size <= kLongestInMemory) {
            m_text = ReadWholeFile(mail.composedFile);
        } else {
            m_chunk = std::make_unique<char[]>(kChunkSize);
        }
    }
    ComposedText(const ComposedText&) = delete;
    ComposedText& operator=(const ComposedText&) = delete;
    ~ComposedText() { close(m_file); }

    static const char* Callback(void** context, int* length, void* argument)
    {
        auto& self = *static_cast<ComposedText*>(argument);
        *context = nullptr;
        errno = 0;
        if (length == nullptr) {
            self.Rewind();
            return nullptr;
        }
        const char* const chunk = self.Next(*length);
        if (chunk == nullptr) {
            SetNoDelay(1);
        }
        return chunk;
    }

private:
    void Rewind()
    {
        m_given = false;
        lseek(m_file, 0, SEEK_SET);
        SetNoDelay(m_chunking ? 1 : 0);
    }

    const char* Next(int& length)
    {
        if (m_chunk == nullptr) {
            length = m_given ? 0 : static_cast<int>(m_text.size());
            m_given = true;
            return length > 0 ? m_text.data() : nullptr;
        }
        length = static_cast<int>(read(m_file, m_chunk.get(), kChunkSize));
        return length > 0 ? m_chunk.get() : nullptr;
    }

    int m_file;
    bool m_chunking;
    std::string m_text;
    std::unique_ptr<char[]> m_chunk;
    bool m_given = false;
};

bool Report(const char* call)
{
    char text[128] = "";
    smtp_strerror(smtp_errno(), text, sizeof text);
    std::fprintf(stderr, "%s: %s\n", call, text);
    return false;
}

class EsmtpPeer : public Peer
{
public:
    explicit EsmtpPeer(const Mail& mail) : m_server(kServer), m_text(mail)
    {
        m_server.append(":").append(mail.port);
    }

    bool Connect() override
    {
        m_session = smtp_create_session();
        return (m_session != nullptr && smtp_set_server(m_session, m_server.c_str()) != 0) ||
               Report("smtp_create_session");
    }

    bool Send() override
    {
        smtp_message_t message = smtp_add_message(m_session);
        if (message == nullptr) {
            return Report("smtp_add_message");
        }
        SetHeader(message);
        smtp_set_reverse_path(message, kSender);
        smtp_recipient_t recipient = smtp_add_recipient(message, kRecipient);
        smtp_set_messagecb(message, ComposedText::Callback, &m_text);
        if (smtp_start_session(m_session) == 0 || smtp_recipient_check_complete(recipient) == 0 ||
            smtp_message_transfer_status(message)->code / 100 != 2) {
            return Report("smtp_start_session");
        }
        return true;
    }

    bool Disconnect() override { return smtp_destroy_session(m_session) != 0; }

private:
    static void SetHeader(smtp_message_t message)
    {
        smtp_set_header(message, "Subject", kSubject);
        smtp_set_header(message, "X-User-Agent", kUserAgent);
        smtp_set_header(message, "X-MIME-Version", "1.0");
        for (const char* const name : {"Subject", "X-User-Agent", "X-MIME-Version"}) {
            smtp_set_header_option(message, name, Hdr_OVERRIDE, 1);
        }
        smtp_set_header(message, "Message-Id", MakeMessageId().c_str());
        smtp_set_header(message, "From", kSender, kSender);
        smtp_set_header(message, "To", kRecipient, kRecipient);
    }

    std::string m_server;
    ComposedText m_text;
    smtp_session_t m_session = nullptr;
};

} // namespace

// Stands in for the system's `connect`, in this program only.
extern "C" __attribute__((visibility("default"))) int ConnectAndRemember(int socket, const sockaddr* address,
                                                                         socklen_t length) __asm__("connect");

int ConnectAndRemember(int socket, const sockaddr* address, socklen_t length)
{
    connectedSocket = socket;
    return static_cast<int>(syscall(SYS_connect, socket, address, length));
}

std::unique_ptr<Peer> MakePeer(const Mail& mail)
{
    return std::make_unique<EsmtpPeer>(mail);
}
