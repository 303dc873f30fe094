// The submission path in a host that has functions of libcurl's names, and in its children.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "submission.h"
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

TEST(Submission, LeavesTheParentsConnectionToTheParent)
{
    CScriptedServer server({}, Secured(ECertificate::Right));
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
