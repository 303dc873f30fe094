// A fast SMTP server for measurements: takes every mail at once, stores nothing, counts mails and bytes.
//
// bench_sink [--chunking] [--pipelining] [--delay MILLISECONDS] [--tls PEMFILE]
//
// With a delay each answer arrives as late as over a link with that round trip, while the sink goes on
// taking what comes. With TLS, which begins with the connection, there is no delay.
//
// Listens on a free port of 127.0.0.1 and prints it as its first line. Each line on standard input is
// answered with "mails bytes seconds", the totals so far, seconds those of the processor; the end of standard
// input ends the program. A fixed pool of threads serves one connection each; more of them wait. Sockets keep
// the system's defaults, so that no sender is favoured.
#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
#include <sys/socket.h>

#include "line.h"
#include "processor.h"

namespace {

constexpr int kWorkers = 32;
constexpr std::size_t kBufferSize = 262144;
constexpr std::string_view kEnd = "\r\n.\r\n";

struct Totals
{
    std::atomic<std::uint64_t> mails = 0;
    std::atomic<std::uint64_t> bytes = 0; // of message data, final dot included
};

struct Extensions
{
    bool chunking = false;
    bool pipelining = false;
    std::chrono::milliseconds delay{0}; // of each answer
};

bool StartsWith(std::string_view line, std::string_view verb)
{
    return line.size() >= verb.size() && strncasecmp(line.data(), verb.data(), verb.size()) == 0;
}

// Where the message ends in `text`: behind its final dot, or npos. Encoded data holds no dots, so looking for
// one is the fast way.
std::size_t FindEnd(std::string_view text)
{
    for (std::size_t dot = text.find('.'); dot != std::string_view::npos; dot = text.find('.', dot + 1)) {
        if (dot >= 2 && text.substr(dot - 2, kEnd.size()) == kEnd) {
            return dot - 2 + kEnd.size();
        }
    }
    return std::string_view::npos;
}

// The way back over a slow link: sends each answer when its time has come. Its end waits for those under way.
class SlowLine
{
public:
    SlowLine(Line& line, std::chrono::milliseconds delay)
        : m_line(line), m_delay(delay), m_thread([this](const std::stop_token& stop) { Deliver(stop); })
    {
    }

    void Send(std::string text)
    {
        const std::lock_guard lock(m_mutex);
        m_underWay.emplace_back(std::chrono::steady_clock::now() + m_delay, std::move(text));
        m_changed.notify_one();
    }

private:
    void Deliver(const std::stop_token& stop)
    {
        std::unique_lock lock(m_mutex);
        while (m_changed.wait(lock, stop, [this] { return !m_underWay.empty(); })) {
            const auto [due, text] = std::move(m_underWay.front());
            m_underWay.pop_front();
            lock.unlock();
            std::this_thread::sleep_until(due);
            m_line.Send(text); // a sender that is gone shows when it is read from
            lock.lock();
        }
    }

    Line& m_line;
    std::chrono::milliseconds m_delay;
    std::mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<std::pair<std::chrono::steady_clock::time_point, std::string>> m_underWay;
    std::jthread m_thread; // the last: ends before what it uses
};

class Dialogue
{
public:
    Dialogue(Line& line, const Extensions& extensions, Totals& totals, char* buffer)
        : m_line(line), m_extensions(extensions), m_totals(totals), m_buffer(buffer)
    {
        if (extensions.delay.count() > 0) {
            m_slowLine.emplace(line, extensions.delay);
        }
    }

    void Run()
    {
        Reply("220 sink\r\n");
        while (m_open) {
            const std::string_view line = ReadLine();
            if (m_open) {
                Obey(line);
            }
        }
        Flush();
    }

private:
    void Reply(std::string_view text) { m_replies += text; }

    // Replies go out together once every command that has come is answered: one by one, those to pipelined
    // commands would wait for the sender's delayed acknowledgement.
    void Flush()
    {
        if (m_replies.empty()) {
            return;
        }
        if (m_slowLine) {
            m_slowLine->Send(m_replies);
        } else {
            m_open = m_line.Send(m_replies) && m_open;
        }
        m_replies.clear();
    }

    [[nodiscard]] std::string_view Unread() const { return {m_buffer + m_begin, m_end - m_begin}; }

    // Receives more behind what is unread, which moves to the front of the buffer.
    void Receive()
    {
        Flush();
        const std::size_t kept = m_end - m_begin;
        std::memmove(m_buffer, m_buffer + m_begin, kept);
        const std::size_t count = m_line.Receive(m_buffer + kept, kBufferSize - kept);
        m_begin = 0;
        m_end = kept + count;
        m_open = m_open && count > 0;
    }

    std::string_view ReadLine()
    {
        std::size_t length = Unread().find('\n');
        while (length == std::string_view::npos && m_open) {
            Receive();
            length = Unread().find('\n');
        }
        if (!m_open) {
            return {};
        }
        const std::string_view line = Unread().substr(0, length + 1);
        m_begin += line.size();
        return line;
    }

    void Obey(std::string_view line)
    {
        if (StartsWith(line, "EHLO")) {
            std::string reply = "250-sink\r\n";
            reply += m_extensions.chunking ? "250-CHUNKING\r\n" : "";
            reply += m_extensions.pipelining ? "250-PIPELINING\r\n" : "";
            Reply(reply + "250 8BITMIME\r\n");
        } else if (StartsWith(line, "DATA")) {
            Reply("354 go on\r\n");
            TakeData(line.ends_with("\r\n"));
        } else if (m_extensions.chunking && StartsWith(line, "BDAT ")) {
            TakeChunk(line);
        } else if (StartsWith(line, "QUIT")) {
            Reply("221 bye\r\n");
            m_open = false;
        } else {
            const bool known = StartsWith(line, "HELO") || StartsWith(line, "MAIL FROM:") ||
                               StartsWith(line, "RCPT TO:") || StartsWith(line, "RSET");
            Reply(known ? "250 ok\r\n" : "500 unknown\r\n");
        }
    }

    // The line end of the DATA command is still there and stands before the first line of the message.
    void TakeData(bool endsInCrLf)
    {
        const std::size_t before = endsInCrLf ? 2 : 0;
        m_begin -= before;
        std::uint64_t taken = 0;
        std::size_t end = FindEnd(Unread());
        while (end == std::string_view::npos && m_open) {
            const std::size_t kept = std::min(Unread().size(), kEnd.size() - 1); // the end may have begun
            taken += Unread().size() - kept;
            m_begin = m_end - kept;
            Receive();
            end = FindEnd(Unread());
        }
        if (m_open) {
            m_begin += end;
            CountBytes(taken + end - before);
            CountMail();
            Reply("250 taken\r\n");
        }
    }

    void TakeChunk(std::string_view line)
    {
        std::uint64_t size = 0;
        const char* const digits = line.data() + std::strlen("BDAT ");
        const char* const lineEnd = line.data() + line.size();
        const auto parsed = std::from_chars(digits, lineEnd, size);
        const std::string_view rest(parsed.ptr, static_cast<std::size_t>(lineEnd - parsed.ptr));
        const bool last = StartsWith(rest, " LAST"); // before the buffer is received into again

        std::uint64_t missing = size;
        while (missing > 0 && m_open) {
            if (Unread().empty()) {
                Receive();
            }
            const std::size_t count = std::min<std::uint64_t>(Unread().size(), missing);
            m_begin += count;
            missing -= count;
        }
        if (m_open) {
            CountBytes(size);
            if (last) {
                CountMail();
            }
            Reply("250 taken\r\n");
        }
    }

    void CountBytes(std::uint64_t count) { m_totals.bytes += count; }
    void CountMail() { ++m_totals.mails; }

    Line& m_line;
    const Extensions& m_extensions;
    Totals& m_totals;
    char* m_buffer;
    std::string m_replies;
    std::optional<SlowLine> m_slowLine;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    bool m_open = true;
};

// Accepts and serves for ever. The server closes first, as real ones do: the connection's waiting time after
// its end then does not use up the senders' ports.
void Serve(int listener, SSL_CTX* context, const Extensions& extensions, Totals& totals)
{
    const auto buffer = std::make_unique<char[]>(kBufferSize);
    while (true) {
        const int socket = accept(listener, nullptr, nullptr);
        if (socket < 0) {
            continue;
        }
        if (context != nullptr) { // else the session tickets hold back the greeting for 40 ms
            const int on = 1;
            setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
        Line line(socket, context);
        if (line.Accept()) {
            Dialogue(line, extensions, totals, buffer.get()).Run();
        }
    }
}

// A listening socket on a free port of 127.0.0.1.
int Listen(int& port)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    if (listener < 0 || bind(listener, name, length) != 0 || listen(listener, SOMAXCONN) != 0 ||
        getsockname(listener, name, &length) != 0) {
        std::perror("bench_sink");
        std::exit(1);
    }
    port = ntohs(address.sin_port);
    return listener;
}

} // namespace

int main(int argc, char** argv)
{
    Extensions extensions;
    std::string pemFile;
    for (int i = 1; i < argc; ++i) {
        const std::string_view option = argv[i];
        extensions.chunking = extensions.chunking || option == "--chunking";
        extensions.pipelining = extensions.pipelining || option == "--pipelining";
        if (option == "--delay" && i + 1 < argc) {
            extensions.delay = std::chrono::milliseconds(std::atoi(argv[++i]));
        } else if (option == "--tls" && i + 1 < argc) {
            pemFile = argv[++i];
        }
    }
    std::signal(SIGPIPE, SIG_IGN); // OpenSSL writes with no flag against it
    const TlsContext context = MakeTlsContext(pemFile, true);
    Totals totals;
    int port = 0;
    const int listener = Listen(port);
    for (int i = 0; i < kWorkers; ++i) {
        std::thread(Serve, listener, context.get(), std::cref(extensions), std::ref(totals)).detach();
    }
    std::cout << port << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::cout << totals.mails << ' ' << totals.bytes << ' ' << ProcessorSeconds() << std::endl;
    }
    std::_Exit(0); // the workers are still there
}
