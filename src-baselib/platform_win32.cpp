#include "src-baselib/platform.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include <windows.h>

namespace platform {

namespace {

HANDLE ToHandle(FileHandle handle)
{
    return reinterpret_cast<HANDLE>(handle);
}

int LastError()
{
    return static_cast<int>(GetLastError());
}

// The result of a call that has just been made, and its error number when it failed.
bool Told(BOOL succeeded, int& error)
{
    error = succeeded != FALSE ? 0 : LastError();
    return succeeded != FALSE;
}

} // namespace

FileHandle OpenFile(const char* name, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
                    int& error)
{
    const HANDLE handle = CreateFileA(name, access, share, nullptr, creation, FILE_ATTRIBUTE_NORMAL, nullptr);
    static_assert(kInvalidHandle == -1); // INVALID_HANDLE_VALUE
    error = handle == INVALID_HANDLE_VALUE ? LastError() : 0;
    return reinterpret_cast<FileHandle>(handle);
}

bool CloseFile(FileHandle handle, int& error)
{
    return Told(CloseHandle(ToHandle(handle)), error);
}

bool ReadFile(FileHandle handle, void* buffer, std::uint32_t& count, int& error)
{
    DWORD moved = 0;
    const bool read = Told(::ReadFile(ToHandle(handle), buffer, count, &moved, nullptr), error);
    count = moved;
    return read;
}

bool WriteFile(FileHandle handle, const void* buffer, std::uint32_t& count, int& error)
{
    DWORD moved = 0;
    bool written = Told(::WriteFile(ToHandle(handle), buffer, count, &moved, nullptr), error);
    if (written && moved == 0 && count > 0) { // a pipe that does not wait; who writes on would never end
        error = ERROR_WRITE_FAULT;
        written = false;
    }
    count = moved;
    return written;
}

bool SeekFile(FileHandle handle, std::int64_t offset, int origin, std::int64_t& position, int& error)
{
    static_assert(FILE_BEGIN == 0 && FILE_CURRENT == 1 && FILE_END == 2);
    LARGE_INTEGER distance = {};
    LARGE_INTEGER reached = {};
    distance.QuadPart = offset;
    if (!Told(SetFilePointerEx(ToHandle(handle), distance, &reached, static_cast<DWORD>(origin)), error)) {
        return false;
    }
    position = reached.QuadPart;
    return true;
}

bool FileLength(FileHandle handle, std::int64_t& length, int& error)
{
    LARGE_INTEGER size = {};
    if (!Told(GetFileSizeEx(ToHandle(handle), &size), error)) {
        return false;
    }
    length = size.QuadPart;
    return true;
}

bool IsRegularFile(FileHandle handle)
{
    return GetFileType(ToHandle(handle)) == FILE_TYPE_DISK;
}

int NotAFileError()
{
    return ERROR_INVALID_PARAMETER;
}

bool BackslashSeparatesFolders()
{
    return true;
}

const char* SystemErrorText(int error, char* buffer, std::size_t size)
{
    char* text = nullptr;
    const DWORD length = FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(error), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text),
        0, nullptr);
    if (length == 0 || text == nullptr) {
        return "Kein Fehlertext";
    }
    const std::size_t copied = std::min(std::size_t{length}, size - 1);
    std::memcpy(buffer, text, copied);
    buffer[copied] = '\0';
    LocalFree(text);
    return buffer;
}

// Socket calls report through errno here too: libESMTP knows nothing else.
int SocketErrorCode(int error)
{
    struct Row
    {
        int system, code;
    };
    static constexpr Row kRows[] = {
        {EINTR, 10004},        {EBADF, 10009},        {EACCES, 10013},      {EFAULT, 10014},
        {EINVAL, 10022},       {EMFILE, 10024},       {EAGAIN, 10035},      {EWOULDBLOCK, 10035},
        {EINPROGRESS, 10036},  {EALREADY, 10037},     {ENOTSOCK, 10038},    {EDESTADDRREQ, 10039},
        {EMSGSIZE, 10040},     {EPROTOTYPE, 10041},   {ENOPROTOOPT, 10042}, {EPROTONOSUPPORT, 10043},
        {EOPNOTSUPP, 10045},   {EAFNOSUPPORT, 10047}, {EADDRINUSE, 10048},  {EADDRNOTAVAIL, 10049},
        {ENETDOWN, 10050},     {ENETUNREACH, 10051},  {ENETRESET, 10052},   {ECONNABORTED, 10053},
        {ECONNRESET, 10054},   {ENOBUFS, 10055},      {EISCONN, 10056},     {ENOTCONN, 10057},
        {ETIMEDOUT, 10060},    {ECONNREFUSED, 10061}, {ELOOP, 10062},       {ENAMETOOLONG, 10063},
        {EHOSTUNREACH, 10065}, {ENOTEMPTY, 10066},
    };
    const auto* const row =
        std::find_if(std::begin(kRows), std::end(kRows), [error](const Row& r) { return r.system == error; });
    return row == std::end(kRows) ? 0 : row->code;
}

bool CurrentDirectory(char* buffer, std::size_t size, int& error)
{
    const DWORD length = GetCurrentDirectoryA(static_cast<DWORD>(size), buffer);
    if (length == 0 || length >= size) { // too long, it is the size that would do
        error = length == 0 ? LastError() : ERROR_INSUFFICIENT_BUFFER;
        return false;
    }
    return true;
}

bool ChangeDirectory(const char* name, int& error)
{
    return Told(SetCurrentDirectoryA(name), error);
}

struct CPlace::Exact
{
    std::wstring name;
};

CPlace::CPlace() = default;
CPlace::~CPlace() = default;

namespace {
std::wstring CurrentName()
{
    // Another thread may move the process while it is asked.
    std::wstring name;
    for (DWORD length = GetCurrentDirectoryW(0, nullptr); length > name.size();
         length = GetCurrentDirectoryW(static_cast<DWORD>(name.size()), name.data())) {
        name.resize(length);
    }
    name.resize(std::wcslen(name.c_str()));
    return name;
}
} // namespace

bool CPlace::Take(int& error)
{
    auto exact = std::make_unique<Exact>(CurrentName());
    if (exact->name.empty()) {
        error = LastError();
        return false;
    }
    m_exact = std::move(exact);
    return true;
}

bool CPlace::Return(int& error) const
{
    if (m_exact == nullptr) {
        error = ERROR_PATH_NOT_FOUND;
        return false;
    }
    return Told(SetCurrentDirectoryW(m_exact->name.c_str()), error);
}

bool CPlace::IsLeft() const noexcept
{
    try {
        return m_exact != nullptr && CurrentName() != m_exact->name;
    } catch (const std::bad_alloc&) {
        return true; // going back to where it is does no harm
    }
}

CEString EnvironmentVariable(const char* name)
{
    // The variable may grow while it is asked for.
    std::string value;
    for (DWORD length = GetEnvironmentVariableA(name, nullptr, 0); length > value.size();
         length = GetEnvironmentVariableA(name, value.data(), static_cast<DWORD>(value.size()))) {
        value.resize(length);
    }
    return {value.c_str()};
}

bool UserLanguageIsGerman()
{
    // The thread's, which is the user's unless the host chose another: so do the system's own messages.
    return PRIMARYLANGID(LANGIDFROMLCID(GetThreadLocale())) == LANG_GERMAN;
}

CEString HostName()
{
    char name[256] = "";
    DWORD size = sizeof name;
    const bool known = GetComputerNameExA(ComputerNameDnsHostname, name, &size) != FALSE && name[0] != '\0';
    return {known ? name : "localhost"};
}

bool PrepareThread() noexcept
{
    return true; // what the runtime made now would be left behind by a library that comes and goes
}

std::uint32_t CurrentThreadId()
{
    return GetCurrentThreadId();
}

std::uint32_t CurrentProcessId()
{
    return GetCurrentProcessId();
}

LocalTime GetLocalTime()
{
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    return {now.wDay, now.wMonth, now.wYear, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

ClockTime GetClockTime()
{
    constexpr std::uint64_t kTicksPerMillisecond = 10'000;
    constexpr std::uint64_t kMillisecondsTo1970 = 11'644'473'600'000; // from 1601, where the clock began
    FILETIME now = {};
    GetSystemTimeAsFileTime(&now);
    const std::uint64_t ticks = std::uint64_t{now.dwHighDateTime} << 32U | now.dwLowDateTime;
    const std::uint64_t milliseconds = ticks / kTicksPerMillisecond - kMillisecondsTo1970;
    return {static_cast<std::uint32_t>(milliseconds / 1000),
            static_cast<std::uint32_t>(milliseconds % 1000 * 1'000'000)};
}

std::int64_t MonotonicMilliseconds()
{
    return static_cast<std::int64_t>(GetTickCount64());
}

int AllocateSlot()
{
    const DWORD slot = TlsAlloc();
    return slot == TLS_OUT_OF_INDEXES ? -1 : static_cast<int>(slot);
}

void FreeSlot(int slot)
{
    if (slot >= 0) {
        TlsFree(static_cast<DWORD>(slot));
    }
}

bool SetSlot(int slot, void* value)
{
    return slot >= 0 && TlsSetValue(static_cast<DWORD>(slot), value) != FALSE;
}

void* GetSlot(int slot)
{
    if (slot < 0) {
        return nullptr;
    }
    // A successful read clears the system's last error, which may belong to a host or to a call in progress.
    const DWORD error = GetLastError();
    void* const value = TlsGetValue(static_cast<DWORD>(slot));
    SetLastError(error);
    return value;
}

void SetThreadEndHook(void (* /*hook*/)())
{
    // The loader tells the library itself of a thread's end.
}

// It holds nothing of the system, so that nothing of it is left behind by a library that comes and goes.
namespace {
constinit SRWLOCK g_processLock = SRWLOCK_INIT;
} // namespace

CProcessLock::CProcessLock()
{
    AcquireSRWLockExclusive(&g_processLock);
}

CProcessLock::~CProcessLock()
{
    ReleaseSRWLockExclusive(&g_processLock);
}

// There are neither signals nor cancelled threads here.
CWriteSignalGuard::CWriteSignalGuard() = default;
CWriteSignalGuard::~CWriteSignalGuard() = default;
CCancellationGuard::CCancellationGuard() = default;
CCancellationGuard::~CCancellationGuard() = default;

} // namespace platform
