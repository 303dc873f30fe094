// Everything that is asked of the operating system, and nothing else. Each function says what its failure
// looks like; error numbers are the platform's own (SystemErrorText turns them into texts). The
// implementation stands in the file named for the platform.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "src-baselib/cestring.h"

namespace platform {

// File modes keep the values of the system they were designed on; other platforms map their meaning.
inline constexpr std::uint32_t kAccessRead = 0x80000000U;
inline constexpr std::uint32_t kAccessWrite = 0x40000000U;
inline constexpr std::uint32_t kShareRead = 1;
inline constexpr std::uint32_t kShareWrite = 2;
inline constexpr std::uint32_t kCreateAlways = 2;
inline constexpr std::uint32_t kOpenExisting = 3;
inline constexpr std::uint32_t kOpenAlways = 4;

using FileHandle = std::intptr_t;
inline constexpr FileHandle kInvalidHandle = -1;

// Opens a file; a directory fails. Where writing is not shared, a second writer fails, in this process or
// another. Returns kInvalidHandle and sets `error` on failure.
FileHandle OpenFile(const char* name, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
                    int& error);
// Each returns false and sets `error` on failure.
bool CloseFile(FileHandle handle, int& error);
// `count` comes back as the bytes moved; a read of 0 bytes is the end of the file.
bool ReadFile(FileHandle handle, void* buffer, std::uint32_t& count, int& error);
bool WriteFile(FileHandle handle, const void* buffer, std::uint32_t& count, int& error);
// `origin` is 0 begin, 1 current, 2 end; `position` comes back as the new one, from the begin.
bool SeekFile(FileHandle handle, std::int64_t offset, int origin, std::int64_t& position, int& error);
bool FileLength(FileHandle handle, std::int64_t& length, int& error);
// A file with content and a size, as opposed to a device or a pipe.
bool IsRegularFile(FileHandle handle);
// The error number of a read from something that is not a regular file.
int NotAFileError();
// Whether "\" separates folders here as "/" does.
bool BackslashSeparatesFolders();

// The system's message for an error number, "Kein Fehlertext" when there is none. It stands in `buffer` or in
// memory of the system, and may be longer than the buffer then.
const char* SystemErrorText(int error, char* buffer, std::size_t size);
// The same, at most 256 characters of it.
CEString SystemErrorText(int error);
// The Windows Sockets code for an error number of the platform's socket calls, 0 for an unknown one.
int SocketErrorCode(int error);

// The process's current directory; false and `error` set on failure.
bool CurrentDirectory(char* buffer, std::size_t size, int& error);
bool ChangeDirectory(const char* name, int& error);

// A directory to find back to exactly: its name may be too long for the above, hold what the code page has no
// character for, or be gone.
class CPlace
{
public:
    CPlace();
    ~CPlace();
    CPlace(const CPlace&) = delete;
    CPlace& operator=(const CPlace&) = delete;

    // Takes the current directory. False and `error` set on failure; the place is then as it was.
    bool Take(int& error);
    // Makes the place the current directory again; needs no memory. False and `error` set on failure, also
    // when none was taken.
    bool Return(int& error) const;
    // Whether the current directory is another one; false when none was taken.
    [[nodiscard]] bool IsLeft() const noexcept;

private:
    struct Exact;
    std::unique_ptr<Exact> m_exact; // as the system has it
};

// A copy of an environment variable; empty when it is not set.
CEString EnvironmentVariable(const char* name);
// Whether the user's language is German.
bool UserLanguageIsGerman();
// This machine's name for the network, "localhost" when it has none.
CEString HostName();

std::uint32_t CurrentThreadId();
std::uint32_t CurrentProcessId();

struct LocalTime
{
    int day, month, year, hour, minute, second, millisecond;
};
LocalTime GetLocalTime();

// Seconds of the system clock and the sub-second part in nanoseconds, from a millisecond clock.
struct ClockTime
{
    std::uint32_t seconds, nanoseconds;
};
ClockTime GetClockTime();

// Milliseconds of a clock that only runs forward.
std::int64_t MonotonicMilliseconds();

// Whether there is memory now for a block of `size` bytes, which what comes next takes and cannot say that
// there is none. Freed again, it is there for it.
bool HasMemory(std::size_t size) noexcept;
// To be called in each thread before anything is thrown in it. False without memory.
bool PrepareThread() noexcept;

// Thread-local slots. AllocateSlot returns -1 when there is none left; a new slot holds null in every thread.
int AllocateSlot();
void FreeSlot(int slot);
bool SetSlot(int slot, void* value);
[[nodiscard]] void* GetSlot(int slot);
// Called when a thread that ever set a slot ends, with its slots still readable. Null takes it off.
void SetThreadEndHook(void (*hook)());

// Holds the process's one lock while it lives: for what all threads share, over nothing that takes the lock
// again or waits for another thread. A child that is forked meanwhile finds the lock free.
class CProcessLock
{
public:
    CProcessLock();
    ~CProcessLock();
    CProcessLock(const CProcessLock&) = delete;
    CProcessLock& operator=(const CProcessLock&) = delete;
};

// Keeps the signals of a failed write, to a dropped connection or beyond a limit for files, from the calling
// thread's process while it lives.
class CWriteSignalGuard
{
public:
    CWriteSignalGuard();
    ~CWriteSignalGuard();
    CWriteSignalGuard(const CWriteSignalGuard&) = delete;
    CWriteSignalGuard& operator=(const CWriteSignalGuard&) = delete;

private:
    unsigned m_held = 0;    // a bit for each signal that belongs to this guard while it lives
    unsigned m_blocked = 0; // for each that the host had not blocked
};

// Keeps the calling thread from being cancelled while it lives: a call is a host's, and is not left halfway.
class CCancellationGuard
{
public:
    CCancellationGuard();
    ~CCancellationGuard();
    CCancellationGuard(const CCancellationGuard&) = delete;
    CCancellationGuard& operator=(const CCancellationGuard&) = delete;

private:
    int m_old = 0;
    bool m_changed = false;
};

} // namespace platform
