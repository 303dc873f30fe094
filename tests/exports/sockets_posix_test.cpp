// What a host sees of the transport's connections beside its own, and of its sessions.
#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host.h"
#include "smtpserver.h"
#include "velmail.h"

namespace {
std::atomic<int> g_destroyed = 0;
} // namespace

// Stands before libESMTP's own in this program.
extern "C" [[gnu::visibility("default")]] int smtp_destroy_session(void* session)
{
    ++g_destroyed;
    return reinterpret_cast<int (*)(void*)>(dlsym(RTLD_NEXT, "smtp_destroy_session"))(session);
}

namespace {

// What a careless sender might switch of a descriptor: its modes and its options.
std::map<std::string, int> OptionsOf(int descriptor)
{
    static const std::tuple<const char*, int, int> options[] = {
        {"TCP_NODELAY", IPPROTO_TCP, TCP_NODELAY},  {"TCP_CORK", IPPROTO_TCP, TCP_CORK},
        {"SO_KEEPALIVE", SOL_SOCKET, SO_KEEPALIVE}, {"SO_LINGER", SOL_SOCKET, SO_LINGER},
        {"SO_REUSEADDR", SOL_SOCKET, SO_REUSEADDR}, {"TCP_USER_TIMEOUT", IPPROTO_TCP, TCP_USER_TIMEOUT}};
    std::map<std::string, int> values = {
        {"modes", fcntl(descriptor, F_GETFL) * 2 + fcntl(descriptor, F_GETFD)}};
    for (const auto& [name, level, option] : options) {
        linger value = {};
        socklen_t length = sizeof value;
        values[name] = getsockopt(descriptor, level, option, &value, &length) == 0 ? value.l_onoff : -1;
    }
    return values;
}

std::string PeerPort(int descriptor)
{
    sockaddr_in peer = {};
    socklen_t length = sizeof peer;
    const bool known = getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
    return known && peer.sin_family == AF_INET ? std::to_string(ntohs(peer.sin_port)) : "";
}

// A connection of the host's own that has led the dialogue of `commands` and written `text` behind it.
int Converse(const std::string& port, const std::vector<std::string>& commands, std::size_t text, int flags)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(descriptor, reinterpret_cast<sockaddr*>(&server), sizeof server), 0);
    std::array<char, 1000> reply = {};
    EXPECT_GT(recv(descriptor, reply.data(), reply.size(), 0), 0);
    for (const std::string& command : commands) {
        EXPECT_GT(send(descriptor, (command + "\r\n").data(), command.size() + 2, 0), 0);
        EXPECT_GT(recv(descriptor, reply.data(), reply.size(), 0), 0);
    }
    EXPECT_EQ(send(descriptor, std::string(text, 'x').data(), text, 0), static_cast<ssize_t>(text));
    fcntl(descriptor, F_SETFL, flags);
    return descriptor;
}

int SendText(const std::string& port, std::size_t size)
{
    static const std::string lines(600000, '\n'); // each becomes CR LF
    return Deliver(
        SmallMail(port, {{"MailTextMemoryAddress", Block(std::string_view(lines).substr(0, size / 2))}}));
}

// Two servers, one of them with CHUNKING, and the transport's connection as it was at each step of a
// dialogue.
class CSockets
{
public:
    // The last one's at that step; -1: it was none, or has no such option.
    int At(const std::string& step, const char* option)
    {
        const std::lock_guard lock(m_mutex);
        return m_options[step].contains(option) ? m_options[step][option] : -1;
    }
    int Last()
    {
        const std::lock_guard lock(m_mutex);
        return m_last;
    }
    // A descriptor of the host's.
    void Hold(int descriptor)
    {
        const std::lock_guard lock(m_mutex);
        m_foreign[descriptor] = OptionsOf(descriptor);
    }
    void ExpectUnchanged(const std::string& when)
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [descriptor, options] : m_foreign) {
            EXPECT_EQ(OptionsOf(descriptor), options) << when << ": " << descriptor;
        }
    }

private:
    CServerRule Rule(const std::string& step, const std::string& reply, std::size_t nth = 0)
    {
        return {.match = step, .nth = nth, .reply = reply, .before = [=, this] { Look(step); }};
    }
    void Look(const std::string& step)
    {
        const std::lock_guard lock(m_mutex);
        for (int i = 0; i < 1024; ++i) {
            const std::string peer = m_foreign.contains(i) ? "" : PeerPort(i);
            if (peer == data.Port() || peer == chunks.Port()) {
                m_last = i;
                m_options[step] = OptionsOf(i);
            }
        }
    }

    std::mutex m_mutex;
    int m_last = -1;
    std::map<std::string, std::map<std::string, int>> m_options;
    std::map<int, std::map<std::string, int>> m_foreign;

public:
    CScriptedServer data = CScriptedServer({Rule("DOT", "250 ok\r\n")});
    // The ninth chunk of a mail is refused.
    CScriptedServer chunks = CScriptedServer({Rule("LAST", "250 ok\r\n"),
                                              Rule("BDAT", "250 ok\r\n", 3),
                                              {.match = "BDAT", .nth = 9, .reply = "552 full\r\n"},
                                              Rule("QUIT", "221 bye\r\n")},
                                             {.extensions = {"CHUNKING"}});
};

TEST(Sockets, AreSwitchedWhereTheyAreTheTransportsAlone)
{
    CSockets sockets;
    const std::string& port = sockets.data.Port();
    std::thread([&] {
        constexpr std::size_t kText = 5000; // goes out in two pieces of 2,048 bytes and a rest
        constexpr std::size_t kPieces = 4096;
        // With no other connection: the first of the process is found, too.
        EXPECT_EQ(SendText(port, kText), 0);
        EXPECT_EQ(sockets.At("DOT", "TCP_NODELAY"), 1);
        std::vector<std::string> dialogue = sockets.data.Commands(1);
        dialogue.resize(std::min<std::size_t>(dialogue.size(), 4)); // EHLO, MAIL, RCPT, DATA
        ASSERT_EQ(dialogue.back(), "DATA");
        const std::vector<std::string> hello(dialogue.begin(), dialogue.begin() + 1);
        const std::vector<std::string> envelope(dialogue.begin(), dialogue.begin() + 3);
        std::vector<std::string> refused = dialogue;
        refused.at(2).front() = 'X';
        CScriptedServer other;
        const struct
        {
            const char* what;
            const std::string& port;
            const std::vector<std::string>& commands;
            std::size_t text;
            int flags;
        } connections[] = {{"greeted", port, hello, 0, O_NONBLOCK},
                           {"before its text", port, dialogue, 0, O_NONBLOCK},
                           // the same in all but one thing
                           {"within a piece", port, dialogue, kPieces + 100, O_NONBLOCK},
                           {"with another answer", port, refused, kPieces, O_NONBLOCK},
                           {"blocking", port, dialogue, kPieces, 0},
                           {"another server's", other.Port(), dialogue, kPieces, O_NONBLOCK},
                           {"blocking, before chunks", sockets.chunks.Port(), envelope, 0, 0},
                           {"another server's, before chunks", other.Port(), envelope, 0, O_NONBLOCK}};
        std::vector<int> descriptors;
        for (const int listening : {socket(AF_INET, SOCK_STREAM, 0), socket(AF_UNIX, SOCK_STREAM, 0)}) {
            listen(listening, 1);
            sockets.Hold(listening);
            descriptors.push_back(listening);
        }
        for (const auto& connection : connections) {
            // In place of the transport's last one, where it looks first.
            EXPECT_EQ(SendText(connection.port == other.Port() ? port : connection.port, kText), 0);
            const int own = dup2(STDERR_FILENO, sockets.Last()); // before another takes the number
            const int made =
                Converse(connection.port, connection.commands, connection.text, connection.flags);
            dup2(made, own);
            close(made);
            sockets.Hold(own);
            descriptors.push_back(own);
            for (const std::size_t size : {100U, 5000U}) {
                EXPECT_EQ(SendText(port, size), 0);
                EXPECT_EQ(sockets.At("DOT", "TCP_NODELAY"), size > 2048 ? 1 : 0) << connection.what;
                sockets.ExpectUnchanged(connection.what);
            }
            for (const std::size_t size : {100U, 5000U, 200000U}) {
                EXPECT_EQ(SendText(sockets.chunks.Port(), size), 0);
                EXPECT_EQ(sockets.At("LAST", "TCP_NODELAY"), 1) << connection.what;
                EXPECT_EQ(sockets.At("LAST", "TCP_CORK"), 0) << connection.what;
                sockets.ExpectUnchanged(connection.what);
            }
            EXPECT_EQ(sockets.At("BDAT", "TCP_CORK"), 1) << connection.what; // within a long mail
        }
        EXPECT_EQ(SendText(sockets.chunks.Port(), 600000), 0);
        EXPECT_EQ(sockets.At("QUIT", "TCP_CORK"), 0); // nothing waits after a refusal
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) {
            threads.emplace_back([to = i % 2 == 0 ? port : sockets.chunks.Port()] {
                for (const std::size_t size : {100U, 5000U, 30000U, 5000U}) {
                    EXPECT_EQ(SendText(to, size), 0);
                }
            });
        }
        std::ranges::for_each(threads, &std::thread::join);
        sockets.ExpectUnchanged("threads");
        std::ranges::for_each(descriptors, &close);
    }).join();
}

TEST(Session, IsMadeAnewAfterAHundredMessages)
{
    CScriptedServer server;
    std::thread([&] {
        Set(SmallMail(server.Port()));
        EXPECT_EQ(VelMailConnect(), 1);
        g_destroyed = 0;
        for (int i = 1; i <= 201; ++i) {
            EXPECT_EQ(VelMailSend(), 1);
            EXPECT_EQ(g_destroyed, (i - 1) / 100) << i;
        }
        EXPECT_EQ(VelMailDisconnect(), 1);
    }).join();
    EXPECT_EQ(server.Mails().size(), 201U);
}

} // namespace
