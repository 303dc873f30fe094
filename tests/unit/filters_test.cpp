#include "src/iofilter.h"

#include <algorithm>

#include "src/base64line.h"
#include "src-baselib/iofile.h"
#include "src-baselib/iomem.h"
#include "tests/unit/helpers.h"

struct CutMemory : IOMemory // ends a read at the cut, whatever is asked for
{
    std::int64_t cut = 0;
    bool lends = true;
    bool Read(void* buffer, std::int32_t& length) override
    {
        length = Tell() < cut ? std::min(length, static_cast<std::int32_t>(cut - Tell())) : length;
        return IOMemory::Read(buffer, length);
    }
    const char* Lend(std::int32_t& length, std::int32_t unit) override
    {
        length = Tell() < cut ? std::min(length, static_cast<std::int32_t>(cut - Tell())) : length;
        return lends ? IOMemory::Lend(length, unit) : nullptr;
    }
};

static std::string Through(IOFilter& filter, const std::string& text, std::size_t cut, std::int32_t capacity)
{
    CutMemory source;
    source.cut = static_cast<std::int64_t>(cut);
    EXPECT_TRUE(source.Write(text.data(), static_cast<std::int32_t>(text.size())) && source.SeekBegin(0));
    filter.SetInner(&source);
    std::string all;
    for (std::int32_t length = capacity; length > 0;) {
        std::string buffer(static_cast<std::size_t>(capacity) + 4, '#');
        EXPECT_TRUE(filter.Read(buffer.data(), length = capacity) && buffer.back() == '#');
        all += buffer.substr(0, static_cast<std::size_t>(length));
    }
    filter.SetInner(nullptr);
    return filter.Read(nullptr, capacity) || capacity != 0 ? "read without a source" : all;
}

TEST(Filters, ChangeTextWhereverItIsCut)
{
    CrLfFilterIo crLf;
    CBase64FilterIo base64;
    const std::string text = "\na\nb\r\nc\rd\n\n\r\r\n\n\r\n" + std::string(600, '\n') + "\xFF\r";
    const std::string wanted = std::regex_replace(text, std::regex("\r?\n"), "\r\n");
    for (std::size_t cut = 0; cut <= 130; ++cut) {
        for (const std::int32_t capacity : {4, 7, 75, 76, 4000}) {
            crLf.Restart(nullptr); // forgets the last byte of the pass before
            EXPECT_EQ(Through(crLf, text, cut, capacity), wanted) << cut << ", " << capacity;
            const std::regex line(".{1," + std::to_string(std::min(capacity / 4 * 4, 76)) + "}");
            std::string lines;
            for (const std::string& part : {text.substr(0, cut), text.substr(cut, 130 - cut)}) {
                CEString encoded;
                CEString::EncodeBase64(part.data(), static_cast<std::int64_t>(part.size()), encoded);
                lines += std::regex_replace(encoded.CStr(), line, "$&\r\n");
            }
            EXPECT_EQ(Through(base64, text.substr(0, 130), cut, capacity), lines) << cut << ", " << capacity;
        }
    }
}

TEST(Filters, ChangeTextInBlocksWhereverItIsCut)
{
    std::mt19937 random;
    for (const std::string& alphabet :
         {std::string("\r\n"), "a\n" + std::string(20, 'b'), "\r\n" + std::string(40, 'c')}) {
        std::string text(700, '\0');
        std::ranges::generate(text, [&] { return alphabet[random() % alphabet.size()]; });
        const std::string wanted = std::regex_replace(text, std::regex("\r?\n"), "\r\n");
        CutMemory source;
        EXPECT_TRUE(source.Write(text.data(), 700));
        for (source.cut = 0; source.cut <= 40; ++source.cut) {
            for (const std::int32_t capacity : {3, 33, 64, 1000, 4000}) {
                source.lends = source.cut % 8 != 7;
                source.SeekBegin(0);
                CrLfFilterIo filter;
                filter.Restart(&source);
                std::string all;
                for (std::int32_t length = capacity; length > 0;) {
                    std::string buffer(static_cast<std::size_t>(capacity) + 1, '#');
                    EXPECT_TRUE(filter.ReadText(buffer.data(), length = capacity));
                    EXPECT_EQ(buffer.back(), '#');
                    all += buffer.substr(0, static_cast<std::size_t>(length));
                }
                EXPECT_EQ(all, wanted) << source.cut << ", " << capacity;
            }
        }
    }
}

TEST(Filters, EncodeFilesManyLinesAtOnce)
{
    std::mt19937 random;
    std::string bytes(57 * 900 + 20, '\0'); // behind several read-aheads, the last line is a short one
    std::ranges::generate(bytes, [&random] { return static_cast<char>(random()); });
    std::ofstream("lines.bin", std::ios::binary) << bytes;
    CEString whole;
    CEString::EncodeBase64(bytes.data(), static_cast<std::int64_t>(bytes.size()), whole);
    const std::string wanted = std::regex_replace(whole.CStr(), std::regex(".{1,76}"), "$&\r\n");

    for (std::size_t rank = 0; FindBase64LinesEncoder(rank) != nullptr; ++rank) {
        std::string lines(900 * 78 + 1, '#');
        FindBase64LinesEncoder(rank)(bytes.data(), 900, lines.data());
        EXPECT_EQ(lines, wanted.substr(0, 900 * 78) + "#") << rank;
    }
    for (const std::int32_t capacity : {79, 156, 157, 1000, 65536}) {
        IOFile file;
        file.SetName("lines.bin");
        CBase64FilterIo filter(&file);
        std::string all;
        for (std::int32_t length = capacity; length > 0;) {
            std::string buffer(static_cast<std::size_t>(capacity) + 1, '#');
            EXPECT_TRUE(filter.ReadLines(buffer.data(), length = capacity) && buffer.back() == '#');
            all += buffer.substr(0, static_cast<std::size_t>(length));
        }
        EXPECT_EQ(all, wanted) << capacity;
    }
}
