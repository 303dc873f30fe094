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
        EXPECT_TRUE(!to.Error("early") && to.EnsureWritable() && to.Error("E") && to.Warning("%c", 'W'));
        EXPECT_TRUE(to.Info("I") && to.Normal("N") && (!to.IsActive(TraceLevel::Debug) || to.Error("D")));
        EXPECT_EQ(Lines("x-t4711.y"), std::string("1:HEAD|2:E|3:W|4:I|5:N|6:D|").substr(0, length)) << level;
    }
}

TEST(TraceFile, MovesToALetterWhenAnotherWriterHoldsTheFile)
{
    std::vector<std::unique_ptr<Writer>> writers;
    for (const char letter : std::string("-abcdefghijklmnopqrstuvwxyz")) {
        RaiseError(5); // of an earlier failure: still to be told to the host
        writers.push_back(std::make_unique<Writer>("held.y"));
        EXPECT_TRUE(writers.back()->EnsureWritable() && TakeError() == 5);
        const std::string name = letter == '-' ? "held-t4711.y" : std::string("held-t4711-") + letter + ".y";
        EXPECT_EQ(writers.back()->GetFileName().View(), name);
    }
    Writer last("held-t4711.y"); // it carries the thread already
    EXPECT_TRUE(!last.EnsureWritable() && TakeError() == 17 && !last.EnsureWritable() && TakeError() == 17);
    writers[3].reset();
    EXPECT_TRUE(last.EnsureWritable() && TakeError() == 0);
    EXPECT_EQ(Lines("held-t4711-c.y") + Lines("held-t4711.y"),
              "1:HEAD|2:Opened new trace file 'held-t4711-c.y', because of a writing conflict with file "
              "'held-t4711.y'|1:HEAD|"); // nobody empties the file that is held
}

TEST(TraceFile, SwitchesToAnotherFileAndCutsLongMessages)
{
    Writer writer("one");
    EXPECT_TRUE(writer.EnsureWritable() && writer.Warning("w") && writer.SwitchFile("one")); // stays
    EXPECT_TRUE(writer.SwitchFile("two") && writer.Normal("%3000d", 1) && writer.WriteText("%s"));
    EXPECT_TRUE(writer.GetWarningCount() == 1 && writer.GetProblems().GetAt(0) == "one-t4711 (1): w \r\n");
    EXPECT_FALSE(writer.SwitchFile("no/x") || writer.IsOpen() || TakeError() != 0); // not the host's error
    EXPECT_TRUE(writer.SwitchFile("one") && writer.SwitchFile("") && !writer.Error("e"));
    EXPECT_EQ(Lines("two-t4711"), "1:HEAD|2:Previous tracefile 'one-t4711'|3:" + std::string(2047, ' ') +
                                      "|4:%s|5:New tracefile 'no/x-t4711'|6:Trace closed.|");
    EXPECT_EQ(CTraceFile::RuntimeText({4294967295, 900000000}, {90060, 100000000}),
              "25:01:00,200"); // wrapped
}
