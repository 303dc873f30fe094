// Memory ends at every allocation of a host's calls in turn: each call either succeeds, or fails with an
// error, and neither ends the process nor loses a mail that it reported as sent.
#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host.h"
#include "smtpserver.h"
#include "system.h"
#include "velmail.h"

namespace {
thread_local long g_allocationsLeft = -1; // -1: no limit
thread_local bool g_refuseOnce = false;   // there is memory again after the first refusal
} // namespace

[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (g_allocationsLeft == 0) {
        g_allocationsLeft = g_refuseOnce ? -1 : 0;
        throw std::bad_alloc();
    }
    if (g_allocationsLeft > 0) {
        --g_allocationsLeft;
    }
    void* const memory = std::malloc(size == 0 ? 1 : size); // NOLINT: this is the allocator
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    try {
        return operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

[[gnu::noinline]] void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept
{
    return operator new(size, tag);
}

[[gnu::noinline]] void* operator new[](std::size_t size)
{
    return operator new(size);
}

[[gnu::noinline]] void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}

[[gnu::noinline]] void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    operator delete(memory);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory); // NOLINT: this is the allocator
}

// Inlined, the pairs would look mismatched to the compiler.
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory); // NOLINT: this is the allocator
}

namespace {

struct Outcome
{
    bool sent = false;
    int code = 0;
    bool reachedEnd = false; // no allocation was refused
};

// One host's whole life on a thread of its own, with `allocations` to spend. What it reports comes back.
Outcome RunHost(const Settings& settings, long allocations, bool once, const char* trace)
{
    Outcome outcome;
    SetEnvironment("VEL_MAILTRACE", trace);
    std::thread([&] {
        g_refuseOnce = once;
        g_allocationsLeft = allocations;
        bool set = true;
        for (const auto& [name, value] : settings) {
            set = set && VelMailSetProperty(name.c_str(), value.c_str()) == 1;
        }
        if (set && VelMailConnect() == 1) {
            outcome.sent = VelMailSend() == 1;
        }
        outcome.reachedEnd = g_allocationsLeft > 0;
        VelMailGetLastError(&outcome.code);
        if (VelMailDisconnect() == 0 && outcome.code == 0) {
            VelMailGetLastError(&outcome.code);
        }
        // The rest of the thread, the end of its state included, still has no memory.
    }).join();
    SetEnvironment("VEL_MAILTRACE", nullptr);
    return outcome;
}

TEST(Exhaustion, IsAnErrorAtEveryAllocation)
{
    const CTempFolder folder;
    const std::string trace = folder.Path("host.log");
    const std::string text(100'000, 't'); // more than the transport is given at once
    for (const bool traced : {false, true}) {
        for (const bool once : {false, true}) {
            CScriptedServer server;
            Settings settings = SmallMail(server.Port());
            settings["MailTextMemoryAddress"] = Block(text);
            settings["MailAttachmentFilename"] = folder.Write("file.txt", std::string(3000, 'x'));
            settings["MailCCRecipientsMailBox"] = "carol@host.example;dan@host.example";
            settings["MailTraceFilename"] = traced ? folder.Path("job.log") : "";
            std::size_t sent = 0;
            Outcome outcome;
            for (long allocations = 0; !outcome.reachedEnd; ++allocations) {
                ASSERT_LT(allocations, 5000) << "a run never got through";
                outcome = RunHost(settings, allocations, once, traced ? trace.c_str() : "");
                sent += outcome.sent ? 1U : 0U;
                ASSERT_EQ(server.Mails().size(), sent)
                    << allocations << " allocations, code " << outcome.code;
                if (!outcome.sent && outcome.code != 0) {
                    EXPECT_TRUE(outcome.code == 10 || outcome.code == 17 || outcome.code == 697)
                        << outcome.code << " at " << allocations;
                }
            }
            EXPECT_TRUE(outcome.sent);
            EXPECT_EQ(outcome.code, 0);
            const std::vector<CReceivedMail> mails = server.Mails();
            for (const CReceivedMail& mail : mails) {
                EXPECT_NE(mail.data.find("\r\n" + text + "\r\n"), std::string::npos);
                EXPECT_EQ(mail.recipients, mails.back().recipients);
                EXPECT_EQ(mail.data.size(), mails.back().data.size());
            }
        }
    }
}

} // namespace
