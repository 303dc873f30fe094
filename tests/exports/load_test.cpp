// The library comes and goes with hosts that load it at run time, their threads in any order with it.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "files.h"
#include "velmail.h"

namespace {

std::ptrdiff_t OpenFiles()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(Load, ComesAndGoesWithThreads)
{
    const CTempFolder folder;
    setenv("VEL_MAILTRACE", folder.Path("host.log").c_str(), 1);
    const std::ptrdiff_t before = OpenFiles();
    for (int round = 0; round < 50; ++round) {
        void* const library = dlopen(VELMAIL_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto set =
            reinterpret_cast<decltype(&VelMailSetProperty)>(dlsym(library, "VelMailSetProperty"));
        ASSERT_NE(set, nullptr);
        EXPECT_EQ(set("MailSubject", "main"), 1);
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([set] { EXPECT_EQ(set("MailSubject", "thread"), 1); });
        }
        std::atomic<bool> used = false;
        std::atomic<bool> unloaded = false;
        std::thread outliving([&] { // ends after the library: nothing of it may run then
            EXPECT_EQ(set("MailServer", ""), 1);
            used = true;
            used.notify_one();
            unloaded.wait(false);
        });
        std::ranges::for_each(threads, &std::thread::join);
        used.wait(false);
        EXPECT_EQ(dlclose(library), 0);
        unloaded = true;
        unloaded.notify_one();
        outliving.join();
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            const std::string trace = ReadFile(entry.path().string());
            EXPECT_EQ(trace.substr(0, 5), "   1 ");
            std::filesystem::remove(entry.path());
        }
    }
    unsetenv("VEL_MAILTRACE");
    // The thread that outlived the library keeps its trace file: nobody was left to close it.
    EXPECT_LE(OpenFiles() - before, 50);
}

} // namespace
