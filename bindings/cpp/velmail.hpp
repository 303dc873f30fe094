// velmail.hpp - sends mails from C++17 by the ten functions of velmail.h, which the program is linked with.
//
//     velmail::Connection connection({"SUBMISSION", "mail.example.com"});
//     velmail::Mail mail;
//     mail.from = "me@example.com";
//     mail.to = {"you@example.com", {"them@example.com", "Them"}};
//     mail.subject = "Hello";
//     mail.text = "Hello\n";
//     connection.Send(mail);
//
// All strings are bytes in the charset of the settings, UTF-8 if they name none; file names are the system's.
// Connection throws velmail::Error; ResultConnection gives it as a result, also without exceptions.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "velmail.h"

namespace velmail {

namespace detail {
class Job;
} // namespace detail

// What went wrong. Code 0 is a use that cannot work, such as a connection in two threads.
class Error : public std::exception
{
public:
    Error(std::string_view call, int code, std::string sentence, std::string report = {})
        : m_code(code), m_sentence(std::move(sentence)), m_report(std::move(report)), m_what(call)
    {
        m_what += (code != 0 ? ": error " + std::to_string(code) : std::string()) + ": " + m_sentence;
    }
    [[nodiscard]] const char* what() const noexcept override { return m_what.c_str(); }
    [[nodiscard]] int Code() const noexcept { return m_code; }
    [[nodiscard]] const std::string& Sentence() const noexcept { return m_sentence; } // UTF-8
    // What the server said, a line for each recipient: "550 eve@example.com 5.1.1 no such user".
    [[nodiscard]] const std::string& Report() const noexcept { return m_report; }

private:
    int m_code;
    std::string m_sentence, m_report, m_what;
};

// What became of a mail that was not refused as a whole.
struct Sent
{
    std::string report{}; // as Error's; empty where the library has none
    int code = 0;         // not 0: what went wrong beside the delivery, such as 650 for a recipient left out
    std::string sentence{}; // of the code
};

// A value or the error in its place.
template<class Value>
class Outcome
{
public:
    Outcome(Value value) : m_held(std::move(value)) {}
    Outcome(Error error) : m_held(std::move(error)) {}
    explicit operator bool() const noexcept { return m_held.index() == 0; }
    // Only while it is true,
    Value& operator*() noexcept { return *std::get_if<0>(&m_held); }
    Value* operator->() noexcept { return std::get_if<0>(&m_held); }
    // and only while it is false.
    [[nodiscard]] const Error& Failure() const noexcept { return *std::get_if<1>(&m_held); }

private:
    std::variant<Value, Error> m_held;
};

struct Address
{
    Address() = default;
    Address(std::string box, std::string fullName = {}) : mailbox(std::move(box)), name(std::move(fullName))
    {
    }
    Address(const char* box, std::string fullName = {}) : mailbox(box), name(std::move(fullName)) {}
    std::string mailbox{};
    std::string name{};
};

class Attachment
{
public:
    // A file, under its own name in UTF-8 unless another is given. Without a MIME type the library decides.
    static Attachment File(std::filesystem::path path, std::string name = {}, std::string mimeType = {})
    {
        Attachment made(std::move(name), std::move(mimeType));
        if (made.m_name.empty()) {
            const auto own = path.filename().u8string(); // of char8_t from C++20 on
            made.m_name.assign(own.begin(), own.end());
        } else {
            made.m_renamed = true;
        }
        made.m_path = std::move(path);
        return made;
    }
    // The bytes of a container, view or text literal. What is passed as a temporary is kept; anything else,
    // and what a view shows, must stay where it is until the send returns.
    template<class Bytes>
    static Attachment Memory(Bytes&& bytes, std::string name, std::string mimeType = {})
    {
        static_assert(!std::is_array_v<std::remove_reference_t<Bytes>> ||
                          std::is_const_v<std::remove_reference_t<Bytes>>,
                      "Pass a view that knows its length.");
        Attachment made(std::move(name), std::move(mimeType));
        if constexpr (!std::is_lvalue_reference_v<Bytes>) {
            auto kept = std::make_shared<const std::decay_t<Bytes>>(std::forward<Bytes>(bytes));
            made.Show(*kept);
            made.m_kept = std::move(kept);
        } else if constexpr (std::is_convertible_v<Bytes, std::string_view>) {
            made.Show(std::string_view(bytes));
        } else {
            made.Show(bytes);
        }
        return made;
    }

private:
    friend class detail::Job;
    Attachment(std::string name, std::string mimeType)
        : m_name(std::move(name)), m_mimeType(std::move(mimeType))
    {
    }
    template<class Bytes>
    void Show(const Bytes& bytes)
    {
        static_assert(std::is_trivially_copyable_v<typename Bytes::value_type>, "These are no bytes.");
        m_bytes = {reinterpret_cast<const char*>(bytes.data()),
                   bytes.size() * sizeof(typename Bytes::value_type)};
    }

    std::filesystem::path m_path{}; // empty: in memory
    bool m_renamed = false;
    std::string m_name, m_mimeType;
    std::string_view m_bytes{};
    std::shared_ptr<const void> m_kept{};
};

struct Mail
{
    Address from{};
    std::vector<Address> to{}, cc{}, bcc{};
    Address replyTo{};
    std::string subject{};
    std::string text{};
    std::string contentType = "text/plain"; // the charset is added where it is missing
    std::vector<Attachment> attachments{};
    bool bulk = false;     // a message of its own for each of `to`
    std::string headers{}; // further header lines, with SUBMISSION only
};

struct Settings
{
    std::string protocol = "SMTP"; // "SUBMISSION", "MAPI"
    std::string server = "localhost";
    std::string port{}; // empty: 25, with SUBMISSION 587
    // Up to the mechanism with SUBMISSION only. Empty: by the port; "STARTTLS", "TLS", "NONE".
    std::string security{};
    std::string caFile{};
    std::string login{};
    std::string password{};
    std::string mechanism{};
    std::string charset = "UTF-8"; // of the program's strings
    unsigned timeout = 0;          // seconds; 0: the library's own limits
    // Others by their names, such as MailRecipientCheck.
    std::vector<std::pair<std::string, std::string>> properties{};
};

// Bytes of text and attachments of a send: all, and those read so far. Any thread may call it. It must
// outlive the send, and belongs to one send.
class Progress
{
public:
    [[nodiscard]] std::uint64_t Total() const noexcept { return m_words[0].load(std::memory_order_relaxed); }
    [[nodiscard]] std::uint64_t Done() const noexcept { return m_words[1].load(std::memory_order_relaxed); }
    // Ends the send, with code 151; nothing is delivered cut short.
    void Cancel() noexcept { m_words[2].store(1, std::memory_order_relaxed); }

private:
    friend class detail::Job;
    alignas(8) std::array<std::atomic<std::uint64_t>, 3> m_words{}; // the library writes and reads it
    static_assert(sizeof(m_words) == 24 && std::atomic<std::uint64_t>::is_always_lock_free);
};

namespace detail {

constexpr int kNoTrace = 17, kRefused = 62, kUnknownName = 99, kInvalidValue = 100, kAttachment = 659;

// The number of the connection that the thread has open; 0 for none.
inline thread_local std::uint64_t t_open = 0;
inline std::atomic<std::uint64_t> g_opened{0};

// The code of the thread's last call; 0 for none.
inline int Code() noexcept
{
    int code = 0;
    return VelMailGetLastError(&code) != 0 ? code : kNoTrace;
}

// Takes off the code that waits for the next call, and leaves the connection as it is.
inline int LateCode() noexcept
{
    std::array<char, 12> size{};
    return VelMailGetProperty("MailProtocol", size.data(), 0) != 0 ? 0 : Code();
}

inline std::string Report()
{
    std::array<char, 12> size{};
    if (VelMailGetProperty("MailDeliveryReport", size.data(), 0) == 0) {
        return {}; // a library without it
    }
    std::string text(std::stoul(size.data()), '\0');
    VelMailGetProperty("MailDeliveryReport", text.data(), static_cast<unsigned>(text.size()));
    text.resize(text.find('\0'));
    return text;
}

inline std::string Sentence(int code)
{
    std::array<char, 128> text{};
    if (code == 0 || VelMailGetErrorText(code, text.data(), static_cast<int>(text.size())) == 0) {
        return "The library gave no reason.";
    }
    std::string sentence;
    for (const char* at = text.data(); *at != '\0';
         ++at) { // Windows-1252, of which it uses what Latin-1 has, too
        const auto byte = static_cast<unsigned char>(*at);
        if (byte < 0x80) {
            sentence += *at;
        } else {
            sentence += static_cast<char>(0xC0 | byte >> 6);
            sentence += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return sentence;
}

inline Error Failed(std::string_view call, int code, std::string report = {})
{
    return {call, code, Sentence(code), std::move(report)};
}

// Also forgets the settings, a password among them.
inline void Disconnect() noexcept
{
    int code = 0;
    do { // a call that reports a code does nothing else
        code = VelMailDisconnect() != 0 ? 0 : Code();
    } while (code != 0 && code != kNoTrace);
    VelMailSetProperty(nullptr, nullptr);
}

// Whether a line of the report begins with 2, or there is none.
inline bool WasTaken(std::string_view report) noexcept
{
    return report.empty() || report[0] == '2' || report.find("\n2") != std::string_view::npos;
}

// Sets properties, up to the first that fails; holds what they name until the mail is sent.
class Job
{
public:
    Job() = default;
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;
    ~Job()
    {
        for (const char* const name : m_memory) { // what they name ends here
            VelMailSetProperty(name, nullptr);
        }
    }

    void Set(const char* name, const std::string& value)
    {
        if (m_failure) {
            return;
        }
        if (value.find('\0') != std::string::npos) {
            m_failure.emplace(name, kInvalidValue, "There is a NUL in the value.");
        } else if (VelMailSetProperty(name, value.c_str()) == 0) {
            const int code = Code();
            m_failure = Failed(name, code != 0 ? code : kUnknownName);
        }
    }
    void Describe(const Settings& settings);
    void Describe(const Mail& mail, const Settings& settings, Progress* progress);
    [[nodiscard]] std::optional<Error>& Failure() noexcept { return m_failure; }

private:
    template<class Parts, class Text>
    void SetList(const char* name, const Parts& parts, Text text)
    {
        std::string list;
        for (const auto& part : parts) {
            const std::string& value = text(part);
            if (!m_failure && value.find(';') != std::string::npos) {
                m_failure.emplace(name, kInvalidValue, "There is a ';' in '" + value + "'.");
            }
            list += (&part == &*std::begin(parts) ? "" : ";") + value;
        }
        Set(name, list);
    }
    void SetAddresses(const char* mailboxes, const char* names, const std::vector<Address>& addresses)
    {
        SetList(mailboxes, addresses, [](const Address& each) -> const std::string& { return each.mailbox; });
        SetList(names, addresses, [](const Address& each) -> const std::string& { return each.name; });
    }
    void SetMemory(const char* name, const std::string& blocks)
    {
        m_memory.push_back(name);
        Set(name, blocks);
    }
    void SetText(const Mail& mail, const std::string& charset);
    void SetAttachments(const std::vector<Attachment>& attachments);
    bool SetFiles(const std::vector<Attachment>& attachments);
    [[nodiscard]] std::string_view Read(const Attachment& attachment);
    [[nodiscard]] static std::string Block(const void* address, std::size_t size)
    {
        return std::to_string(reinterpret_cast<std::uintptr_t>(address)) + ';' + std::to_string(size);
    }

    std::optional<Error> m_failure{};
    std::vector<const char*> m_memory{};
    std::vector<std::unique_ptr<const std::string>> m_files{};
};

inline void Job::Describe(const Settings& settings)
{
    Set("MailProtocol", settings.protocol);
    Set("MailServer", settings.server);
    Set("MailServerPort", settings.port);
    Set("MailSecurity", settings.security);
    Set("MailSecurityCAFile", settings.caFile);
    Set("MailAuthLogin", settings.login);
    Set("MailAuthPassword", settings.password);
    Set("MailAuthMechanism", settings.mechanism);
    Set("MailDialog", "0"); // as in a thread that has set nothing yet
    if (settings.protocol == "SUBMISSION") {
        Set("MailCharset", settings.charset);
    }
    if (settings.timeout != 0) {
        Set("MailTimeout", std::to_string(settings.timeout));
    }
    for (const auto& [name, value] : settings.properties) {
        Set(name.c_str(), value);
    }
}

inline void Job::Describe(const Mail& mail, const Settings& settings, Progress* progress)
{
    Set("MailSenderMailBox", mail.from.mailbox);
    Set("MailSenderFullName", mail.from.name);
    SetAddresses("MailRecipientsMailBox", "MailRecipientsFullName", mail.to);
    SetAddresses("MailCCRecipientsMailBox", "MailCCRecipientsFullName", mail.cc);
    SetAddresses("MailBCCRecipientsMailBox", "MailBCCRecipientsFullName", mail.bcc);
    Set("MailReplyToMailBox", mail.replyTo.mailbox);
    Set("MailReplyToFullName", mail.replyTo.name);
    Set("MailSubject", mail.subject);
    Set("UseBulkMail", mail.bulk ? "1" : "0");
    Set("MailAdditionalSMTPHeader", mail.headers);
    if (!m_failure && !mail.headers.empty() && settings.protocol != "SUBMISSION") {
        m_failure.emplace("headers", kInvalidValue, "Header lines are sent with SUBMISSION only.");
    }
    SetText(mail, settings.charset);
    SetAttachments(mail.attachments);
    if (progress != nullptr) {
        SetMemory("MailProgressMemoryAddress", Block(progress->m_words.data(), sizeof progress->m_words));
    }
}

inline void Job::SetText(const Mail& mail, const std::string& charset)
{
    std::string type = mail.contentType, lower = type;
    for (char& each : lower) {
        each = each >= 'A' && each <= 'Z' ? static_cast<char>(each + ('a' - 'A')) : each;
    }
    constexpr std::string_view kCharset =
        "charset"; // the library compares it exactly, and else adds one of its own
    if (const std::size_t at = lower.find(kCharset); at != std::string::npos) {
        type.replace(at, kCharset.size(), kCharset);
    } else {
        type += "; charset=" + charset;
    }
    Set("MailTextContentType", type);
    SetMemory("MailTextMemoryAddress", Block(mail.text.data(), mail.text.size()));
}

inline void Job::SetAttachments(const std::vector<Attachment>& attachments)
{
    SetList("MailAttachmentMimeType", attachments,
            [](const Attachment& each) -> const std::string& { return each.m_mimeType; });
    if (SetFiles(attachments)) {
        return;
    }
    std::string blocks;
    for (const Attachment& each : attachments) {
        const std::string_view bytes = Read(each);
        blocks +=
            (blocks.empty() ? "" : ";") + Block(bytes.data() != nullptr ? bytes.data() : "", bytes.size());
    }
    SetList("MailAttachmentFilename", attachments,
            [](const Attachment& each) -> const std::string& { return each.m_name; });
    SetMemory("MailAttachmentMemoryAddress", blocks);
}

// False where the library cannot take all of them as files.
inline bool Job::SetFiles(const std::vector<Attachment>& attachments)
{
    std::vector<std::string> paths;
    for (const Attachment& each : attachments) {
        const auto& path = each.m_path.native();
        bool fits = !path.empty() && !each.m_renamed;
        for (const auto at : path) { // elsewhere than here, the library takes paths in the system's code page
            fits = fits && at != ';' && (sizeof at == 1 || static_cast<std::uint32_t>(at) < 0x80);
        }
        if (!fits) {
            return false;
        }
        paths.emplace_back(each.m_path.string());
    }
    SetList("MailAttachmentFilename", paths,
            [](const std::string& each) -> const std::string& { return each; });
    Set("MailAttachmentMemoryAddress", "");
    return true;
}

inline std::string_view Job::Read(const Attachment& attachment)
{
    if (attachment.m_path.empty()) {
        return attachment.m_bytes;
    }
    std::error_code reason;
    const std::uintmax_t size = std::filesystem::file_size(attachment.m_path, reason);
    std::string content(reason ? 0 : static_cast<std::size_t>(size), '\0');
    std::ifstream file(attachment.m_path, std::ios::binary);
    if (reason || !file.is_open() ||
        !file.read(content.data(), static_cast<std::streamsize>(content.size()))) {
        if (!m_failure) {
            m_failure.emplace("MailAttachmentFilename", kAttachment,
                              "The file " + attachment.m_name + " cannot be read" +
                                  (reason ? ": " + reason.message() : "") + '.');
        }
        return {};
    }
    return *m_files.emplace_back(std::make_unique<const std::string>(std::move(content)));
}

} // namespace detail

#if defined(__cpp_exceptions)
// Failures are thrown, as Error.
struct ThrowErrors
{
    template<class Value>
    using Result = Value;
    template<class Value>
    static Value Give(Outcome<Value> outcome)
    {
        if (!outcome) {
            throw Error(outcome.Failure());
        }
        return std::move(*outcome);
    }
};
#endif

// Failures are results.
struct ReturnErrors
{
    template<class Value>
    using Result = Outcome<Value>;
    template<class Value>
    static Outcome<Value> Give(Outcome<Value> outcome)
    {
        return outcome;
    }
};

// Sends mails from the thread that made it, where it must be destroyed, too. One at a time for a thread.
template<class Policy>
class BasicConnection
{
public:
    // Fails when there is one open on this thread, and where VelMailConnect does. Over SMTP and MAPI the
    // server is reached by Send.
    [[nodiscard]] static typename Policy::template Result<BasicConnection> Open(Settings settings)
    {
        return Policy::Give(Connect(std::move(settings)));
    }
    // The same, for those that throw.
    explicit BasicConnection(Settings settings) : BasicConnection(Open(std::move(settings))) {}
    BasicConnection(BasicConnection&& other) noexcept
        : m_settings(std::move(other.m_settings)), m_number(std::exchange(other.m_number, 0))
    {
    }
    BasicConnection(const BasicConnection&) = delete;
    BasicConnection& operator=(const BasicConnection&) = delete;
    BasicConnection& operator=(BasicConnection&&) = delete;
    ~BasicConnection()
    {
        if (m_number != 0 && m_number == detail::t_open) {
            detail::t_open = 0;
            detail::Disconnect();
        }
    }

    // Returns when the server has answered; fails unless it took the mail for somebody. Reads the mail
    // meanwhile, and keeps nothing of it. The connection can be used after a failure.
    typename Policy::template Result<Sent> Send(const Mail& mail, Progress* progress = nullptr)
    {
        return Policy::Give(Deliver(mail, progress));
    }

private:
    BasicConnection(Settings settings, std::uint64_t number)
        : m_settings(std::move(settings)), m_number(number)
    {
    }
    static Outcome<BasicConnection> Connect(Settings settings);
    Outcome<Sent> Deliver(const Mail& mail, Progress* progress);

    Settings m_settings;
    std::uint64_t m_number;
};

template<class Policy>
Outcome<BasicConnection<Policy>> BasicConnection<Policy>::Connect(Settings settings)
{
    if (detail::t_open != 0) {
        return Error("connect", 0, "There is a connection open on this thread; destroy it first.");
    }
    while (VelMailSetProperty(nullptr, nullptr) ==
           0) { // a call that reports a code from before does nothing else
        if (const int code = detail::Code(); code == 0 || code == detail::kNoTrace) {
            return detail::Failed("connect", detail::kNoTrace);
        }
    }
    detail::Job job;
    job.Describe(settings);
    if (job.Failure()) {
        detail::Disconnect();
        return std::move(*job.Failure());
    }
    const bool connected = VelMailConnect() != 0;
    int code = detail::Code();
    code = code != 0 ? code : detail::LateCode();
    if (code != 0 || !connected) {
        detail::Disconnect();
        return detail::Failed("connect", code);
    }
    detail::t_open = ++detail::g_opened;
    return BasicConnection(std::move(settings), detail::t_open);
}

template<class Policy>
Outcome<Sent> BasicConnection<Policy>::Deliver(const Mail& mail, Progress* progress)
{
    if (m_number == 0 || m_number != detail::t_open) {
        return Error("send", 0, "The connection is not this thread's; make one for each thread.");
    }
    detail::Job job;
    job.Describe(mail, m_settings, progress);
    if (job.Failure()) {
        return std::move(*job.Failure());
    }
    const bool sent = VelMailSend() != 0;
    int code = detail::Code(); // before the report: where it is unknown, reading it would take the late code
    code = code != 0 ? code : detail::LateCode();
    std::string report = detail::Report();
    if (!sent || !detail::WasTaken(report)) {
        return detail::Failed("send", sent ? detail::kRefused : code, std::move(report));
    }
    return Sent{std::move(report), code, code != 0 ? detail::Sentence(code) : std::string()};
}

#if defined(__cpp_exceptions)
using Connection = BasicConnection<ThrowErrors>;
#endif
using ResultConnection = BasicConnection<ReturnErrors>;

// The library's name and version.
inline std::string Version()
{
    std::array<char, 64> text{};
    VelMailGetVersionText(text.data(), text.size());
    return text.data();
}

} // namespace velmail
