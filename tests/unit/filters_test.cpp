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

// All that `read` of the filter gives in rooms of that capacity.
template<class Filter>
static std::string All(Filter& filter, bool (Filter::*read)(char*, std::int32_t&), std::int32_t capacity)
{
    std::string all;
    for (std::int32_t length = capacity; length > 0;) {
        std::string buffer(static_cast<std::size_t>(capacity) + 1, '#');
        EXPECT_TRUE((filter.*read)(buffer.data(), length = capacity));
        EXPECT_EQ(buffer.back(), '#');
        all += buffer.substr(0, static_cast<std::size_t>(length));
    }
    return all;
}

TEST(Filters, ChangeTextWhereverItIsCut)
{
    std::mt19937 random;
    std::vector<std::string> texts = {"\na\nb\r\nc\rd\n\n\r\r\n\n\r\n" + std::string(600, '\n') + "\xFF\r"};
    for (const std::string& alphabet :
         {std::string("\r\n"), "a\n" + std::string(20, 'b'), "\r\n" + std::string(40, 'c')}) {
        std::ranges::generate(texts.emplace_back(700, '\0'),
                              [&] { return alphabet[random() % alphabet.size()]; });
    }
    CrLfFilterIo filter;
    for (const std::string& text : texts) {
        const std::string wanted = std::regex_replace(text, std::regex("\r?\n"), "\r\n");
        CutMemory source;
        EXPECT_TRUE(source.Write(text.data(), static_cast<std::int32_t>(text.size())));
        for (source.cut = 0; source.cut <= 60; ++source.cut) {
            for (const std::int32_t capacity : {3, 33, 64, 1000, 4000}) {
                source.lends = source.cut % 4 != 3;
                source.SeekBegin(0);
                filter.Restart(&source); // forgets the last byte of the pass before
                EXPECT_EQ(All(filter, &CrLfFilterIo::ReadText, capacity), wanted)
                    << source.cut << ", " << capacity;
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
    CutMemory cut; // after 130 bytes, with no more than a line at once
    cut.lends = false;
    cut.cut = 130;
    EXPECT_TRUE(cut.Write(bytes.data(), 200));
    for (const std::int32_t capacity : {79, 156, 157, 1000, 65536}) {
        IOFile file;
        file.SetName("lines.bin");
        CBase64FilterIo filter(&file);
        EXPECT_EQ(All(filter, &CBase64FilterIo::ReadLines, capacity), wanted) << capacity;
        filter.SetInner(&cut);
        cut.SeekBegin(0);
        CEString encoded;
        CEString::EncodeBase64(bytes.data() + 114, 16, encoded);
        const std::string lines = All(filter, &CBase64FilterIo::ReadLines, capacity);
        EXPECT_EQ(lines.substr(0, 2 * 78 + 26), wanted.substr(0, 2 * 78) + encoded.CStr() + "\r\n");
        EXPECT_EQ(lines.size(), 2U * 78 + 26 + 78 + 22);
    }
}
