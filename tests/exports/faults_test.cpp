// Every fault that a server or a connection can put into the dialogue, at each step of it, over both ways of
// SMTP: what the host is told, what the server took, and that the thread's next mails go out. One table, most
// of it derived, drives one test.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "submission.h"
#include "system.h"
#include "velmail.h"

namespace {
using enum EServerAction;

constexpr std::size_t kLast = 99; // recipient
constexpr int kNone = -1;         // not of this path

enum class Path
{
    Smtp,
    Clear, // to a submission server, as what follows
    StartTls,
    Tls
};

const struct Step
{
    std::string match; // as in the server's rules
    std::size_t nth;
    std::string needs; // the only kind of variant that has it, if any
    // Who is turned away by a refusal over the transport, empty for nobody; the code of one to a submission.
    std::optional<std::string> turned;
    int refused;
    bool connects = false; // the step is the submission's connect's
} kSteps[] = {
    {"connect", 1, "", "client", 682, true},
    {"EHLO", 1, "", "client", 682, true},
    {"HELO", 1, "", "client", kNone},
    {"STARTTLS", 1, "STARTTLS", {}, 654, true},
    {"handshake", 1, "TLS", {}, 654, true},
    {"EHLO", 2, "STARTTLS", {}, 682, true},
    {"AUTH", 1, "TLS", {}, 655, true},
    {"MAIL", 1, "", "mail", 657},
    {"RCPT", 1, "", "recipient", 658},
    {"RCPT", kLast, "", "recipient", 658},
    {"DATA", 1, "DATA", "mail", 62},
    {"BODY", 1, "DATA", "mail", 62},
    {"DOT", 1, "DATA", "mail", 62},
    {"BODY", 1, "BDAT", "mail", 62},
    {"BDAT", 1, "BDAT", "mail", 62},
    {"BDAT", 2, "BDAT", "mail", 62},
    {"LAST", 1, "BDAT", "mail", 62},
    {"RSET", 1, "", {}, 658}, // after a refused recipient, whose code it is
    {"QUIT", 1, "", "", 0},
};

const struct Fault
{
    std::string name, reply;
    EServerAction action;
    int code, submissionCode; // 0: a refusal in so many words
} kFaults[] = {
    {"closes", "", Close, 664, 664},
    {"resets", "", Reset, 664, 664},
    {"falls silent", "", Silent, 664, 664},
    {"falls silent within a reply", "250-yes\r\n", Silent, 664, 664},
    {"closes within a refusal", "550-no\r\n", Close, 664, 664},
    {"refuses for now", "451 later\r\n", Continue, 0, 0},
    {"refuses for good", "550-no\r\n550 never\r\n", Continue, 0, 0},
    {"refuses and hangs up", "421 busy\r\n", Close, 0, 664},
    {"answers garbage", "what?\r\n", Continue, 665, 665},
    {"takes and refuses", "250-yes\r\n550 no\r\n", Continue, 666, 665},
    {"refuses and takes", "550-no\r\n250 yes\r\n", Continue, 666, 665},
    {"answers without a return", "250 ok\n", Continue, kNone, 665},
    {"answers 334", "334 go\r\n", Continue, kNone, 665},
    {"answers twice", "2", Continue, kNone, 665}, // stands for the healthy reply
};

struct Variant
{
    Path path;
    std::vector<std::string> extensions;
    std::string transfer; // what they make of it
    std::size_t recipients;
    bool bulk = false; // a message a recipient; the fault meets the first, or the last RCPT
    std::size_t splitReplies = 0;

    [[nodiscard]] bool Pipelining() const { return !extensions.empty() && extensions[0] == "PIPELINING"; }
    [[nodiscard]] bool Secured() const { return path == Path::StartTls || path == Path::Tls; }
};

struct Row
{
    std::string name;
    CServerRule rule;           // that matches nothing: nobody listens
    int code;                   // 0: the send, or the connect, succeeds
    std::size_t taken, refused; // mails; recipients, each with a line of the trace
    bool connects = false;
};

std::optional<Row> Derive(const Step& step, const Fault& fault, const Variant& variant)
{
    if (fault.code == kNone || !step.turned) {
        return {};
    }
    const bool goesOn = fault.action == Continue;
    const std::size_t nth = step.nth == kLast ? variant.recipients : step.nth;
    const std::size_t before = variant.bulk && step.nth == kLast ? nth - 1 : 0; // mails taken
    const std::size_t others = variant.bulk ? variant.recipients - 1 : *step.turned == "recipient" ? 1 : 0;
    Row row = {fault.name, {step.match, nth, fault.reply, fault.action, 70'000}, fault.code, before, 0};
    if (step.turned->empty()) {
        row.code = 0;
        row.taken = others + 1;
    } else if (fault.code == 0 && step.turned == "client") {
        row.code = goesOn && !(step.match == "EHLO" && fault.reply[0] == '5') ? 682 : 664;
    } else if (fault.code == 0) {
        const bool cutsOff = !goesOn && others > before; // who has no answer yet
        row.code = cutsOff ? 664 : 0;
        row.taken = cutsOff ? 0 : others;
        row.refused = others > 0 ? 1 : variant.recipients;
    } else if (step.needs == "BDAT" && goesOn) {
        row.code = 667; // the transport's word for any strange answer to BDAT
    }
    // A server that says both has taken the mail; one that speaks up within the body still answers the dot.
    const bool says = (step.match == "DOT" || step.match == "LAST") && fault.reply.starts_with('2');
    row.taken += says || (step.match == "BODY" && step.needs == "DATA" && goesOn) ? 1 : 0;
    return row;
}

std::optional<Row> DeriveSubmission(const Step& step, const Fault& fault, const Variant& variant)
{
    const std::string& match = step.match;
    const bool twice = fault.name == "answers twice";
    const bool ends = match == "DOT" || match == "LAST";
    const std::string healthy = match == "STARTTLS" ? "220 go\r\n"
                                : match == "DATA"   ? "354 go\r\n"
                                : match == "AUTH"   ? "235 ok\r\n"
                                                    : "250 ok\r\n";
    Row row = {fault.name,
               {match, step.nth == kLast ? variant.recipients : step.nth,
                twice ? healthy + healthy : fault.reply, fault.action, 70'000},
               fault.submissionCode != 0 ? fault.submissionCode : step.refused,
               0,
               0,
               step.connects};
    if (step.refused == kNone || (match == "AUTH" && fault.name == "answers 334") || // a question like others
        (match == "handshake" && fault.action == Continue && fault.submissionCode == 0)) { // garbage
        return {};
    }
    if (match == "handshake" || match == "RSET") {
        row.code = step.refused;
    } else if (match == "QUIT" || (twice && (ends || match == "AUTH"))) {
        row.code = 0; // of two answers the first one counts; what follows ends the connection
    } else if (twice && ((match == "EHLO" && variant.path == Path::Clear) || match == "connect" ||
                         (variant.Pipelining() && match != "DATA"))) {
        return {}; // when the second one arrives decides what it is taken for
    } else if (twice && match == "EHLO") {
        row.code = 669; // what is offered stands in neither
    }
    // A server that says both has taken the mail. The messages behind one that fails go their own way.
    row.taken = row.code == 0 || (ends && row.rule.reply.starts_with('2')) ? 1 : 0;
    if (variant.bulk && (!step.connects || row.code == 0)) {
        const std::size_t before = match == "RCPT" ? row.rule.nth - 1 : 0;
        row.taken += fault.action != Silent || row.code == 0 ? variant.recipients - 1 : before;
    }
    return row;
}

std::vector<Row> Rows(const Variant& variant)
{
    std::vector<Row> rows;
    if (variant.path == Path::Smtp) {
        rows = {
            {"nobody listens", {}, 682, 0, 0},
            {"knows HELO alone", {"EHLO", 1, "502 old\r\n"}, 0, variant.bulk ? variant.recipients : 1, 0},
            {"refuses every recipient", {"RCPT", 0, "550 no\r\n"}, 0, 0, variant.recipients},
        };
    }
    for (const Step& step : kSteps) {
        const bool fits = step.needs.empty() || step.needs == variant.transfer ||
                          (step.needs == "STARTTLS" && variant.path == Path::StartTls) ||
                          (step.needs == "TLS" && variant.Secured());
        for (const Fault& fault : kFaults) {
            const bool speaksUp = step.match == "BODY" && fault.action == Continue;
            // After an answer within the body all answers of the next message are those to the step before.
            // To a submission it costs a large body: once for each way to transfer.
            const bool left =
                (variant.bulk && speaksUp) ||
                (variant.path == Path::Smtp ? variant.splitReplies != 0 && fault.code != 666
                                            : speaksUp && (variant.Secured() || variant.recipients == 1));
            const auto row = !fits || left                ? std::nullopt
                             : variant.path == Path::Smtp ? Derive(step, fault, variant)
                                                          : DeriveSubmission(step, fault, variant);
            if (row) {
                rows.push_back(*row);
            }
        }
    }
    return rows;
}

std::string ReadOnlyFile(const CTempFolder& folder) // it is named by the thread
{
    std::string text;
    for (const auto& file : std::filesystem::directory_iterator(folder.Path())) {
        text += ReadFile(file.path().string());
    }
    return text;
}

// A mail of the transport's to the recipients of `list`, with nothing missing between its first field and its
// end.
bool IsWhole(const std::string& mail, const std::string& list, const std::string& text)
{
    const std::string line = "\r\n--" + BoundaryOf(mail);
    return mail.starts_with("Content-Type: multipart/mixed;boundary=\"") &&
           mail.ends_with(
               "\r\nTo: \"\" <" + std::regex_replace(list, std::regex(";"), ">, \"\" <") +
               ">\r\n\r\nMIME-Version: 1.0" + line +
               "\r\nContent-Type: ; charset=ISO-8859-1\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + text +
               line + "--\r\n");
}

// The first send over the transport. What it came to; the job's protocol comes back in `job`.
int SendOverTransport(const CTempFolder& folder, std::string& job)
{
    EXPECT_EQ(VelMailConnect(), 1);
    const int result = VelMailSend();
    job = ReadOnlyFile(folder);
    EXPECT_EQ(LastError(), 0);
    EXPECT_EQ(VelMailSetProperty("MailSubject", "Hello"), result); // a failed delivery's code surfaces here
    const int code = LastError();
    EXPECT_EQ(result, code == 0 ? 1 : 0);
    return code;
}

// The same to a submission server; where it may come to either of two codes, the row's.
int SendToSubmission(const Row& row, const CTempFolder& folder, std::string& job)
{
    const std::string& match = row.rule.match;
    const bool connected = VelMailConnect() == 1;
    EXPECT_EQ(connected, !row.connects || row.code == 0);
    if (!connected) {
        const int code = LastError();
        // A reset may come before the client knows that it is connected; clear text where TLS is due, with
        // the answer before it.
        const bool early = (code == 653 && match == "connect" && row.rule.action == Reset) ||
                           (code == 653 && match == "handshake" && row.rule.action == Reset) ||
                           (code == 665 && match == "handshake" && !row.rule.reply.empty());
        return early ? row.code : code;
    }
    EXPECT_EQ(VelMailSend(), row.code == 0 ? 1 : 0);
    job = ReadOnlyFile(folder);
    const int code = LastError();
    if (row.rule.action != Silent) { // which further messages of a bulk mail meet, too
        EXPECT_EQ(CountOf(job, " Error: "), row.code == 0 ? 0U : 3U) << "it, and what the send came to";
    }
    const std::string words = match == "RSET" ? "550 nobody" : "Error: The server refused ";
    EXPECT_EQ(CountOf(job, words) > 0, row.code > 0 && row.code < 663) << words;
    // What came of an answer that nobody asked for may be seen before its end.
    return code == 665 && match == "BODY" && row.rule.action != Continue ? row.code : code;
}

void CheckTransportTrace(const std::string& trace, const std::string& job, const Row& row,
                         const Variant& variant, bool again)
{
    const auto refusals = [&](const std::string& text) {
        return CountOf(text, "Warning: The server refused the recipient '");
    };
    EXPECT_EQ(refusals(trace), row.refused);
    EXPECT_EQ(refusals(job), row.refused);
    const std::string words = "': " + row.rule.reply.substr(0, row.rule.reply.find_first_of("\r-"));
    EXPECT_EQ(row.refused == 0 ? 0 : CountOf(trace, words), row.refused);
    EXPECT_EQ(CountOf(trace, "Error: Setting error " + std::to_string(row.code) +
                                 " (Error during SMTP Session startup ...) in src/smtpmailsession("),
              row.code == 0 ? 0U : 1U);
    EXPECT_EQ(CountOf(trace, "250-PIPELINING\r\n") > 0 || variant.splitReplies != 0, variant.Pipelining())
        << "the trace shows what was sent";
    EXPECT_EQ(CountOf(trace, "SMTP session is made anew"),
              again && (row.code != 0 || row.refused > 0) ? 1U : 0U);
    EXPECT_EQ(CountOf(trace, "In connect: Connection refused."), row.rule.match.empty() ? 1U : 0U);
}

CServerOptions Options(const Variant& variant)
{
    CServerOptions options = {variant.extensions, variant.splitReplies};
    if (variant.path != Path::Smtp) {
        options.extensions.emplace_back("AUTH PLAIN LOGIN");
        options.startTls = variant.path == Path::StartTls;
        options.tlsAtOnce = variant.path == Path::Tls;
    }
    return options;
}

// Runs one row, then sends again with the same service and with a new one.
void Check(const Row& row, const Variant& variant)
{
    const bool transport = variant.path == Path::Smtp;
    CServerRule rule = row.rule;
    rule.connection = 1;
    const bool listens = !rule.match.empty();
    const bool again = listens && rule.action != Silent;
    std::vector<CServerRule> script = {rule};
    if (rule.match == "HELO") { // what leads there
        script.push_back({.match = "EHLO", .nth = 1, .reply = "502 old\r\n", .connection = 1});
    } else if (rule.match == "RSET") {
        script.push_back({.match = "RCPT", .nth = 1, .reply = "550 nobody\r\n", .connection = 1});
    }
    CScriptedServer server(script, Options(variant));
    CScriptedServer healthy({}, Options(variant));
    const std::string list =
        std::string("a@host.example;b@host.example;c@host.example").substr(0, 15 * variant.recipients - 1);
    std::string text = "Dear Bob\r\n.\r\n..two dots\r\n";
    // More than lies between two sockets, and than two chunks.
    const bool inBody = rule.match == "BODY" || (rule.match == "BDAT" && !transport);
    const int lines = !inBody                                           ? 0
                      : transport                                       ? 2000
                      : rule.match == "BODY" && rule.action == Continue ? 150'000
                                                                        : 8000;
    for (int i = 0; i < lines; ++i) { // numbered: a lost, doubled or moved line shows
        text += std::to_string(i) + std::string(66, 'x') + "\r\n";
    }
    std::thread end([&] { // of the silence, long before the time is up
        if (rule.action == Silent) {
            EXPECT_TRUE(server.WaitForRules(script.size()));
            server.Stop();
        }
    });
    const CTempFolder folder;
    std::string job;
    std::string report = "\n";
    int code = -1;
    const std::string trace = RunTraced([&] {
        Set(SmallMail(listens ? server.Port() : "1", {{"MailRecipientsMailBox", list},
                                                      {"MailTextMemoryAddress", Block(text)},
                                                      {"MailTraceFilename", folder.Path("job")},
                                                      {"UseBulkMail", variant.bulk ? "1" : "0"}}));
        if (!transport) {
            Set({{"MailProtocol", "SUBMISSION"},
                 {"MailServer", "localhost"},
                 {"MailSecurity", variant.path == Path::Clear ? "NONE"
                                  : variant.path == Path::Tls ? "TLS"
                                                              : ""},
                 {"MailSecurityCAFile", ServesTls() ? Authority() : ""},
                 {"MailAuthLogin", variant.Secured() ? "ada" : ""},
                 {"MailAuthPassword", variant.Secured() ? "s3cret" : ""}});
        }
        code = transport ? SendOverTransport(folder, job) : SendToSubmission(row, folder, job);
        report += Get("MailDeliveryReport");
        if (again && row.connects && code != 0) {
            EXPECT_EQ(VelMailConnect(), 1);
        }
        EXPECT_EQ(again ? VelMailSend() : 1, 1);
        EXPECT_EQ(VelMailDisconnect(), 1);
        Set({{"MailServerPort", healthy.Port()}});
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(SendAndDisconnect(), 0);
    });
    end.join();
    server.Stop();

    // Whatever the row says: success means that each recipient was reached, by the whole mail, or refused.
    const auto reached = [&](const CScriptedServer& by, std::size_t connection) {
        std::size_t count = 0;
        for (const CReceivedMail& mail : by.Mails()) {
            if (transport) {
                EXPECT_TRUE(IsWhole(mail.data, variant.bulk ? mail.recipients.at(0) : list, text))
                    << mail.data.substr(0, 1000);
            } else {
                EXPECT_TRUE(mail.data.ends_with("\r\n\r\n" + text)) << mail.data.substr(0, 1000);
                EXPECT_EQ(CountOf(mail.data, "\r\nSubject: Hello\r\n"), 1U);
                EXPECT_EQ(mail.recipients.size(), variant.bulk ? 1 : variant.recipients);
                EXPECT_EQ(mail.viaBdat, variant.transfer == "BDAT");
            }
            count += connection == 0 || mail.connection == connection ? mail.recipients.size() : 0;
        }
        return count;
    };
    EXPECT_GE(reached(server, transport ? 1 : 0) + row.refused, code == 0 ? variant.recipients : 0);
    // 250 is for those whose mail the server holds, and for all of them unless its answer was none, or came
    // within the body.
    const bool clear = code == 0 && row.rule.match != "BODY";
    const bool sent = transport || !row.connects || row.code == 0;
    EXPECT_EQ(CountOf(report, "\n"), sent ? variant.recipients + 1 : 1) << report;
    for (std::size_t at = 0; at < list.size(); at += 15) {
        const std::string address = list.substr(at, 14);
        const bool held = std::ranges::any_of(server.Mails(), [&](const CReceivedMail& mail) {
            return mail.connection == 1 && std::ranges::count(mail.recipients, address) != 0;
        });
        const bool told = CountOf(report, "\n250 " + address + " ") != 0;
        const bool right = transport ? told == held || (held && !clear) : told == (code == 0);
        EXPECT_TRUE(right || (!transport && variant.bulk && code != 0)) << address << report;
    }
    EXPECT_EQ(reached(healthy, 1), variant.recipients);
    EXPECT_EQ(server.Mails().size(), row.taken + (!again ? 0 : variant.bulk ? variant.recipients : 1));
    if (transport) {
        EXPECT_EQ(reached(server, 2), again ? variant.recipients : 0);
        // The reset may come before the client knows that it is connected.
        EXPECT_EQ(code, rule.match == "connect" && rule.action == Reset && code == 682 ? 682 : row.code);
        CheckTransportTrace(trace, job, row, variant, again);
    } else {
        EXPECT_EQ(code, row.code);
        EXPECT_EQ(CountOf(trace, "Error: Setting error "), row.code == 0 ? 0U : 1U);
        EXPECT_EQ(CountOf(trace, "s3cret"), 0U);
        EXPECT_EQ(CountOf(trace, "AGFkYQBzM2NyZXQ="), 0U);
    }
}

void CheckAll(const std::vector<Variant>& variants)
{
#if defined(SIGPIPE)
    std::signal(SIGPIPE, SIG_DFL); // ends the process
#endif
    std::size_t count = 0;
    for (const Variant& variant : variants) {
        for (const Row& row : Rows(variant)) {
            // Where there is no TLS, under Wine, a row of a submission takes long: a fifth of them, which
            // meets each step and fault.
            if (variant.path != Path::Smtp && !ServesTls() && count++ % 5 != 0) {
                continue;
            }
            SCOPED_TRACE(row.name + " at " + row.rule.match + " " + std::to_string(row.rule.nth) + ", " +
                         testing::PrintToString(variant.extensions) + ", path " +
                         std::to_string(static_cast<int>(variant.path)) + (variant.bulk ? ", bulk" : ""));
            Check(row, variant);
        }
    }
}

const std::vector<std::string> kBoth = {"PIPELINING", "CHUNKING"};

TEST(Send, GetsOverEveryFaultOfTheDialogue)
{
    std::vector<Variant> variants = {
        {Path::Smtp, kBoth, TransportSendsChunks() ? "BDAT" : "DATA", 2, false, 8}};
    for (const auto& offered : {std::vector<std::string>{}, {kBoth[0]}, {kBoth[1]}, kBoth}) {
        const bool chunks = !offered.empty() && offered.back() == "CHUNKING";
        if (!chunks || TransportSendsChunks()) { // to another transport it is the same as DATA
            const std::string transfer = chunks ? "BDAT" : "DATA";
            variants.insert(variants.end(), {{Path::Smtp, offered, transfer, 2},
                                             {Path::Smtp, offered, transfer, 2, true},
                                             {Path::Smtp, offered, transfer, 3}});
        }
    }
    CheckAll(variants);
}

TEST(Submission, GetsOverEveryFaultOfTheDialogue)
{
    std::vector<Variant> variants;
    for (const Path path : {Path::Clear, Path::StartTls, Path::Tls}) {
        if (path == Path::Clear || ServesTls()) {
            variants.insert(variants.end(), {{path, {}, "DATA", 3},
                                             {path, {kBoth[0]}, "DATA", 1},
                                             {path, {kBoth[1]}, "BDAT", 1},
                                             {path, kBoth, "BDAT", 3}});
            if (path == Path::Clear) {
                variants.push_back({path, kBoth, "BDAT", 3, true});
            }
        }
    }
    CheckAll(variants);
}

} // namespace
