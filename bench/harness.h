// What the senders of the benchmark have in common: the mail, the way to send it, and the program around it.
// Each peer_*.cpp is a program of its own that defines MakePeer; harness.cpp has its main.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "version.h"

// The envelope and header that every sender uses.
inline constexpr const char* kServer = "127.0.0.1";
inline constexpr const char* kSender = "ada@example.org";
inline constexpr const char* kRecipient = "bob@example.net";
inline constexpr const char* kSubject = "Benchmark";
inline constexpr const char* kUserAgent = "VEL Mail " VELMAIL_VERSION;

struct Mail
{
    std::string port;
    std::string textFile;
    std::string attachmentFile; // empty: none
    std::string composedFile;   // the same mail as the library composes it, for senders that compose nothing
    bool chunking = false;      // the server offers CHUNKING; for the sender that does not ask
    bool textInMemory = false;  // the sender has read the text file before it begins
    bool attachmentInMemory = false; // likewise the attachment; VEL mail alone
    std::string protocol;            // VEL mail's MailProtocol; for libcurl not empty: the composed mail
    std::string tls;                 // a PEM file with the certificate to trust; empty: in clear
    int recipients = 1;
};

// Sends one mail again and again. Each thread has its own and makes it itself.
class Peer
{
public:
    Peer() = default;
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    virtual ~Peer() = default;

    // Fail with false, having said why on standard error.
    virtual bool Connect() = 0;
    virtual bool Send() = 0;
    virtual bool Disconnect() = 0;
};

std::unique_ptr<Peer> MakePeer(const Mail& mail);

// The recipients' addresses.
std::vector<std::string> Recipients(const Mail& mail);
std::string ReadWholeFile(const std::string& name);
// Unique within the process; for senders that must bring their own.
std::string MakeMessageId();
