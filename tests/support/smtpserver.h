// A scripted SMTP server for tests: it listens on a free loopback port, serves every connection on a thread
// of its own, and answers as a healthy server wherever no rule of its script says otherwise. Any thread may
// call its members; Stop only one at a time. What was recorded outlives Stop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sockets.h"
#include "tls.h"

enum class EServerAction
{
    Continue,
    Close,  // ends its side and reads on until the client closes: the reply is never lost to a reset
    Reset,  // the client sees a reset connection
    Silent, // reads on and answers nothing more, until the client closes or the server stops
};

// The first rule that fits a step decides it.
struct CServerRule
{
    // "connect" (the greeting), a command verb, "BODY" (a body in DATA or BDAT has reached
    // bodyBytes), "DOT" (the answer to the final dot) or "LAST" (the answer to BDAT LAST; "BDAT" comes
    // second), "AUTH" (the last answer of a login) or "handshake" (of TLS; a reply goes out in its place).
    std::string match{};
    std::size_t nth = 0; // applies to the n-th such step of a connection; 0: to each
    std::string reply{}; // sent as it stands, with its CR LF; empty: nothing is sent
    EServerAction action = EServerAction::Continue;
    std::size_t bodyBytes = 0;      // "BODY" only: bytes as on the wire; 0: before the first one is read
    std::size_t connection = 0;     // applies to the n-th connection of the server; 0: to each
    std::function<void()> before{}; // runs before the reply, on the server's thread
};

struct CServerOptions
{
    std::vector<std::string> extensions{}; // further lines of the EHLO answer
    std::size_t splitReplies = 0;          // bytes per segment of a reply; 0: whole replies
    bool startTls = false;                 // offers it
    bool tlsAtOnce = false;                // before the greeting
};

struct CReceivedMail
{
    std::string reversePath{};
    std::vector<std::string> recipients{}; // those answered with 2xx
    std::string data{};                    // without the stuffed dots and the final one
    bool viaBdat = false;
    std::size_t connection = 0;
};

class CScriptedServer
{
public:
    // Throws std::system_error when it cannot listen.
    explicit CScriptedServer(std::vector<CServerRule> script = {}, CServerOptions options = {});
    ~CScriptedServer();

    // Closes the port and all connections and joins all threads, whatever the clients do.
    void Stop();
    // Closes the connections of now, whatever their dialogue has come to.
    void DropConnections();

    [[nodiscard]] const std::string& Port() const { return m_port; }
    // Connections count from 1, in the order they were accepted.
    [[nodiscard]] std::size_t Connections() const;
    // The command lines of one connection, or of all (0), one connection after the other.
    [[nodiscard]] std::vector<std::string> Commands(std::size_t connection = 0) const;
    [[nodiscard]] bool EndedWithQuit(std::size_t connection) const;
    // The mails whose end was answered with 2xx; each is here before that answer goes out.
    [[nodiscard]] std::vector<CReceivedMail> Mails() const;

    // True as soon as so many were seen in all, false after 30 seconds. A rule counts once its reply is sent.
    [[nodiscard]] bool WaitForMails(std::size_t n) const { return WaitFor(m_mailCount, n); }
    [[nodiscard]] bool WaitForRules(std::size_t n) const { return WaitFor(m_ruleCount, n); }

private:
    class CConnection;

    void AcceptAll();
    // With the mutex held.
    void Count(std::size_t& counter)
    {
        ++counter;
        m_changed.notify_all();
    }
    [[nodiscard]] bool WaitFor(const std::size_t& counter, std::size_t n) const;

    const std::vector<CServerRule> m_script;
    const CServerOptions m_options;
    const sockets::Socket m_listener;
    const std::string m_port;

    // Guards what follows, the commands each connection keeps and the closing of its socket.
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    bool m_stopping = false;
    std::vector<std::unique_ptr<CConnection>> m_connections;
    std::vector<CReceivedMail> m_mails;
    std::size_t m_connectionCount = 0;
    std::size_t m_mailCount = 0;
    std::size_t m_ruleCount = 0;

    std::thread m_acceptor;
};
