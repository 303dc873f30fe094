// What a program lacks at the wrong moment: memory, room on a disk, descriptors. A program of its own, since
// it stands in for the allocator and for a call of the system.
#include <cerrno>
#include <thread>
#include <utility>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "include/velmail.h"
#include "src-baselib/afile.h"
#include "src-baselib/cepaths.h"
#include "tests/unit/helpers.h"

static thread_local long g_blocksLeft = -1; // to hold; -1: no limit
static thread_local bool g_refused = false;
static thread_local bool g_diskTakesNothing = false; // once

static bool IsRefused()
{
    if (g_blocksLeft == 0) {
        g_refused = true;
        errno = ENOMEM;
        return true;
    }
    g_blocksLeft -= g_blocksLeft > 0 ? 1 : 0;
    return false;
}

// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void __libc_free(void* memory);

void* malloc(std::size_t size)
{
    return IsRefused() ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    return IsRefused() ? nullptr : __libc_calloc(count, size);
}

void free(void* memory)
{
    g_blocksLeft += memory != nullptr && g_blocksLeft >= 0 ? 1 : 0;
    __libc_free(memory);
}

ssize_t write(int file, const void* bytes, std::size_t count)
{
    return std::exchange(g_diskTakesNothing, false) ? 0 : syscall(SYS_write, file, bytes, count);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)

namespace {

namespace fs = std::filesystem;

// A library that is loaded late has no place in a thread before its first use there, and none of it may need
// memory: each thread may hold one block more, and the last one gets through.
TEST(Shortage, OfMemoryAtAThreadsFirstUse)
{
    void* const library = dlopen(VELMAIL_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr);
    const auto set = reinterpret_cast<decltype(&VelMailSetProperty)>(dlsym(library, "VelMailSetProperty"));
    const auto connect = reinterpret_cast<decltype(&VelMailConnect)>(dlsym(library, "VelMailConnect"));
    bool through = false;
    for (long blocks = 0; !through; ++blocks) {
        ASSERT_LT(blocks, 1000);
        std::thread([&] {
            g_blocksLeft = blocks;
            const int done = set("MailServer", "127.0.0.1") & set("MailSubject", "Hello") & connect();
            through = done == 1 && !g_refused;
            g_blocksLeft = -1;
        }).join();
    }
}

// What a change of the folder needs: descriptors for the way there, no memory for the way back.
TEST(Shortage, NeverMovesTheProcess)
{
    const fs::path before = fs::current_path();
    rlimit old = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = old.rlim_max};
    for (const bool there : {false, true}) {
        g_blocksLeft = -1;
        CEWorkingDir guard;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, there ? &old : &none), 0);
        const bool changed = guard.ChangeDir("/");
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
        EXPECT_EQ(changed, there);
        EXPECT_EQ(TakeError(), there ? 0 : 118);
        EXPECT_EQ(fs::current_path(), there ? "/" : before);
        g_blocksLeft = 0; // until the guard has gone back
    }
    g_blocksLeft = -1;
    EXPECT_EQ(fs::current_path(), before);
}

TEST(Shortage, OfRoomEndsAWrite)
{
    AFile file;
    file.SetFileName("full");
    ASSERT_TRUE(file.Create());
    g_diskTakesNothing = true;
    EXPECT_FALSE(file.Write("text", 1, 4));
    EXPECT_EQ(TakeError(), 121);
    EXPECT_TRUE(file.Write("text", 1, 4));
}

} // namespace
