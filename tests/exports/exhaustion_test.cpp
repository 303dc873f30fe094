// Memory ends at every allocation of a host's life in turn, those of the C library and of the transport among
// them: each call either succeeds or fails with an error, none ends the process, a mail reported as sent is
// whole and any other absent, and the next one is sent.
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <link.h>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "system.h"
#include "velmail.h"

namespace {
thread_local long g_allocationsLeft = -1; // -1: no limit
thread_local bool g_refuseOnce = false;   // there is memory again after the first refusal

enum class Kind
{
    Malloc,
    Calloc,
    Realloc
};

// Whether libESMTP itself makes this allocation at one of the places where it does not live on without it.
bool IsFatalToTransport(const void* caller, Kind kind, std::size_t size)
{
    dl_find_object place = {};
    if (_dl_find_object(const_cast<void*>(caller), &place) != 0 ||
        std::string_view(place.dlfo_link_map->l_name).find("/libesmtp") == std::string_view::npos) {
        return false;
    }
    // smtp_errno clears the number that it keeps for a thread without having looked whether it is there.
    Dl_info symbol = {};
    if (dladdr(caller, &symbol) != 0 && symbol.dli_sname != nullptr &&
        symbol.dli_sname == std::string_view("smtp_errno")) {
        return true;
    }
    // A header field's place, four pointers: an assertion of the function that sets the value fails.
    if (kind == Kind::Calloc && size == 4 * sizeof(void*)) {
        return true;
    }
    // The room for a line, 1025 bytes and 512 more each time: freed here, it is freed again with the session.
    return kind == Kind::Realloc && size % 512 == 1;
}

bool IsRefused(const void* caller, Kind kind, std::size_t size)
{
    if (g_allocationsLeft < 0 || IsFatalToTransport(caller, kind, size)) {
        return false;
    }
    if (g_allocationsLeft > 0) {
        --g_allocationsLeft;
        return false;
    }
    g_allocationsLeft = g_refuseOnce ? -1 : 0;
    errno = ENOMEM;
    return true;
}
} // namespace

// The allocator is the sanitizers' where there are any, else the C library's.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELMAIL_REAL(name) __interceptor_##name
#else
#define VELMAIL_REAL(name) __libc_##name
#endif

// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
extern "C" {
void* VELMAIL_REAL(malloc)(std::size_t size);
void* VELMAIL_REAL(calloc)(std::size_t count, std::size_t size);
void* VELMAIL_REAL(realloc)(void* memory, std::size_t size);

// Optimized, it ends in a jump: the leak check knows the loader's memory by the caller.
[[gnu::optimize("O2")]] void* malloc(std::size_t size)
{
    const bool refused = IsRefused(__builtin_return_address(0), Kind::Malloc, size);
    return refused ? nullptr : VELMAIL_REAL(malloc)(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    const bool refused = IsRefused(__builtin_return_address(0), Kind::Calloc, count * size);
    return refused ? nullptr : VELMAIL_REAL(calloc)(count, size);
}

void* realloc(void* memory, std::size_t size)
{
    const bool refused = IsRefused(__builtin_return_address(0), Kind::Realloc, size);
    return refused ? nullptr : VELMAIL_REAL(realloc)(memory, size);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Their own do not go through malloc.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return malloc(size);
}

void* operator new(std::size_t size)
{
    void* const memory = malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    free(memory);
}
#endif

namespace {

struct Outcome
{
    bool sent = false;
    int code = 0;
    bool reachedEnd = false; // no allocation was refused
    int nextCode = 0;        // of a second mail, with memory again
};

// One mail from the first call to the last; 0 or the code of its failure, wherever that surfaced.
int SendOne(const Settings& settings, bool& sent)
{
    bool set = true;
    for (const auto& [name, value] : settings) {
        set = set && VelMailSetProperty(name.c_str(), value.c_str()) == 1;
    }
    sent = set && VelMailConnect() == 1 && VelMailSend() == 1;
    int code = 0;
    VelMailGetLastError(&code);
    if (VelMailDisconnect() == 0 && code == 0) {
        VelMailGetLastError(&code);
    }
    return code;
}

// One host's whole life on a thread of its own, with `allocations` to spend for its first mail and none for
// its end. What it reports comes back.
Outcome RunHost(const Settings& settings, long allocations, bool once, const char* trace)
{
    Outcome outcome;
    SetEnvironment("VEL_MAILTRACE", trace);
    std::thread([&] {
        g_refuseOnce = once;
        g_allocationsLeft = allocations;
        outcome.code = SendOne(settings, outcome.sent);
        outcome.reachedEnd = g_allocationsLeft > 0;
        g_allocationsLeft = -1;
        VelMailDisconnect(); // what was left pending is reported by now
        bool sent = false;
        outcome.nextCode = SendOne(settings, sent);
        g_allocationsLeft = once ? -1 : 0;
    }).join();
    SetEnvironment("VEL_MAILTRACE", nullptr);
    return outcome;
}

class Exhaustion : public testing::TestWithParam<std::tuple<bool, bool, bool>>
{
};

TEST_P(Exhaustion, IsAnErrorAtEveryAllocation)
{
    const auto [traced, once, submission] = GetParam();
    const CTempFolder folder;
    const std::string trace = traced ? folder.Path("host.log") : "";
    std::string text; // more than the transport is given at once
    for (int i = 0; i < 1000; ++i) {
        text += std::string(70, 't') + "\r\n";
    }
    Settings settings = SmallMail("");
    settings["MailSenderFullName"] = "Ada";
    settings["MailTextMemoryAddress"] = Block(text);
    settings["MailAttachmentFilename"] = folder.Write("file.txt", std::string(3000, 'x'));
    settings["MailCCRecipientsMailBox"] = "carol@host.example;dan@host.example";
    settings["MailBCCRecipientsMailBox"] = "eve@host.example";
    settings["MailReplyToMailBox"] = "fay@host.example";
    settings["MailTraceFilename"] = traced ? folder.Path("job.log") : "";
    settings["MailProtocol"] = submission ? "SUBMISSION" : "";
    settings["MailSecurity"] = submission ? "NONE" : "";
    std::set<std::size_t> sizes;
    Outcome outcome;
    for (long allocations = 0; !outcome.reachedEnd; ++allocations) {
        ASSERT_LT(allocations, 5000) << "a run never got through";
        // Longer than what a string holds without memory.
        const char* const reply = "250 2.0.0 Ok: queued as 0123456789ABCDEF0123456789ABCDEF\r\n";
        CScriptedServer server({{.match = submission ? "DOT" : "none", .nth = 1, .reply = reply},
                                {.match = "LAST", .nth = 1, .reply = reply}},
                               {.extensions = {submission && once ? "CHUNKING" : "8BITMIME"}});
        settings["MailServerPort"] = server.Port();
        outcome = RunHost(settings, allocations, once, trace.c_str());
        SCOPED_TRACE(std::to_string(allocations) + " allocations, code " + std::to_string(outcome.code));
        const std::vector<CReceivedMail> mails = server.Mails();
        EXPECT_EQ(mails.size(), outcome.sent ? 2U : 1U);
        EXPECT_EQ(outcome.nextCode, 0);
        for (const CReceivedMail& mail : mails) {
            sizes.insert(mail.data.size()); // a field or line that is not there shows
            EXPECT_NE(mail.data.find("\r\n" + text + "\r\n"), std::string::npos);
            EXPECT_EQ(mail.reversePath, "ada@host.example");
            EXPECT_EQ(mail.recipients.size(), 4U);
        }
        if (outcome.code != 0) {
            EXPECT_EQ((std::set{10, 17, 664, 672, 674, 682, 697, 698}).count(outcome.code), 1U);
        }
    }
    EXPECT_TRUE(outcome.sent);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(sizes.size(), 1U) << "not all are as whole as the last one";
}

INSTANTIATE_TEST_SUITE_P(Of, Exhaustion, testing::Combine(testing::Bool(), testing::Bool(), testing::Bool()));

} // namespace
