#include "src-baselib/tracefile.h"

#include "tests/unit/helpers.h"

struct Writer : CTraceFile // of a second thread: the file's name carries this id in any order of the tests
{
    explicit Writer(const std::string& what) : CTraceFile("VEL job", what.c_str(), kBuiltInVariable, 4711) {}
};

// A trace file with "1:" for each line's number and time, "|" for its end, and a word for the header.
static std::string Lines(const std::string& name)
{
    const std::regex prefix(R"((?: {3}(\d)| {2}(\d\d)) \d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d,\d{3} )");
    const std::regex header(R"(VEL job Version \S* \(0x01030002\) vom \w{3} [ \d]\d \d{4}, \d\d:\d\d:\d\d)");
    std::ifstream file(name, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const std::string lines = std::regex_replace(std::regex_replace(text, prefix, "$1$2:"), header, "HEAD");
    return std::regex_replace(lines, std::regex("\r\n"), "|");
}

TEST(TraceFile, WritesTheLevelsUpToTheConfiguredOne)
{
    const std::pair<const char*, std::size_t> cases[] = {{";ERROR", 11}, {";WARNING", 15}, {";INFO", 19},
                                                         {"", 23},       {";DEBUG", 27},   {";debug", 27}};
    for (const auto& [level, length] : cases) {
        Writer to(std::string("x.y") + level);
        EXPECT_EQ(Failed({!to.Error("early"), to.EnsureWritable(), to.Error("E"), to.Warning("%c", 'W')}), 0);
        EXPECT_EQ(Failed({to.Info("I"), to.Normal("N"), (!to.IsActive(TraceLevel::Debug) || to.Error("D"))}),
                  0);
        EXPECT_EQ(Lines("x-t4711.y"), std::string("1:HEAD|2:E|3:W|4:I|5:N|6:D|").substr(0, length)) << level;
    }
}

TEST(TraceFile, MovesToALetterWhenAnotherWriterHoldsTheFile)
{
    std::vector<std::unique_ptr<Writer>> writers;
    for (const char letter : std::string("-abcdefghijklmnopqrstuvwxyz")) {
        RaiseError(5); // of an earlier failure: still to be told to the host
        writers.push_back(std::make_unique<Writer>("held.y"));
        EXPECT_EQ(Failed({writers.back()->EnsureWritable(), TakeError() == 5}), 0);
        const std::string name = letter == '-' ? "held-t4711.y" : std::string("held-t4711-") + letter + ".y";
        EXPECT_EQ(writers.back()->GetFileName().View(), name);
    }
    Writer last("held-t4711.y"); // it carries the thread already
    EXPECT_EQ(Failed({!last.EnsureWritable(), TakeError() == 17, !last.EnsureWritable(), TakeError() == 17}),
              0);
    writers[3].reset();
    EXPECT_EQ(Failed({last.EnsureWritable(), TakeError() == 0}), 0);
    EXPECT_EQ(Lines("held-t4711-c.y") + Lines("held-t4711.y"),
              "1:HEAD|2:Opened new trace file 'held-t4711-c.y', because of a writing conflict with file "
              "'held-t4711.y'|1:HEAD|"); // nobody empties the file that is held
}

TEST(TraceFile, SwitchesToAnotherFileAndCutsLongMessages)
{
    Writer writer("one");
    EXPECT_EQ(Failed({writer.EnsureWritable(), writer.Warning("w"), writer.SwitchFile("one")}), 0); // stays
    EXPECT_EQ(Failed({writer.SwitchFile("two"), writer.Normal("%3000d", 1), writer.WriteText("%s")}), 0);
    EXPECT_EQ(
        Failed({writer.GetWarningCount() == 1, writer.GetProblems().GetAt(0) == "one-t4711 (1): w \r\n"}), 0);
    writer.SetBareLines(true);
    EXPECT_EQ(Failed({writer.Normal("bare"), writer.WriteText("%n")}), 0);
    writer.SetBareLines(false);
    EXPECT_EQ(Failed({!writer.SwitchFile("no/x"), !writer.IsOpen(), TakeError() == 0}),
              0); // not the host's error
    EXPECT_EQ(Failed({writer.SwitchFile("one"), writer.SwitchFile(""), !writer.Error("e")}), 0);
    EXPECT_EQ(Lines("two-t4711"), "1:HEAD|2:Previous tracefile 'one-t4711'|3:" + std::string(2047, ' ') +
                                      "|4:%s|bare|%n|7:New tracefile 'no/x-t4711'|8:Trace closed.|");
    EXPECT_EQ(CTraceFile::RuntimeText({4294967295, 900000000}, {90060, 100000000}),
              "25:01:00,200"); // wrapped
}
