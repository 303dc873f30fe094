// The parts of the submission path that have many cases: replies, lines, and a dialogue whose waits end.
#include "src/submission/dialogue.h"

#include <algorithm>

#include "src-baselib/errorcodes.h"
#include "src/submission/dotstuffing.h"
#include "src/submission/replyreader.h"
#include "tests/unit/helpers.h"

TEST(ReplyReader, TakesRepliesAndNothingElseCutAnywhere)
{
    const std::string longLine(5000, 'x');
    const std::pair<std::string, const char*> cases[] = {
        {"250 ok\r\n", "250 ok|"},
        {"250\r\n", "250|"},
        {"250-a\r\n250-\r\n250 b\r\n354 go\r\n", "250 a  b|354 go|"},
        {"550 \x01\x7F\ttab\r\n", "550    tab|"},
        {"250-a\r\n", ""},
        {"250 a\r", ""},
        {"250-a\r\n550 b\r\n", "Bad"},
        {"250 a\r\nwhat\r\n", "250 a|Bad"},
        {"250 a\n", "Bad"},
        {"250 a\rb\r\n", "Bad"},
        {"25\r\n", "Bad"},
        {"150 a\r\n", "Bad"},
        {"650 a\r\n", "Bad"},
        {"2x0 a\r\n", "Bad"},
        {"250_a\r\n", "Bad"},
        {std::string("250 \0\r\n", 7), "Bad"},
        {"\r\n", "Bad"},
        {"250 " + longLine + "\r\n", "Bad"},
        {longLine, "Bad"},
    };
    for (const auto& [bytes, wanted] : cases) {
        for (std::size_t cut = 0; cut <= std::min<std::size_t>(bytes.size(), 40); ++cut) {
            CReplyReader reader;
            std::string read;
            for (const std::string_view piece :
                 {std::string_view(bytes).substr(0, cut), std::string_view(bytes).substr(cut)}) {
                reader.Add(piece);
                SubmissionReply reply;
                ReplyState state = ReplyState::More;
                while ((state = reader.Next(reply)) == ReplyState::Complete) {
                    read += reply.Words() + "|";
                }
                if (state == ReplyState::Bad && !read.ends_with("Bad")) {
                    read += "Bad";
                }
            }
            EXPECT_EQ(read, wanted) << testing::PrintToString(bytes.substr(0, 50)) << " cut at " << cut;
        }
    }
}

TEST(DotStuffing, MakesLinesFitCutAnywhere)
{
    const struct
    {
        const char *bytes, *chunk, *data;
    } cases[] = {
        {"", "", ""},
        {"a\r\nb\r\n", "a\r\nb\r\n", "a\r\nb\r\n"},
        {"a", "a\r\n", "a\r\n"},
        {"a\r", "a\r\n", "a\r\n"},
        {".\r\n..\r\na.\r\n", ".\r\n..\r\na.\r\n", "..\r\n...\r\na.\r\n"},
        {"a\n.\r.\r\n", "a\r\n.\r\n.\r\n", "a\r\n..\r\n..\r\n"},
        {"\n.\n", "\r\n.\r\n", "\r\n..\r\n"},
        {"\r\r\n\n\r", "\r\n\r\n\r\n\r\n", "\r\n\r\n\r\n\r\n"},
    };
    std::string all; // on every place of a long piece, which is taken in blocks
    for (const auto& row : cases) {
        for (std::size_t i = 0; i < 130; ++i) {
            all.append(row.bytes).append(i, 'x').append(i % 2 == 0 ? "\r\n" : "");
        }
    }
    for (const bool data : {false, true}) {
        CDotStuffing whole(data);
        CDotStuffing cut(data);
        std::string pieces;
        for (const char& byte : all) {
            pieces += cut.Take({&byte, 1});
        }
        EXPECT_EQ(whole.Take(all), pieces) << data;
    }
    for (const auto& row : cases) {
        const std::string_view bytes = row.bytes;
        for (const bool data : {false, true}) {
            for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
                CDotStuffing lines(data);
                std::string out(lines.Take(bytes.substr(0, cut)));
                out += lines.Take(bytes.substr(cut));
                out += lines.End();
                EXPECT_EQ(out, data ? row.data : row.chunk) << testing::PrintToString(row.bytes) << cut;
            }
        }
    }
}

namespace {

// Answers each command; takes nothing more while too many of its answers are unread.
class CTightServer : public CWire
{
public:
    std::string silentAt = "nothing";
    bool takes = true;
    std::vector<std::string> commands;
    std::vector<std::int64_t> waits;

    WireState Send(const char* bytes, std::size_t size, std::size_t& sent) override
    {
        if (!takes || m_replies.size() > 500) {
            return WireState::Blocked;
        }
        sent = std::min<std::size_t>(size, 1000);
        m_input.append(bytes, sent);
        for (std::size_t end = 0; (end = m_input.find("\r\n")) != std::string::npos;) {
            Answer(m_input.substr(0, end));
            m_input.erase(0, end + 2);
        }
        return WireState::Moved;
    }
    WireState Receive(char* room, std::size_t size, std::size_t& received) override
    {
        received = m_replies.copy(room, size);
        m_replies.erase(0, received);
        return received == 0 ? WireState::Blocked : WireState::Moved;
    }
    bool Wait(bool toSend, std::int64_t milliseconds) override
    {
        waits.push_back(milliseconds);
        return !m_replies.empty() || (toSend && takes);
    }

private:
    void Answer(const std::string& line)
    {
        if (m_body && line != ".") {
            return;
        }
        commands.push_back(line);
        if (!line.starts_with(silentAt)) {
            m_replies += line == "DATA" ? "354 go\r\n" : "250 ok, and so on and on and on\r\n";
        }
        m_body = line == "DATA";
    }
    std::string m_input, m_replies;
    bool m_body = false;
};

class CShortSource : public CMessageSource
{
public:
    void Begin(CMail& /*job*/) override {}
    Pulled Next(char* room, std::int32_t /*size*/) override
    {
        *room = 'x';
        return {1, PullState::End};
    }
};

} // namespace

TEST(SubmissionDialogue, WaitsNoLongerThanItsLimits)
{
    const struct
    {
        const char* silentAt;
        bool takes;
        std::int64_t limit;
        const char* text;
    } cases[] = {{"MAIL", true, 300'000, "The server is silent."},
                 {"RCPT", true, 300'000, "The server is silent."},
                 {"DATA", true, 300'000, "The server is silent."},
                 {".", true, 600'000, "The server is silent."},
                 {"nothing", false, 300'000, "The server takes no more data."}};
    for (const auto& row : cases) {
        CTightServer server;
        server.silentAt = row.silentAt;
        server.takes = row.takes;
        CSubmissionDialogue dialogue(server, {});
        CShortSource source;
        const SubmissionFailure failure = dialogue.Deliver({"a@b.c", {"d@e.f"}}, source, -1);
        EXPECT_EQ(failure.code, codes::kDroppedConnection) << row.silentAt;
        EXPECT_EQ(failure.text, row.text);
        EXPECT_FALSE(dialogue.IsUsable());
        ASSERT_EQ(server.waits.size(), 1U) << row.silentAt;
        EXPECT_LE(server.waits[0], row.limit);
        EXPECT_GT(server.waits[0], row.limit - 10'000);
        EXPECT_FALSE(dialogue.IsQuiet());
    }
}

TEST(SubmissionDialogue, ReadsWhileItWritesToManyRecipients)
{
    CTightServer server;
    CSubmissionDialogue dialogue(server, SubmissionOffer::Read("test\npipelining\nSIZE 100\n"));
    CShortSource source;
    SubmissionEnvelope envelope = {"a@b.c", {}};
    for (int i = 0; i < 10'000; ++i) {
        envelope.recipients.push_back("recipient" + std::to_string(i) + "@host.example");
    }
    EXPECT_EQ(dialogue.Deliver(envelope, source, 5).text, "");
    ASSERT_EQ(server.commands.size(), 10'003U);
    EXPECT_EQ(server.commands[0], "MAIL FROM:<a@b.c> SIZE=5");
    EXPECT_EQ(server.commands[10'000], "RCPT TO:<recipient9999@host.example>");
    EXPECT_TRUE(dialogue.IsQuiet());
    dialogue.Quit();
    EXPECT_EQ(server.commands.back(), "QUIT");
}
