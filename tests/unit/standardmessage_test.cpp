#include "src/submission/standardmessage.h"

#include "src-baselib/errorcodes.h"
#include "standardjob.h"
#include "tests/unit/helpers.h"

namespace {
// The values, which stand with "|" between them.
std::vector<std::string> Cut(const std::string& values)
{
    std::vector<std::string> cut(1);
    for (const char c : values) {
        c == '|' ? cut.emplace_back().clear() : cut.back().push_back(c);
    }
    return cut;
}
} // namespace

TEST(StandardComposer, RefusesWhatCannotStandInAMessage)
{
    using Set = void (*)(StandardJob&, const std::string&);
    const Set header = [](StandardJob& job, const std::string& lines) {
        job.SetAdditionalHeader(CEString(std::string_view(lines)));
    };
    const Set to = [](StandardJob& job, const std::string& box) { StandardJob::Add(job.To(), box, "Name"); };
    const Set type = [](StandardJob& job, const std::string& text) {
        job.Text().SetContentType(text.c_str());
    };
    const Set parts = [](StandardJob& job, const std::string& text) {
        job.Text().SetContentType("multipart/alternative; boundary=x");
        job.SetContent(job.Text(), text);
    };
    const Set charset = [](StandardJob& job, const std::string& name) { job.SetCharset(name.c_str()); };
    const std::string a998(998, 'a');
    const struct Group
    {
        Set set;
        int code;
        std::vector<std::string> values;
    } groups[] = {
        {header,
         0,
         {"", "X-A: b\r\n", "X-A: b\nX-B:\n c\n\td", "Received-SPF: b\nContent: c\nTo-Do: d",
          "X-A: " + a998.substr(5), "X-A: \xfc " + a998 + a998, "X-A: \xfc\n " + a998 + a998}},
        {header, codes::kInvalidValue,
         Cut("X-A: " + a998.substr(4) + "|" + a998 + ": \xfc|no field|: x|X A: x|X-A : x|X-\xfc: x| X-A: x|" +
             "X-A: x\n\nbody|X-A: x\n \n|X-A: x\rBcc: y|X-A: x\r\r\nX-B: y|X-A: x\x01|" +
             std::string("X-A: \0x|", 8) +
             "X-A: x\nbCC: y|CONTENT-Foo: x|Mime-Version: 1.0|from: x|Date: x|" +
             "sender-x: y\nTO: y|Cc: y|Subject: y|message-id: <y>|Reply-To: y|X-User-Agent: y|Return-Path: "
             "y|" +
             "Received: y|Resent-Bcc: y")},
        {charset, 0, {"", "utf-8", "Windows-1252", "iso-8859-1"}},
        {charset, codes::kInvalidValue, {"UTF8", "UTF-16", "UTF-8 "}},
        {to, 0, {"a@host.example", "a@[127.0.0.1]", "root", std::string(320, 'a')}},
        {to, codes::kInvalidAddress,
         Cut("|\xfc@host.example|a@h\xc3\xbcst.example|a@host>, <b@host|a@host,b@host|a@host\r\nBcc: b@host|"
             "a b@host|a\x7f@host|" +
             std::string(321, 'a'))},
        {type, 0, {"", "text/plain;", " text/html ;charset=x ; b=\"c;\\\"d\";;e=f", "application/x+y.z"}},
        {type, codes::kInvalidValue,
         Cut(std::string("html|text/|/plain|text/plain charset=x|text/plain; charset|text/plain; charset=|") +
             "text/plain; charset = x|text/plain; a=b; A=c|text/plain; a=\"b|text/plain; a=\"b\\|text/plain; "
             "a=\xfc|" +
             "text/plain\r\nBcc: x|text/plain; a=\"b\r\nBcc: x\"|text/<x>|text/plain; a=" + a998)},
        {parts, 0, {"--x\r\n\r\na\r\n--x--"}},
        {parts, codes::kInvalidValue, {"--x\r\n\r\n\xfc\r\n--x--", a998 + "a"}},
        {[](StandardJob& job, const std::string& name) { job.Attach("a", name.c_str()); },
         codes::kInvalidValue,
         {"pdf"}},
        {[](StandardJob& job, const std::string& blocks) { job.Text().SetMemory(blocks.c_str()); },
         codes::kMailText,
         {"", "1"}},
    };
    for (const Group& group : groups) {
        for (const std::string& value : group.values) {
            StandardJob job;
            group.set(job, value);
            CStandardComposer composer;
            EXPECT_EQ(composer.Prepare(job, "id@host.example"), group.code == 0)
                << &group - groups << ": " << value;
            EXPECT_EQ(TakeError(), group.code) << &group - groups << ": " << value;
        }
    }
}

TEST(StandardComposer, EndsAMessageThatCannotBeReadWhole)
{
    const std::string content =
        std::regex_replace(std::string(300, '\n'), std::regex("\n"), std::string(900, 'x') + "\n");
    const auto write = [](const std::string& name, const std::string& text) {
        std::ofstream(name, std::ios::binary) << text;
    };
    const struct Fault
    {
        std::string file; // what becomes of it between the check and the message
        std::string text; // empty: it is not there any more
        int code;
    } faults[] = {
        {"text.txt", content, 0},
        {"text.txt", "short", codes::kMailText},
        {"text.txt", "\xfc" + content, codes::kMailText},
        {"text.txt", std::string(content.size(), 'x'), codes::kMailText},
        {"text.txt", "", codes::kFile},
        {"attached.bin", "\xfc" + content, 0},
        {"attached.bin", "short", codes::kAttachment},
        {"attached.bin", "", codes::kFile},
    };
    for (const Fault& fault : faults) {
        write("text.txt", content);
        write("attached.bin", content);
        StandardJob job;
        CMailAttachment& attachment = job.Attach("attached.bin");
        for (CMailDocument* const document :
             {static_cast<CMailDocument*>(&job.Text()), static_cast<CMailDocument*>(&attachment)}) {
            document->SetMemory("");
            document->SetFileName(document == &attachment ? "attached.bin" : "text.txt");
            ASSERT_TRUE(document->CheckFile());
        }
        CStandardComposer composer;
        char room[CMessageSource::kSmallestRoom];
        EXPECT_EQ(composer.Next(room, sizeof room).state, PullState::Failed) << "before the first";
        ASSERT_TRUE(composer.Prepare(job, "id@host.example"));
        std::filesystem::remove(fault.file);
        if (!fault.text.empty()) {
            write(fault.file, fault.text);
        }
        const PullState wanted = fault.code == 0 ? PullState::End : PullState::Failed;
        EXPECT_EQ(Composed(composer, job, sizeof room).state, wanted) << &fault - faults;
        EXPECT_EQ(TakeError(), fault.code) << &fault - faults;
        const Pulled again = composer.Next(room, sizeof room);
        EXPECT_EQ(again.state, wanted) << &fault - faults;
        EXPECT_EQ(again.count, 0) << &fault - faults;
        StandardJob other;
        ASSERT_TRUE(composer.Prepare(other, "id@host.example"));
        EXPECT_EQ(Composed(composer, other, 65536).state, PullState::End)
            << &fault - faults << " and the next";
    }
}

TEST(StandardComposer, SaysHowLargeAMessageIsAtMost)
{
    StandardJob job;
    job.Attach("a.bin");
    for (const std::string& text :
         {std::string(), std::string(999, '.'), std::string(30'000, '.'), std::string("= \n"),
          std::string(500, '\n') + "\xfc", std::string(5000, '\xfc')}) {
        job.SetContent(job.Text(), text);
        CStandardComposer composer;
        ASSERT_TRUE(composer.Prepare(job, "id@host.example"));
        const auto size = static_cast<std::int64_t>(Composed(composer, job, 65536).text.size());
        EXPECT_GE(composer.EstimateSize(), size) << text.substr(0, 9);
        EXPECT_LE(composer.EstimateSize(), size + size / 8 + 2500) << text.substr(0, 9);
    }
    job.Attach("b.bin").SetMemory(""); // a file of no known size
    CStandardComposer composer;
    ASSERT_TRUE(composer.Prepare(job, "id@host.example"));
    EXPECT_EQ(composer.EstimateSize(), -1);
}
