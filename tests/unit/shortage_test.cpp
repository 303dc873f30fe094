// What a program lacks at the wrong moment: memory, room on a disk, descriptors. A program of its own, since
// it stands in for the allocator and for a call of the system.
#include <cstdlib>
#include <new>
#include <utility>

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "src-baselib/afile.h"
#include "src-baselib/cepaths.h"
#include "src-baselib/iomem.h"
#include "src-baselib/property.h"
#include "src-baselib/propertyset.h"
#include "tests/unit/helpers.h"

static thread_local bool g_noMemory = false;
static thread_local bool g_diskTakesNothing = false; // once

[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const memory = g_noMemory ? nullptr : std::malloc(size); // NOLINT: this is the allocator
    return memory != nullptr ? memory : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory); // NOLINT: this is the allocator
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory); // NOLINT: this is the allocator
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system names its own otherwise
extern "C" ssize_t write(int file, const void* bytes, std::size_t count)
{
    return std::exchange(g_diskTakesNothing, false) ? 0 : syscall(SYS_write, file, bytes, count);
}

namespace {

namespace fs = std::filesystem;

TEST(Shortage, OfMemoryFailsTheFlushOfAStream)
{
    const std::string text(70000, 'x'); // more than one chunk
    IOMemory inner;
    IOMemory outer;
    outer.SetInner(&inner);
    ASSERT_TRUE(outer.Write(text.data(), 70000));
    g_noMemory = true;
    const bool flushed = outer.Flush();
    g_noMemory = false;
    EXPECT_FALSE(flushed);
    EXPECT_EQ(inner.GetSize(), 0);
    ASSERT_TRUE(outer.Write(text.data(), 70000));
    EXPECT_TRUE(outer.Flush());
    EXPECT_EQ(inner.GetSize(), 70000);
}

TEST(Shortage, OfMemoryLeavesAPropertySetWhole)
{
    CPropertySet set;
    CPropertySet other;
    CStringProperty property("p", other);
    for (int i = 0; i < 95; ++i) {
        set.Add(std::to_string(i).c_str(), &property);
    }
    g_noMemory = true; // a node is free, and the name is short
    EXPECT_NO_THROW(set.Add("95", &property));
    g_noMemory = false;
    EXPECT_EQ(set.GetBucketCount(), 127U);
    set.Add("96", &property);
    EXPECT_EQ(set.GetBucketCount(), 163U);
    for (int i = 0; i < 97; ++i) {
        EXPECT_EQ(set.Find(std::to_string(i).c_str()), &property) << i;
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
        g_noMemory = false;
        CEWorkingDir guard;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, there ? &old : &none), 0);
        const bool changed = guard.ChangeDir("/");
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
        EXPECT_EQ(changed, there);
        EXPECT_EQ(TakeError(), there ? 0 : 118);
        EXPECT_EQ(fs::current_path(), there ? "/" : before);
        g_noMemory = true; // until the guard has gone back
    }
    g_noMemory = false;
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
