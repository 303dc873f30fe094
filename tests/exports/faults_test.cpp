// Every fault that a server can put into the dialogue, at each step of it: what the host is told, what the
// server took, and that the thread's next mails go out. One table, most of it derived, drives one test.
#include <algorithm>
#include <csignal>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "system.h"
#include "velmail.h"

namespace {
using enum EServerAction;

constexpr std::size_t kLast = 99; // recipient

const struct Step
{
    std::string match; // as in the server's rules
    std::size_t nth;
    std::string transfer, turned; // the only one of the row, if any; who is turned away by a refusal
} kSteps[] = {
    {"connect", 1, "", "client"}, {"EHLO", 1, "", "client"},    {"HELO", 1, "", "client"},
    {"MAIL", 1, "", "mail"},      {"RCPT", 1, "", "recipient"}, {"RCPT", kLast, "", "recipient"},
    {"DATA", 1, "DATA", "mail"},  {"BODY", 1, "DATA", "mail"},  {"DOT", 1, "DATA", "mail"},
    {"BODY", 1, "BDAT", "mail"},  {"BDAT", 1, "BDAT", "mail"},  {"BDAT", 2, "BDAT", "mail"},
    {"LAST", 1, "BDAT", "mail"},  {"QUIT", 1, "", ""},
};

const struct Fault
{
    std::string name, reply;
    EServerAction action;
    int code; // 0: a refusal in so many words
} kFaults[] = {
    {"closes", "", Close, 664},
    {"resets", "", Reset, 664},
    {"falls silent", "", Silent, 664},
    {"falls silent within a reply", "250-yes\r\n", Silent, 664},
    {"closes within a refusal", "550-no\r\n", Close, 664},
    {"refuses for now", "451 later\r\n", Continue, 0},
    {"refuses for good", "550 no\r\n", Continue, 0},
    {"refuses and hangs up", "421 busy\r\n", Close, 0},
    {"answers garbage", "what?\r\n", Continue, 665},
    {"takes and refuses", "250-yes\r\n550 no\r\n", Continue, 666},
    {"refuses and takes", "550-no\r\n250 yes\r\n", Continue, 666},
};

struct Variant
{
    std::vector<std::string> extensions;
    std::string transfer; // what they make of it
    std::size_t recipients;
    bool bulk = false; // a message a recipient; the fault meets the first, or the last RCPT
    std::size_t splitReplies = 0;
};

struct Row
{
    std::string name;
    CServerRule rule;           // that matches nothing: nobody listens
    int code;                   // 0: the send succeeds
    std::size_t taken, refused; // mails; recipients, each with a line of the trace
};

Row Derive(const Step& step, const Fault& fault, const Variant& variant)
{
    const bool goesOn = fault.action == Continue;
    const std::size_t nth = step.nth == kLast ? variant.recipients : step.nth;
    const std::size_t before = variant.bulk && step.nth == kLast ? nth - 1 : 0; // mails taken
    const std::size_t others = variant.bulk ? variant.recipients - 1 : step.turned == "recipient" ? 1 : 0;
    Row row = {fault.name, {step.match, nth, fault.reply, fault.action, 70'000}, fault.code, before, 0};
    if (step.turned.empty()) {
        row.code = 0;
        row.taken = others + 1;
    } else if (fault.code == 0 && step.turned == "client") {
        row.code = goesOn && !(step.match == "EHLO" && fault.reply[0] == '5') ? 682 : 664;
    } else if (fault.code == 0) {
        const bool cutsOff = !goesOn && others > before; // who has no answer yet
        row.code = cutsOff ? 664 : 0;
        row.taken = cutsOff ? 0 : others;
        row.refused = others > 0 ? 1 : variant.recipients;
    } else if (step.transfer == "BDAT" && goesOn) {
        row.code = 667; // the transport's word for any strange answer to BDAT
    }
    // A server that says both has taken the mail; one that speaks up within the body still answers the dot.
    const bool says = (step.match == "DOT" || step.match == "LAST") && fault.reply.starts_with('2');
    row.taken += says || (step.match == "BODY" && step.transfer == "DATA" && goesOn) ? 1 : 0;
    return row;
}

std::vector<Row> Rows(const Variant& variant)
{
    std::vector<Row> rows = {
        {"nobody listens", {}, 682, 0, 0},
        {"knows HELO alone", {"EHLO", 1, "502 old\r\n"}, 0, variant.bulk ? variant.recipients : 1, 0},
        {"refuses every recipient", {"RCPT", 0, "550 no\r\n"}, 0, 0, variant.recipients},
    };
    for (const Step& step : kSteps) {
        for (const Fault& fault : kFaults) {
            // After an answer within the body all answers of the next message are those to the step before.
            if ((step.transfer.empty() || step.transfer == variant.transfer) &&
                (variant.splitReplies == 0 || fault.code == 666) &&
                !(variant.bulk && step.match == "BODY" && fault.action == Continue)) {
                rows.push_back(Derive(step, fault, variant));
            }
        }
    }
    return rows;
}

// Whether a mail arrived to the byte, but for the fields between; `list` are the addresses of its To field.
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

// Runs one row, then sends again on the same connection and on a new one.
void Check(const Row& row, const Variant& variant)
{
    CServerRule rule = row.rule;
    rule.connection = 1;
    const bool helo = rule.match == "HELO";
    const bool listens = !rule.match.empty();
    const bool again = listens && rule.action != Silent;
    CScriptedServer server({rule, {.match = helo ? "EHLO" : "", .reply = "502 old\r\n", .connection = 1}},
                           {variant.extensions, variant.splitReplies});
    CScriptedServer healthy({}, {variant.extensions});
    const std::string list =
        std::string("a@host.example;b@host.example;c@host.example").substr(0, 15 * variant.recipients - 1);
    std::string text = "Dear Bob\r\n.\r\n..two dots\r\n";
    for (int i = 0; rule.match == "BODY" && i < 2000; ++i) { // numbered: a lost, doubled or moved line shows
        text += std::to_string(i) + std::string(70, 'x') + "\r\n";
    }
    std::thread end([&] { // of the silence, long before the transport's time is up
        if (rule.action == Silent) {
            EXPECT_TRUE(server.WaitForRules(helo ? 2 : 1));
            server.Stop();
        }
    });
    const CTempFolder folder;
    std::string protocol;
    std::string report = "\n";
    int code = -1;
    const std::string trace = RunTraced([&] {
        Set(SmallMail(listens ? server.Port() : "1"));
        Set({{"MailRecipientsMailBox", list},
             {"MailTextMemoryAddress", Block(text)},
             {"MailTraceFilename", folder.Path("job")},
             {"UseBulkMail", variant.bulk ? "1" : "0"}});
        EXPECT_EQ(VelMailConnect(), 1);
        const int result = VelMailSend();
        for (const auto& file : std::filesystem::directory_iterator(folder.Path())) { // named by the thread
            protocol = ReadFile(file.path().string());
        }
        report += Get("MailDeliveryReport");
        EXPECT_EQ(LastError(), 0);
        EXPECT_EQ(VelMailSetProperty("MailSubject", "Hello"),
                  result); // a failed delivery's code surfaces here
        code = LastError();
        EXPECT_EQ(result, code == 0 ? 1 : 0);
        EXPECT_EQ(again ? VelMailSend() : 1, 1);
        Set({{"MailServerPort", healthy.Port()}});
        EXPECT_EQ(VelMailConnect(), 1);
        EXPECT_EQ(SendAndDisconnect(), 0);
    });
    end.join();
    server.Stop();

    // Whatever the row says: success means that each recipient was reached, by the whole mail, or refused.
    const std::size_t refused = CountOf(trace, "Warning: The server refused the recipient '");
    const auto reached = [&](const CScriptedServer& by, std::size_t connection) {
        std::size_t count = 0;
        for (const CReceivedMail& mail : by.Mails()) {
            EXPECT_TRUE(IsWhole(mail.data, variant.bulk ? mail.recipients.at(0) : list, text))
                << mail.data.substr(0, 1000);
            count += mail.connection == connection ? mail.recipients.size() : 0;
        }
        return count;
    };
    EXPECT_GE(reached(server, 1) + refused, code == 0 ? variant.recipients : 0);
    // 250 is for those whose mail the server holds, and for all of them unless its answer was none, or came
    // within the body.
    const bool clear = code == 0 && rule.match != "BODY";
    EXPECT_EQ(CountOf(report, "\n"), variant.recipients + 1) << report;
    for (std::size_t at = 0; at < list.size(); at += 15) {
        const std::string address = list.substr(at, 14);
        const bool held = std::ranges::any_of(server.Mails(), [&](const CReceivedMail& mail) {
            return mail.connection == 1 && std::ranges::count(mail.recipients, address) != 0;
        });
        const bool told = CountOf(report, "\n250 " + address + " ") != 0;
        EXPECT_TRUE(told == held || (held && !clear)) << address << report;
    }
    EXPECT_EQ(reached(server, 2), again ? variant.recipients : 0);
    EXPECT_EQ(reached(healthy, 1), variant.recipients);
    // The reset may come before the client knows that it is connected.
    EXPECT_EQ(code, rule.match == "connect" && rule.action == Reset && code == 682 ? 682 : row.code);
    EXPECT_EQ(server.Mails().size(), row.taken + (!again ? 0 : variant.bulk ? variant.recipients : 1));
    EXPECT_EQ(refused, row.refused);
    EXPECT_EQ(CountOf(protocol, "Warning: The server refused the recipient '"), refused);
    EXPECT_EQ(refused == 0 ? 0 : CountOf(trace, "': " + rule.reply.substr(0, 6)), refused);
    EXPECT_EQ(CountOf(trace, "Error: Setting error " + std::to_string(code) +
                                 " (Error during SMTP Session startup ...) in src/smtpmailsession("),
              code == 0 ? 0U : 1U);
    const bool pipelining = !variant.extensions.empty() && variant.extensions[0] == "PIPELINING";
    EXPECT_EQ(CountOf(trace, "250-PIPELINING\r\n") > 0, pipelining) << "the trace shows what was sent";
    EXPECT_EQ(CountOf(trace, "SMTP session is made anew"), again && (code != 0 || refused > 0) ? 1U : 0U);
    EXPECT_EQ(CountOf(trace, "In connect: Connection refused."), listens ? 0U : 1U);
}

TEST(Send, GetsOverEveryFaultOfTheDialogue)
{
#if defined(SIGPIPE)
    std::signal(SIGPIPE, SIG_DFL); // ends the process
#endif
    const std::vector<std::string> both = {"PIPELINING", "CHUNKING"};
    std::vector<Variant> variants = {{both, TransportSendsChunks() ? "BDAT" : "DATA", 2, false, 8}};
    for (const auto& offered : {std::vector<std::string>{}, {both[0]}, {both[1]}, both}) {
        const bool chunks = !offered.empty() && offered.back() == "CHUNKING";
        if (!chunks || TransportSendsChunks()) { // to another transport it is the same as DATA
            const std::string transfer = chunks ? "BDAT" : "DATA";
            variants.insert(variants.end(),
                            {{offered, transfer, 2}, {offered, transfer, 2, true}, {offered, transfer, 3}});
        }
    }
    for (const Variant& variant : variants) {
        for (const Row& row : Rows(variant)) {
            SCOPED_TRACE(row.name + " at " + row.rule.match + " " + std::to_string(row.rule.nth) + ", " +
                         testing::PrintToString(variant.extensions) + (variant.bulk ? ", bulk" : ""));
            Check(row, variant);
        }
    }
}

} // namespace
