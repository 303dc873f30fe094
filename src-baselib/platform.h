// Everything that is asked of the operating system, and nothing else. Each function says what its failure
// looks like; error numbers are the platform's own (SystemErrorText turns them into texts). The
// implementation stands in the file named for the platform.
#pragma once

#include <cstddef>
#include <cstdint>

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
// The current directory exactly, in the system's own bytes, for ReturnToPlace: the name above lacks what the
// code page has no character for. Empty when the system does not tell it.
CEString CurrentPlace();
// False and `error` set on failure.
bool ReturnToPlace(const CEString& place, int& error);

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

// Thread-local slots. AllocateSlot returns -1 when there is none left; a new slot holds null in every thread.
int AllocateSlot();
void FreeSlot(int slot);
bool SetSlot(int slot, void* value);
[[nodiscard]] void* GetSlot(int slot);
// Called when a thread that ever set a slot ends, with its slots still readable. Null takes it off.
void SetThreadEndHook(void (*hook)());

// The process-wide mutex; usable as a lock for std::lock_guard. Locking never fails.
class CPlatformMutex
{
public:
    CPlatformMutex();
    ~CPlatformMutex();
    CPlatformMutex(const CPlatformMutex&) = delete;
    CPlatformMutex& operator=(const CPlatformMutex&) = delete;

    void lock();
    void unlock();

private:
    alignas(void*) unsigned char m_storage[64]; // the platform's mutex
};

// Keeps the broken-pipe signal of a dropped connection from the calling thread's process while it lives.
class CBrokenPipeGuard
{
public:
    CBrokenPipeGuard();
    ~CBrokenPipeGuard();
    CBrokenPipeGuard(const CBrokenPipeGuard&) = delete;
    CBrokenPipeGuard& operator=(const CBrokenPipeGuard&) = delete;

private:
    bool m_blocked = false;    // the signal is blocked while this guard lives
    bool m_wasBlocked = false; // the host had it blocked already
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
