// The host's process around the library: its functions, pipes, folder, limits, children and end.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host.h"
#include "smtpserver.h"
#include "submission.h"
#include "system.h"
#include "velmail.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// A host may have functions of the same names as libcurl's, which must not get the calls.
extern "C" {
[[gnu::visibility("default")]] void* curl_easy_init()
{
    std::abort();
}
[[gnu::visibility("default")]] int curl_multi_add_handle(void* /*multi*/, void* /*easy*/)
{
    std::abort();
}
}
#endif

namespace {

TEST(Process, GetsItsTraceThroughAPipe)
{
    const CTempFolder folder;
    std::string name;
    int reader = -1;
    std::thread([&] {
        name = "host-t" + std::to_string(gettid()) + ".pipe"; // the library would put the thread into it
        ASSERT_EQ(mkfifo(folder.Path(name).c_str(), 0600), 0);
        reader = open(folder.Path(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        SetEnvironment("VEL_MAILTRACE", folder.Path(name).c_str());
        EXPECT_EQ(VelMailSetProperty("MailSubject", "Hello"), 1);
        EXPECT_EQ(Get("MailSubject"), "Hello");
        SetEnvironment("VEL_MAILTRACE", nullptr);
    }).join();
    std::string trace(10000, '\0');
    const ssize_t count = read(reader, trace.data(), trace.size());
    close(reader);
    trace.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    EXPECT_EQ(trace.substr(0, 5), "   1 ");
    EXPECT_EQ(CountOf(trace, "Getting Property \"MailSubject\"\r\n"), 1U) << trace;
    EXPECT_TRUE(trace.ends_with("Trace closed.\r\n")) << trace;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
        EXPECT_EQ(entry.path().filename(), name);
    }
}

TEST(Process, StaysInAFolderThatIsRemovedOrHasNoNameThatFits)
{
    const std::filesystem::path before = std::filesystem::current_path();
    for (const std::size_t depth : {1U, 11U}) {
        const CTempFolder folder;
        const CTempFolder workSpace;
        workSpace.Write("letter.txt", "Dear Bob\n");
        std::filesystem::current_path(folder.Path());
        const std::string deep(200, 'n');
        for (std::size_t i = 0; i < depth; ++i) {
            std::filesystem::create_directory(deep);
            std::filesystem::current_path(deep);
        }
        if (depth == 1) {
            std::filesystem::remove(folder.Path(deep));
        }
        struct stat home = {};
        ASSERT_EQ(stat(".", &home), 0);
        CScriptedServer server;
        const std::string trace = RunTraced([&] {
            Set(SmallMail(server.Port(), {{"MailTextMemoryAddress", ""},
                                          {"MailTextFilename", "letter.txt"},
                                          {"MailWorkSpace", workSpace.Path()}}));
            ASSERT_EQ(VelMailConnect(), 1);
            EXPECT_EQ(VelMailSend(), 1);
            EXPECT_EQ(VelMailDisconnect(), 0);
            EXPECT_EQ(LastError(), 118);
        });
        struct stat now = {};
        EXPECT_EQ(stat(".", &now), 0);
        EXPECT_EQ(now.st_ino, home.st_ino) << depth;
        EXPECT_EQ(server.Mails().size(), 1U) << depth;
        EXPECT_EQ(CountOf(trace, "    Working directory: " + workSpace.Path() + "\r\n"), 1U);
        EXPECT_LT(trace.find("Kann das Arbeitsverzeichnis"), trace.find("Current directory changed"))
            << trace;
        std::filesystem::current_path(before);
    }
}

// The signal would end the process. One that is the host's, blocked and pending, stays pending.
TEST(Process, OutlivesATraceAtItsLimit)
{
    sigset_t signal;
    sigset_t pending;
    sigemptyset(&signal);
    sigaddset(&signal, SIGXFSZ);
    rlimit unlimited = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    for (const bool hostsOwn : {false, true}) {
        CScriptedServer server;
        const std::string trace = RunTraced([&] {
            if (hostsOwn) {
                pthread_sigmask(SIG_BLOCK, &signal, nullptr);
                EXPECT_EQ(raise(SIGXFSZ), 0);
            }
            const rlimit limited = {.rlim_cur = 3000, .rlim_max = unlimited.rlim_max};
            setrlimit(RLIMIT_FSIZE, &limited);
            EXPECT_EQ(Deliver(SmallMail(server.Port())), 0);
            setrlimit(RLIMIT_FSIZE, &unlimited);
            sigpending(&pending);
            EXPECT_EQ(sigismember(&pending, SIGXFSZ), hostsOwn ? 1 : 0);
            if (hostsOwn) {
                int taken = 0;
                EXPECT_EQ(sigwait(&signal, &taken), 0);
            }
        });
        EXPECT_EQ(CountOf(trace, "Trace closed."), 1U) << "there is room again";
        EXPECT_EQ(server.Mails().size(), 1U);
    }
}

// A child has the thread that forked alone: what another one held at that moment stays held. The alarm ends
// a child that waits for it.
TEST(Process, ForksBesideThreadsThatSend)
{
    CScriptedServer server;
    const Settings settings = SmallMail(server.Port());
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (!done) {
            EXPECT_EQ(Deliver(settings), 0);
        }
    });
    threads.emplace_back([&] { // at what is shared as long as can be: the level of a protocol is copied
        Set({{"MailTraceFilename", ";" + std::string(1'000'000, 'x')}});
        while (!done) {
            EXPECT_EQ(VelMailSend(), 0);
        }
    });
    Set(settings);
    for (int i = 0; i < 60 && !HasFailure(); ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            const bool sent = VelMailConnect() == 1 && VelMailSend() == 1 && VelMailDisconnect() == 1;
            _exit(sent ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "child " << i;
    }
    done = true;
    std::ranges::for_each(threads, &std::thread::join);
    EXPECT_GT(server.Mails().size(), 60U);
}

TEST(Process, EndsBesideThreadsThatSend)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto end = [] {
        CScriptedServer server;
        for (int i = 0; i < 4; ++i) {
            std::thread([settings = SmallMail(server.Port())] {
                Set(settings);
                for (;;) {
                    VelMailConnect();
                    VelMailSend();
                    VelMailDisconnect();
                }
            }).detach();
        }
        (void)server.WaitForMails(40);
        server.Stop();
        std::exit(0);
    };
    EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
}

TEST(Submission, LeavesTheParentsConnectionToTheParent)
{
    CScriptedServer server({}, Secured());
    std::thread([&] {
        Set(Submission(server));
        EXPECT_EQ(VelMailConnect(), 1);
        for (const bool sends : {true, false}) {
            const pid_t child = fork();
            if (child == 0) {
                for (int number = 0; number < 256; ++number) { // no program that it starts gets the socket
                    sockaddr_in peer = {};
                    socklen_t size = sizeof peer;
                    const bool ours = getpeername(number, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
                                      std::to_string(ntohs(peer.sin_port)) == server.Port();
                    if (ours && (fcntl(number, F_GETFD) & FD_CLOEXEC) == 0) {
                        _exit(2);
                    }
                }
                const bool sent = !sends || VelMailSend() == 1;
                _exit(sent && VelMailDisconnect() == 1 ? 0 : 1);
            }
            int status = -1;
            EXPECT_EQ(waitpid(child, &status, 0), child);
            EXPECT_EQ(status, 0);
            EXPECT_EQ(VelMailSend(), 1);
        }
        EXPECT_EQ(VelMailDisconnect(), 1);
    }).join();
    server.Stop();
    EXPECT_EQ(server.Connections(), 2U);
    EXPECT_EQ(server.Mails().size(), 3U);
    EXPECT_TRUE(server.EndedWithQuit(1));
    EXPECT_TRUE(server.EndedWithQuit(2));
}

} // namespace
