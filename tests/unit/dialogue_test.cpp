#include "src/messagefeed.h"
#include "src/smtptrace.h"

#include "tests/unit/helpers.h"

TEST(PipeliningFilter, SpoilsTheKeywordInTheReplyToEhloAlone)
{
    const std::string hello = "220 mail ESMTP\r\n250-mail\r\n";
    const std::string cases[] = {
        // "_" stands where the last letter of the keyword was
        hello + "250-SIZE 9\r\n250-pipelinin_\r\n250- \tPIPELININ_ \r\n250 PIPELININ_ PIPELINING\r\n",
        hello + "250-PI\r\n250-XPIPELINING\r\n250-X-PIPELINING\r\n250-X PIPELINING\r\n250 PIPELININ_\r\n",
        "220-PIPELINING\r\n220-PIPELINING\r\n220 x\r\n250-x\r\n250 PIPELININ_\r\n",
        "220 mail\n250-mail\n250-PIPELININ_\n250 SIZE\n",               // line feeds alone
        "220 mail\r\n250-PIPELINING\r\n250 SIZE\r\n250 PIPELINING\r\n", // the server's name, and too late
        hello + "250-PIPELINING-X\r\n250 SIZE\r\n", // only the next byte tells: not to be cut there
        "220 mail\r\n502 no\r\n250-mail\r\n250 PIPELINING\r\n"};
    CPipeliningFilter filter;
    for (const std::string& wanted : cases) {
        const std::string given = std::regex_replace(wanted, std::regex("_"), "G");
        const std::size_t uncut = given.find("G-X") + 1;
        for (std::size_t step = 1; step <= given.size(); ++step) { // each offset is a cut, the last none
            std::string text = given;
            filter.Reset();
            for (std::size_t at = 0; at < text.size(); at += step) {
                filter.Filter(text.data() + at, std::min(step, text.size() - at));
            }
            EXPECT_TRUE(text == wanted || (uncut > 0 && uncut % step == 0)) << "by " << step << ":\n" << text;
        }
    }
}

struct Feed : CMessageFeed
{
    inline static std::tuple<std::size_t, std::size_t, int> script; // how many pieces, how long, the error
    inline static std::size_t calls;
    inline static std::string given;
    inline static std::int64_t now;
    static const char* Compose(void** /*context*/, int* size, void* /*job*/)
    {
        const auto& [pieces, length, error] = script;
        calls = size == nullptr ? 0 : calls + 1;
        errno = calls <= pieces ? EINTR : error != 0 ? error : errno; // beside a piece it means nothing
        given.resize(std::min(calls, pieces) * length, static_cast<char>(calls));
        const bool more = calls > 0 && calls <= pieces;
        return more ? *size = static_cast<int>(length), given.data() + given.size() - length : nullptr;
    }
    Feed() : CMessageFeed([] { return now; }) {}
    std::string Chunk(int error) // the next one; empty at the end, which must come with this error
    {
        int size = -1;
        const char* const data = Next(Compose, nullptr, size);
        EXPECT_EQ(errno, data == nullptr ? error : 0);
        return {data == nullptr ? "" : data, static_cast<std::size_t>(size)};
    }
};

TEST(MessageFeed, GathersPiecesStaysEndedOrFailedAndGivesUpAfterAStall)
{
    const decltype(Feed::script) scripts[] = {{0, 1, 0},     {1, 1, 0},   {3000, 78, 0}, {66, 999, 0},
                                              {65, 1000, 0}, {0, 9, EIO}, {9, 9, EIO},   {90, 1000, EIO}};
    Feed feed;
    for (const auto& script : scripts) {
        const auto& [pieces, length, error] = Feed::script = script;
        feed.Rewind(Feed::Compose, nullptr);
        std::string chunk = feed.Chunk(error);
        std::string all = chunk;
        for (; chunk.size() > 64536 && chunk.size() <= 65536; all += chunk) { // only the last may be small
            chunk = feed.Chunk(error);
        }
        EXPECT_TRUE(error == 0 ? all == Feed::given : Feed::given.starts_with(all)) << pieces;
        EXPECT_TRUE(feed.Chunk(error).empty() && feed.Chunk(error).empty() && Feed::calls == pieces + 1);
    }
    Feed::script = {130, 1000, 0};
    feed.Rewind(Feed::Compose, nullptr);
    for (const int late : {1, 0, 1, 1}) { // nothing waits for the first; the third would end the message
        Feed::now += CMessageFeed::kStallMilliseconds - 1 + late;
        EXPECT_EQ(feed.Chunk(ETIMEDOUT).size(), late == 1 && Feed::calls > 65 ? 0U : 65000U);
    }
}
