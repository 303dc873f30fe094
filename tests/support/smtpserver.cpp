#include "smtpserver.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <chrono>
#include <map>
#include <string_view>
#include <utility>

namespace {
std::string Mailbox(const std::string& line)
{
    const std::size_t open = std::min(line.find('<'), line.size());
    return line.substr(open, line.rfind('>') - open).erase(0, 1);
}

// Takes the text with a CR LF before its first line, and removes that too.
std::string RemoveStuffedDots(const std::string& text)
{
    std::string result;
    std::size_t at = 0;
    for (std::size_t dot = 0; (dot = text.find("\r\n.", at)) != std::string::npos; at = dot + 3)
        result.append(text, at, dot + 2 - at);
    return result.append(text, at).erase(0, 2);
}

std::string HealthyReply(const std::string& verb, const std::vector<std::string>& extensions, bool startTls)
{
    static const std::map<std::string, std::string> replies{
        {"HELO", "250 test\r\n"}, {"MAIL", "250 ok\r\n"},  {"RCPT", "250 ok\r\n"}, {"DATA", "354 go\r\n"},
        {"RSET", "250 ok\r\n"},   {"QUIT", "221 bye\r\n"}, {"AUTH", "235 ok\r\n"}};
    if (verb == "STARTTLS" && startTls)
        return "220 go\r\n";
    if (verb != "EHLO")
        return replies.contains(verb) ? replies.at(verb) : "500 unknown\r\n";
    std::string reply = startTls ? "250-test\r\n250-STARTTLS\r\n" : "250-test\r\n";
    for (const std::string& extension : extensions)
        reply += "250-" + extension + "\r\n";
    return reply + "250 8BITMIME\r\n";
}
} // namespace

// Steps return false when the dialogue is over.
class CScriptedServer::CConnection
{
public:
    CConnection(CScriptedServer& server, sockets::Socket socket, std::size_t number)
        : m_server(server), m_number(number), m_socket(socket), m_thread(&CConnection::Run, this)
    {
    }

private:
    friend CScriptedServer;

    void Run()
    {
        bool open = (!m_server.m_options.tlsAtOnce || Secure()) &&
                    Deliver(Decide(FindRule("connect"), "220 test ESMTP\r\n"));
        for (std::string line; open && ReadLine(line);)
            open = Execute(line);
        if (m_end == EServerAction::Close)
            sockets::EndSending(m_socket);
        while (m_end != EServerAction::Reset && Receive())
            m_taken = m_input.size();
        const std::lock_guard lock(m_server.m_mutex);
        sockets::Close(std::exchange(m_socket, sockets::none), m_end == EServerAction::Reset);
    }

    bool Execute(const std::string& line)
    {
        const std::string verb = line.substr(0, line.find(' '));
        {
            const std::lock_guard lock(m_server.m_mutex);
            m_commands.push_back(line);
        }
        if (verb == "BDAT")
            return TakeChunk(line);
        if (verb == "AUTH" && !AskForLogin(line))
            return false;
        const bool startTls = m_server.m_options.startTls && m_tls == nullptr;
        const CServerRule answer =
            Decide(FindRule(verb), HealthyReply(verb, m_server.m_options.extensions, startTls));
        if (answer.reply.starts_with('2')) {
            if (verb == "RCPT")
                m_mail.recipients.push_back(Mailbox(line));
            else if (verb == "MAIL" || verb == "RSET" || verb == "EHLO" || verb == "HELO")
                m_mail = {.reversePath = verb == "MAIL" ? Mailbox(line) : ""};
        }
        if (!Deliver(answer))
            return false;
        if (verb == "STARTTLS" && answer.reply.starts_with('2'))
            return Secure();
        return verb == "DATA" && answer.reply.starts_with('3') ? TakeBody() : verb != "QUIT";
    }

    bool Secure()
    {
        if (const CServerRule* const rule = FindRule("handshake"); rule != nullptr && !Deliver(*rule))
            return false;
        m_input.clear();
        m_taken = 0;
        m_tls = AcceptTls(m_socket);
        return m_tls != nullptr;
    }

    // The questions of the mechanism, but for the last answer.
    bool AskForLogin(const std::string& line)
    {
        static const std::map<std::string, std::vector<std::string>> questions{
            {"AUTH LOGIN", {"VXNlcm5hbWU6", "UGFzc3dvcmQ6"}}, {"AUTH CRAM-MD5", {"PDFAaG9zdD4="}}};
        const auto found = questions.find(line);
        for (const std::string& question :
             found != questions.end() ? found->second : std::vector<std::string>{""}) {
            std::string answer;
            if (!Deliver({.reply = "334 " + question + "\r\n"}) || !ReadLine(answer))
                return false;
            const std::lock_guard lock(m_server.m_mutex);
            m_commands.push_back(answer);
        }
        return true;
    }

    bool TakeBody()
    {
        m_bodyRule = FindRule("BODY");
        // With a CR LF in front, a final dot on the very first line looks like any other.
        m_input.replace(0, std::exchange(m_taken, 0), "\r\n");
        for (std::size_t from = 0;;) {
            const std::size_t end = m_input.find("\r\n.\r\n", from);
            const bool ended = end != std::string::npos;
            if (!CheckBody(ended ? end : m_input.size() - 2))
                return false;
            if (ended) {
                m_mail.data = RemoveStuffedDots(m_input.substr(0, end + 2));
                m_taken = end + 5;
                return EndMail(FindRule("DOT"));
            }
            from = m_input.size() - std::min<std::size_t>(m_input.size(), 4);
            if (!Receive())
                return false;
        }
    }

    bool TakeChunk(const std::string& command)
    {
        std::size_t size = std::strtoul(command.c_str() + 4, nullptr, 10);
        if (!std::exchange(m_mail.viaBdat, true))
            m_bodyRule = FindRule("BODY");
        for (size += m_mail.data.size();;) {
            const std::size_t part = std::min(size - m_mail.data.size(), m_input.size() - m_taken);
            m_mail.data.append(m_input, m_taken, part);
            m_taken += part;
            if (!CheckBody(m_mail.data.size()))
                return false;
            if (m_mail.data.size() == size)
                break;
            if (!Receive())
                return false;
        }
        const CServerRule* const rule = FindRule("BDAT");
        if (command.ends_with(" LAST")) {
            const CServerRule* const last = FindRule("LAST");
            return EndMail(last != nullptr ? last : rule);
        }
        const CServerRule answer = Decide(rule, "250 ok\r\n");
        if (!answer.reply.starts_with('2'))
            m_mail = {};
        return Deliver(answer);
    }

    bool CheckBody(std::size_t received)
    {
        if (m_bodyRule == nullptr || received < m_bodyRule->bodyBytes)
            return true;
        return Deliver(*std::exchange(m_bodyRule, nullptr));
    }

    bool EndMail(const CServerRule* rule)
    {
        // Without a recipient even a healthy server refuses: a pipelining client may send DATA all the same.
        const CServerRule answer = Decide(rule, m_mail.recipients.empty() ? "554 nobody\r\n" : "250 ok\r\n");
        m_bodyRule = nullptr;
        m_mail.connection = m_number;
        CReceivedMail mail = std::exchange(m_mail, {});
        if (answer.reply.starts_with('2')) {
            const std::lock_guard lock(m_server.m_mutex);
            m_server.m_mails.push_back(std::move(mail));
            m_server.Count(m_server.m_mailCount);
        }
        return Deliver(answer);
    }

    // Counts the step, so it is called once for each.
    const CServerRule* FindRule(const std::string& step)
    {
        const std::size_t count = ++m_steps[step];
        const auto found = std::ranges::find_if(m_server.m_script, [&](const CServerRule& rule) {
            return rule.match == step && (rule.nth == 0 || rule.nth == count) &&
                   (rule.connection == 0 || rule.connection == m_number);
        });
        return found == m_server.m_script.end() ? nullptr : &*found;
    }

    // A healthy reply is a rule that matches nothing.
    static CServerRule Decide(const CServerRule* rule, const std::string& healthy)
    {
        return rule != nullptr ? *rule : CServerRule{.reply = healthy};
    }

    bool Deliver(const CServerRule& answer)
    {
        if (answer.before)
            answer.before();
        const std::size_t split = m_server.m_options.splitReplies;
        for (std::string_view rest = answer.reply; !rest.empty();) {
            const std::string_view piece = rest.substr(0, split == 0 ? rest.size() : split);
            rest.remove_prefix(piece.size());
            if (!(m_tls ? m_tls->Send(piece) : sockets::Send(m_socket, piece)))
                return false;
        }
        if (!answer.match.empty()) {
            const std::lock_guard lock(m_server.m_mutex);
            m_server.Count(m_server.m_ruleCount);
        }
        if (answer.action != EServerAction::Continue)
            m_end = answer.action;
        return answer.action == EServerAction::Continue;
    }

    bool ReadLine(std::string& line)
    {
        std::size_t end = 0;
        while ((end = m_input.find('\n', m_taken)) == std::string::npos)
            if (!Receive())
                return false;
        line = m_input.substr(m_taken, end - m_taken);
        m_taken = end + 1;
        if (line.ends_with('\r'))
            line.pop_back();
        return true;
    }

    bool Receive()
    {
        const std::size_t received = m_tls ? m_tls->Receive(m_chunk.data(), m_chunk.size())
                                           : sockets::Receive(m_socket, m_chunk.data(), m_chunk.size());
        m_input.erase(0, std::exchange(m_taken, 0)).append(m_chunk.data(), received);
        return received != 0;
    }

    CScriptedServer& m_server;
    const std::size_t m_number;
    sockets::Socket m_socket;
    std::unique_ptr<CTlsChannel> m_tls; // once it is agreed
    std::vector<std::string> m_commands;
    std::array<char, 65536> m_chunk{};
    std::string m_input;
    std::size_t m_taken = 0; // bytes at the front of m_input that are done with
    std::map<std::string, std::size_t> m_steps;
    CReceivedMail m_mail;
    const CServerRule* m_bodyRule = nullptr;
    EServerAction m_end = EServerAction::Close;
    std::thread m_thread; // last: it uses all the others
};

CScriptedServer::CScriptedServer(std::vector<CServerRule> script, CServerOptions options)
    : m_script(std::move(script)), m_options(std::move(options)), m_listener(sockets::Listen()),
      m_port(std::to_string(sockets::Port(m_listener))), m_acceptor(&CScriptedServer::AcceptAll, this)
{
}

CScriptedServer::~CScriptedServer()
{
    Stop();
}

void CScriptedServer::AcceptAll()
{
    for (sockets::Socket client = 0; (client = sockets::Accept(m_listener)) != sockets::none;) {
        const std::lock_guard lock(m_mutex);
        if (m_stopping)
            return sockets::Close(client);
        m_connections.push_back(std::make_unique<CConnection>(*this, client, m_connectionCount + 1));
        Count(m_connectionCount);
    }
}

void CScriptedServer::Stop()
{
    if (!m_acceptor.joinable())
        return;
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        sockets::Interrupt(m_listener);
    }
    DropConnections();
    m_acceptor.join();
    sockets::Close(m_listener);
    for (const auto& connection : m_connections)
        connection->m_thread.join();
}

void CScriptedServer::DropConnections()
{
    const std::lock_guard lock(m_mutex);
    for (const auto& connection : m_connections)
        if (connection->m_socket != sockets::none)
            sockets::Interrupt(connection->m_socket);
}

bool CScriptedServer::WaitFor(const std::size_t& counter, std::size_t n) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(30), [&] { return counter >= n; });
}

std::size_t CScriptedServer::Connections() const
{
    const std::lock_guard lock(m_mutex);
    return m_connectionCount;
}

std::vector<std::string> CScriptedServer::Commands(std::size_t connection) const
{
    const std::lock_guard lock(m_mutex);
    std::vector<std::string> commands;
    for (const auto& each : m_connections)
        if (connection == 0 || connection == each->m_number)
            commands.insert(commands.end(), each->m_commands.begin(), each->m_commands.end());
    return commands;
}

bool CScriptedServer::EndedWithQuit(std::size_t connection) const
{
    const std::vector<std::string> commands = Commands(connection);
    return !commands.empty() && commands.back() == "QUIT";
}

std::vector<CReceivedMail> CScriptedServer::Mails() const
{
    const std::lock_guard lock(m_mutex);
    return m_mails;
}
