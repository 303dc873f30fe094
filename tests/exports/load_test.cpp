// The library comes and goes with hosts that load it at run time, their threads in any order with it.
#include <algorithm>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "system.h"
#include "tools/hostlibrary.h"
#include "velmail.h"

namespace {

struct CLibrary
{
    std::string reason;
    HostLibrary module = LoadHostLibrary(VELMAIL_LIBRARY, reason);
    decltype(&VelMailSetProperty) set = Find<decltype(set)>("VelMailSetProperty");
    decltype(&VelMailConnect) connect = Find<decltype(connect)>("VelMailConnect");

    template<class Function>
    Function Find(const char* name) const
    {
        return reinterpret_cast<Function>(FindHostFunction(module, name));
    }
};

TEST(Load, LeavesNothingBehindWithThreadsThatComeAndGo)
{
    const CTempFolder folder;
    const std::string setting = folder.Path("host.log") + ";ERROR";
    Holdings before = {};
    for (int round = 0; round < 300; ++round) {
        if (round == 100) { // what the system and the C runtime keep for themselves is there by now
            before = CountHoldings();
        }
        // A file for each thread: of all rounds they would slow the folder down.
        SetEnvironment("VEL_MAILTRACE", round % 10 == 0 ? setting.c_str() : nullptr);
        CLibrary library;
        ASSERT_NE(library.set, nullptr);
        std::vector<std::thread> threads;
        for (int i = 0; i < 20; ++i) {
            threads.emplace_back([&library] { // each ends connected
                EXPECT_EQ(library.set("MailSubject", "thread"), 1);
                EXPECT_EQ(library.connect(), 1);
            });
        }
        std::ranges::for_each(threads, &std::thread::join);
        ASSERT_TRUE(UnloadModule(library.module));
    }
    const Holdings after = CountHoldings();
    EXPECT_LE(after.handles, before.handles + 10);
    EXPECT_LE(after.slots, before.slots);
    EXPECT_LE(after.bytes, before.bytes + UncertainBytes());
    SetEnvironment("VEL_MAILTRACE", nullptr);
}

TEST(Load, IsOutlivedByThreads)
{
    const CTempFolder folder;
    SetEnvironment("VEL_MAILTRACE", folder.Path("host.log").c_str());
    for (int round = 0; round < 50; ++round) {
        CLibrary library;
        ASSERT_NE(library.set, nullptr);
        EXPECT_EQ(library.set("MailSubject", "main"), 1);
        std::promise<void> used;
        std::promise<void> unloaded;
        std::thread outliving([&] { // ends after the library: nothing of it may run then
            EXPECT_EQ(library.set("MailServer", ""), 1);
            used.set_value();
            unloaded.get_future().wait();
        });
        used.get_future().wait();
        EXPECT_TRUE(UnloadModule(library.module));
        unloaded.set_value();
        outliving.join();
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            EXPECT_EQ(ReadFile(entry.path().string()).substr(0, 5), "   1 ");
        }
    }
    SetEnvironment("VEL_MAILTRACE", nullptr);
}

} // namespace
