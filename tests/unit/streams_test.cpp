#include "src-baselib/iofile.h"
#include "src-baselib/iomem.h"
#include "tests/unit/helpers.h"

static constexpr std::int32_t kChunk = 65536;

static std::string Text(std::size_t size)
{
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [i = 0]() mutable { return static_cast<char>(i++ % 251); });
    return text;
}

static bool Put(IOElement& stream, const std::string& text)
{
    return stream.Write(text.data(), static_cast<std::int32_t>(text.size()));
}

static std::string Take(IOElement& stream, std::int32_t most, bool atMark = false)
{
    std::string text(static_cast<std::size_t>(most), '#');
    EXPECT_TRUE(atMark ? stream.ReadAtMark(text.data(), most) : stream.Read(text.data(), most));
    return text.substr(0, static_cast<std::size_t>(most));
}

TEST(MemoryStream, KeepsChunksOverwritesWithinOneAndFillsGaps)
{
    std::string block = Text(400);
    std::string copy(401, '#');
    CTextCache cache(10);
    EXPECT_EQ(Failed({cache.AppendReference(block.data(), 100), cache.Append(block.data() + 100, 300),
                      cache.GetItemCount() == 4, cache.GetItemData(0) == block.data()}), // chunks of 100 now
              0);
    EXPECT_EQ(Failed({!cache.CopyTo(copy.data(), 399), cache.CopyTo(copy.data(), 401), copy == block + "#"}),
              0);
    const std::tuple<const char*, int, const char*, const char*> cases[] = {{"abcdef", 2, "XY", "abXYef"},
                                                                            {"abcdef", 4, "XYZ", "abcdXYZ"},
                                                                            {"abc", 1, "", "abc"},
                                                                            {"ab", 4, "XY", "ab00XY"},
                                                                            {"", 1, "X", "0X"}};
    for (const auto& [first, place, second, wanted] : cases) {
        IOMemory memory;
        EXPECT_EQ(Failed({Put(memory, first), memory.SeekBegin(place), Put(memory, second),
                          memory.SeekCurrent(-memory.Tell())}),
                  0)
            << wanted;
        std::string all = Take(memory, 99);
        std::replace(all.begin(), all.end(), '\0', '0');
        EXPECT_EQ(all, wanted);
    }
    std::string text = Text(2 * kChunk);
    IOMemory memory;
    EXPECT_EQ(Failed({Put(memory, text), memory.SeekBegin(kChunk - 3), Put(memory, "0123456789")}), 0);
    text = text.replace(kChunk - 3, 3, "012") + "3456789";
    EXPECT_EQ(Failed({memory.SetMark(), Take(memory, 100000) == text.substr(kChunk + 7), memory.IsAtEnd()}),
              0);
    EXPECT_EQ(Failed({Take(memory, 8, true) == text.substr(kChunk + 7, 8), memory.SeekBegin(0)}), 0);
    EXPECT_EQ(Failed({!memory.SeekCurrent(-1), !memory.SeekBegin(-1), !memory.IsMarkAtEnd(),
                      memory.GetDirectPointer(2 * kChunk, 7) == nullptr,
                      memory.GetDirectPointer(65535, 2) == nullptr}),
              0);
}

TEST(MemoryStream, HandsFullChunksToASinkAndStartsItOver)
{
    IOMemory memory;
    std::string taken;
    const std::string all = Text(kChunk + 9);
    const auto take = [](const void* data, std::int64_t length, void* user, int) {
        const std::string_view piece(static_cast<const char*>(data), static_cast<std::size_t>(length));
        auto& text = *static_cast<std::string*>(user);
        text = data == nullptr ? std::string() : text.append(piece);
        return piece != "refused";
    };
    memory.SetDataSink(take, &taken);
    EXPECT_EQ(Failed({Put(memory, all), Put(memory, "pending"), taken == all, Put(memory, all)}), 0);
    EXPECT_EQ(taken, all + "pending" + all);
    EXPECT_EQ(Failed({memory.SeekBegin(0), Put(memory, "XY"), taken.empty(), memory.Flush()}), 0); // anew
    EXPECT_EQ(taken, "XY" + all.substr(2) + "pending" + all);
    EXPECT_EQ(Failed({memory.Close(), taken.empty(), !Put(memory, "refused"), TakeError() == 196}), 0);
}

TEST(MemoryStream, ReadsListsOfBlocks)
{
    const auto content = [block = std::string("01234")](const char* list) { // "@" stands for its address
        const std::string at = std::to_string(reinterpret_cast<std::uintptr_t>(block.data()));
        IOMemory memory;
        const bool read = memory.SetMemoryBlocks(std::regex_replace(list, std::regex("@"), at).c_str());
        return (read ? "" : "bad") + Take(memory, 99);
    };
    EXPECT_EQ(content("") + content("@;2;") + " " + content("0;0;@;2;@;0;@;5"), "01 0101234");
    for (const char* const list :
         {";", "@", "@;", "@;5;;", "@;5;@", ";5", "@;;@;5", "0;5", "@;-1", "-5;1", "x;5", "@;5x", " @;5",
          "@;+5", "@;9223372036854775808", "@;18446744073709551621", "18446744073709551615;2"}) {
        EXPECT_EQ(content(list), "bad") << list;
    }
}

TEST(Files, KeepTheirPlaceAndEndLinesWhileTheyReadAhead)
{
    const std::string text = Text(150000);
    std::ofstream("ahead", std::ios::binary) << text;
    IOFile file;
    file.SetName("ahead");
    std::minstd_rand random;
    for (std::size_t step = 0, place = 0; step < 3000; ++step) {
        if (step % 2 == 1) {
            place = random() % 160000; // also behind the end
            const auto next = static_cast<std::int64_t>(place);
            ASSERT_TRUE(step % 4 == 1 ? file.SeekEnd(next - 150000) : file.SeekCurrent(next - file.Tell()));
        }
        const std::size_t wanted = std::vector<std::size_t>{0, 1, 900, 65535, 65536, 99000}[random() % 6];
        const std::string read = Take(file, static_cast<std::int32_t>(wanted));
        ASSERT_EQ(read, text.substr(std::min(place, text.size()), wanted)) << "step " << step;
        ASSERT_EQ(file.Tell(), static_cast<std::int64_t>(place += read.size())) << "step " << step;
    }
    const std::string wanted = std::string(kChunk - 1, 'x') + "\na\n\nbc\ndef\n\ny"; // one on a chunk's end
    for (const std::string end : {"\r\n", "\r", "\n"}) {
        std::ofstream("lines", std::ios::binary) << std::regex_replace(wanted, std::regex("\n"), end);
        for (const std::size_t size : {3U, 4U, 5U, 6U, 100U, 70000U}) {
            AFile reader;
            std::string buffer(size, '#');
            std::string all;
            bool complete = false;
            reader.SetFileName("lines");
            EXPECT_TRUE(reader.Open());
            while (reader.ReadLine(buffer.data(), size, complete) && all.size() <= wanted.size()) {
                all += buffer.c_str();
                EXPECT_EQ(complete, all.ends_with('\n') || reader.IsEof());
            }
            EXPECT_EQ(Failed({all == wanted, !complete, buffer[0] == '\0'}), 0) << size << int{end.back()};
        }
    }
}

TEST(Files, WriteAppendMarkAndReportWhatFails)
{
    std::filesystem::create_directory("missing"); // where "\\" separates folders
    std::ofstream("missing\\file") << "old content";
    IOFile file;
    file.SetName("missing/file"); // what cannot be opened is tried with "\" for "/"
    EXPECT_EQ(Failed({Take(file, 3) == "old", file.SetMark(), Take(file, 99) == " content", file.IsAtEnd()}),
              0);
    EXPECT_EQ(
        Failed({Take(file, 4, true) == " con", file.SetMarkPosition(6), Take(file, 99, true) == "ntent"}), 0);
    file.SetName("missing\\file");
    file.SetAppend(true);
    EXPECT_EQ(
        Failed({Put(file, "+new"), file.SeekBegin(4), Take(file, 99) == "content+new", !file.SetMark()}), 0);
    file.SetAppend(false);
    EXPECT_EQ(Failed({Put(file, "new"), file.SeekBegin(1), Take(file, 1) == "e", Put(file, "t")}), 0);
    file.SetName(".");
    EXPECT_EQ(Failed({file.SeekBegin(0), Take(file, 9) == "net", TakeError() == 0, file.GetFile().Close()}),
              0);
    EXPECT_EQ(Failed({!file.IsAvailable(), file.GetSize() == 0, TakeError() == 121}), 0);
}
