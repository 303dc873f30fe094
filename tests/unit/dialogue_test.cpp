#include "src/transport/messagefeed.h"
#include "src/mail.h"
#include "src/transport/dialoguemonitor.h"
#include "src/transport/libesmtp.h"
#include "src/transport/sockettexts.h"
#include "src/transport/transporttrace.h"

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

// Gives out as many pieces, as long, and ends or fails for good; a length of 0 is the room's.
struct ScriptedSource : CMessageSource
{
    std::int32_t pieces = 0, length = 0;
    PullState end = PullState::End;
    std::int32_t calls = 0;
    std::string given;
    void Begin(CMail& /*job*/) override
    {
        calls = 0;
        given.clear();
    }
    Pulled Next(char* room, std::int32_t size) override
    {
        if (++calls > pieces) {
            return end == PullState::Failed && length == 1 ? throw std::bad_alloc() : Pulled{0, end};
        }
        const std::int32_t count = length == 0 ? size : length;
        std::fill_n(room, count, static_cast<char>('a' + calls));
        given.append(room, static_cast<std::size_t>(count));
        return {count, calls == pieces && length > 1 ? end : PullState::More};
    }
};

TEST(MessageFeed, HandsOverWhatItPullsStaysEndedOrFailedAndGivesUpAfterAStall)
{
    static std::int64_t now;
    ScriptedSource source;
    CTransportSocket socket;
    CDialogueMonitor monitor;
    CMail job;
    CMessageFeed feed(source, monitor, socket, [] { return now; });
    const auto take =
        [&feed](int error) { // the next chunk; empty at the end, which must come with this error
            int size = -1;
            const char* const data = feed.Next(size);
            EXPECT_EQ(errno, data == nullptr ? error : 0);
            return std::string(data == nullptr ? "" : data, static_cast<std::size_t>(size));
        };
    const std::tuple<std::int32_t, std::int32_t, PullState, int> scripts[] = {
        {0, 9, PullState::End, 0},        {1, 9, PullState::End, 0},      {3, 1, PullState::End, 0},
        {9, 0, PullState::End, 0},        {0, 9, PullState::Failed, EIO}, {3, 9, PullState::Failed, EIO},
        {3, 1, PullState::Failed, ENOMEM}};
    for (const bool inData : {false, true}) {
        const std::string command = inData ? "DATA\r\n" : "BDAT 9\r\n";
        CDialogueMonitor::Callback(command.data(), static_cast<int>(command.size()), SMTP_CB_WRITING,
                                   &monitor);
        for (const auto& [pieces, length, end, error] : scripts) {
            source.pieces = pieces;
            source.length = length;
            source.end = end;
            EXPECT_EQ(feed.Begin(job, 0), nullptr);
            std::string all;
            std::size_t longest = 0;
            for (std::string chunk = take(error); !chunk.empty(); chunk = take(error)) {
                all += chunk;
                longest = std::max(longest, chunk.size());
            }
            EXPECT_EQ(all, source.given) << pieces;
            EXPECT_EQ(take(error) + take(error), "");
            EXPECT_EQ(longest, length > 0 ? static_cast<std::size_t>(std::min(pieces, 1) * length)
                               : inData   ? std::size_t{65536}
                                          : std::size_t{524288});
            EXPECT_LE(source.calls, pieces + 1);
            EXPECT_EQ(TakeError(), error == ENOMEM ? 10 : 0);
        }
    }
    source.pieces = 3;
    source.length = 0;
    for (const int late : {0, 1}) {
        feed.Begin(job, 0);
        now += 2 * CMessageFeed::kStallMilliseconds; // nothing waits for the first
        EXPECT_EQ(take(0).size(), 8192U);
        now += CMessageFeed::kStallMilliseconds - 1 + late;
        EXPECT_EQ(take(ETIMEDOUT).size(), late == 1 ? 0U : 16384U);
    }
}
