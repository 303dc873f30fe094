#include "src-baselib/platform.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <csignal>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace platform {

namespace {

constexpr mode_t kFilePermissions = 0600; // traces hold addresses and settings: the owner's alone

int ToDescriptor(FileHandle handle)
{
    return static_cast<int>(handle);
}

// An advisory lock stands in for the share mode: the lock belongs to the open file, so two threads of one
// process exclude each other as two processes do. A file system without locks has no sharing rules to keep.
bool LockForWriting(int descriptor)
{
    while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR) {
            return errno != EWOULDBLOCK;
        }
    }
    return true;
}

// Checks and adjusts what was opened. Returns the errno of the refusal, 0 when the file may be used.
int PrepareOpened(int descriptor, bool exclusive, bool empty)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0) {
        return errno;
    }
    if (S_ISDIR(status.st_mode)) {
        return EISDIR;
    }
    if (!S_ISREG(status.st_mode)) {
        const int flags = fcntl(descriptor, F_GETFL);
        return flags < 0 || fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK) != 0 ? errno : 0;
    }
    if (exclusive && !LockForWriting(descriptor)) {
        return EWOULDBLOCK;
    }
    // Only the holder of the lock may empty the file: another writer's lines are in it otherwise.
    return empty && ftruncate(descriptor, 0) != 0 ? errno : 0;
}

} // namespace

FileHandle OpenFile(const char* name, std::uint32_t access, std::uint32_t share, std::uint32_t creation,
                    int& error)
{
    const bool reads = (access & kAccessRead) != 0;
    const bool writes = (access & kAccessWrite) != 0;
    int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // a pipe without a writer must not block the open
    flags |= writes ? (reads ? O_RDWR : O_WRONLY) : O_RDONLY;
    flags |= creation == kOpenExisting ? 0 : O_CREAT;

    int descriptor = -1;
    do {
        descriptor = open(name, flags, kFilePermissions);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        error = errno;
        return kInvalidHandle;
    }
    error = PrepareOpened(descriptor, writes && (share & kShareWrite) == 0, creation == kCreateAlways);
    if (error != 0) {
        close(descriptor);
        return kInvalidHandle;
    }
    return descriptor;
}

bool CloseFile(FileHandle handle, int& error)
{
    if (close(ToDescriptor(handle)) == 0 ||
        errno == EINTR) { // interrupted: the descriptor is gone all the same
        return true;
    }
    error = errno;
    return false;
}

bool ReadFile(FileHandle handle, void* buffer, std::uint32_t& count, int& error)
{
    ssize_t moved = 0;
    do {
        moved = read(ToDescriptor(handle), buffer, count);
    } while (moved < 0 && errno == EINTR);
    error = moved < 0 ? errno : 0;
    count = moved < 0 ? 0 : static_cast<std::uint32_t>(moved);
    return moved >= 0;
}

bool WriteFile(FileHandle handle, const void* buffer, std::uint32_t& count, int& error)
{
    const CWriteSignalGuard guard; // a trace may be a pipe whose reader has gone, or at a limit
    ssize_t moved = 0;
    do {
        moved = write(ToDescriptor(handle), buffer, count);
    } while (moved < 0 && errno == EINTR);
    const bool written =
        moved > 0 || (moved == 0 && count == 0); // who writes on after nothing would never end
    error = written ? 0 : moved == 0 ? EIO : errno;
    count = written ? static_cast<std::uint32_t>(moved) : 0;
    return written;
}

bool SeekFile(FileHandle handle, std::int64_t offset, int origin, std::int64_t& position, int& error)
{
    static constexpr std::array<int, 3> kOrigins = {SEEK_SET, SEEK_CUR, SEEK_END};
    const off_t result = lseek(ToDescriptor(handle), offset, kOrigins.at(static_cast<std::size_t>(origin)));
    if (result < 0) {
        error = errno;
        return false;
    }
    position = result;
    return true;
}

bool FileLength(FileHandle handle, std::int64_t& length, int& error)
{
    struct stat status = {};
    if (fstat(ToDescriptor(handle), &status) != 0) {
        error = errno;
        return false;
    }
    length = status.st_size;
    return true;
}

bool IsRegularFile(FileHandle handle)
{
    struct stat status = {};
    return fstat(ToDescriptor(handle), &status) == 0 && S_ISREG(status.st_mode);
}

int NotAFileError()
{
    return EINVAL;
}

bool BackslashSeparatesFolders()
{
    return false;
}

const char* SystemErrorText(int error, char* buffer, std::size_t size)
{
    // The GNU variant may return a text of its own instead of filling the buffer.
    return strerrordesc_np(error) == nullptr ? "Kein Fehlertext" : strerror_r(error, buffer, size);
}

int SocketErrorCode(int error)
{
    struct Row
    {
        int system, code;
    };
    static constexpr Row kRows[] = {
        {EINTR, 10004},         {EBADF, 10009},        {EACCES, 10013},          {EFAULT, 10014},
        {EINVAL, 10022},        {EMFILE, 10024},       {EWOULDBLOCK, 10035},     {EINPROGRESS, 10036},
        {EALREADY, 10037},      {ENOTSOCK, 10038},     {EDESTADDRREQ, 10039},    {EMSGSIZE, 10040},
        {EPROTOTYPE, 10041},    {ENOPROTOOPT, 10042},  {EPROTONOSUPPORT, 10043}, {ESOCKTNOSUPPORT, 10044},
        {EOPNOTSUPP, 10045},    {EPFNOSUPPORT, 10046}, {EAFNOSUPPORT, 10047},    {EADDRINUSE, 10048},
        {EADDRNOTAVAIL, 10049}, {ENETDOWN, 10050},     {ENETUNREACH, 10051},     {ENETRESET, 10052},
        {ECONNABORTED, 10053},  {ECONNRESET, 10054},   {ENOBUFS, 10055},         {EISCONN, 10056},
        {ENOTCONN, 10057},      {ESHUTDOWN, 10058},    {ETOOMANYREFS, 10059},    {ETIMEDOUT, 10060},
        {ECONNREFUSED, 10061},  {ELOOP, 10062},        {ENAMETOOLONG, 10063},    {EHOSTDOWN, 10064},
        {EHOSTUNREACH, 10065},  {ENOTEMPTY, 10066},    {EUSERS, 10068},          {ESTALE, 10070},
        {EREMOTE, 10071},
    };
    const auto* const row =
        std::find_if(std::begin(kRows), std::end(kRows), [error](const Row& r) { return r.system == error; });
    return row == std::end(kRows) ? 0 : row->code;
}

bool CurrentDirectory(char* buffer, std::size_t size, int& error)
{
    if (getcwd(buffer, size) == nullptr) {
        error = errno;
        return false;
    }
    return true;
}

bool ChangeDirectory(const char* name, int& error)
{
    if (chdir(name) != 0) {
        error = errno;
        return false;
    }
    return true;
}

struct CPlace::Exact
{
    // Only to go there: it needs no right to read the folder, and follows one that is renamed or removed.
    int descriptor = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);

    Exact() = default;
    Exact(const Exact&) = delete;
    Exact& operator=(const Exact&) = delete;
    ~Exact()
    {
        if (descriptor >= 0) {
            close(descriptor);
        }
    }
};

CPlace::CPlace() = default;
CPlace::~CPlace() = default;

bool CPlace::Take(int& error)
{
    auto exact = std::make_unique<Exact>();
    if (exact->descriptor < 0) {
        error = errno;
        return false;
    }
    m_exact = std::move(exact);
    return true;
}

bool CPlace::Return(int& error) const
{
    if (m_exact != nullptr && fchdir(m_exact->descriptor) == 0) {
        return true;
    }
    error = m_exact == nullptr ? ENOENT : errno;
    return false;
}

bool CPlace::IsLeft() const noexcept
{
    struct stat place = {};
    struct stat now = {};
    return m_exact != nullptr && (fstat(m_exact->descriptor, &place) != 0 || stat(".", &now) != 0 ||
                                  place.st_dev != now.st_dev || place.st_ino != now.st_ino);
}

CEString EnvironmentVariable(const char* name)
{
    return {std::getenv(name)};
}

bool UserLanguageIsGerman()
{
    // The first of these that is set decides, as for the system's own messages.
    for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const CEString value = EnvironmentVariable(name);
        if (!value.IsEmpty()) {
            return value == "de" || value.View().starts_with("de_") || value.View().starts_with("de.");
        }
    }
    return false;
}

CEString HostName()
{
    utsname name = {};
    return uname(&name) == 0 && name.nodename[0] != '\0' ? CEString(name.nodename) : CEString("localhost");
}

bool PrepareThread() noexcept
{
    // The C++ library's per-thread state for exceptions is made at its first use, which in a library loaded
    // at run time takes memory or ends the process.
    constexpr std::size_t kStates = 4096; // more than those of all libraries take
    if (!HasMemory(kStates)) {
        return false;
    }
    [[maybe_unused]] const volatile int used = std::uncaught_exceptions();
    return true;
}

std::uint32_t CurrentThreadId()
{
    return static_cast<std::uint32_t>(gettid());
}

std::uint32_t CurrentProcessId()
{
    return static_cast<std::uint32_t>(getpid());
}

namespace {
constexpr long kNanosecondsPerMillisecond = 1'000'000;

timespec Now(clockid_t clock)
{
    timespec now = {};
    clock_gettime(clock, &now); // cannot fail for the clocks asked for here
    return now;
}
} // namespace

LocalTime GetLocalTime()
{
    const timespec now = Now(CLOCK_REALTIME);
    tm parts = {};
    localtime_r(&now.tv_sec, &parts);
    return {parts.tm_mday,
            parts.tm_mon + 1,
            parts.tm_year + 1900,
            parts.tm_hour,
            parts.tm_min,
            parts.tm_sec,
            static_cast<int>(now.tv_nsec / kNanosecondsPerMillisecond)};
}

ClockTime GetClockTime()
{
    const timespec now = Now(CLOCK_REALTIME);
    const long milliseconds = now.tv_nsec / kNanosecondsPerMillisecond;
    return {static_cast<std::uint32_t>(now.tv_sec),
            static_cast<std::uint32_t>(milliseconds * kNanosecondsPerMillisecond)};
}

std::int64_t MonotonicMilliseconds()
{
    const timespec now = Now(CLOCK_MONOTONIC);
    return now.tv_sec * std::int64_t{1000} + now.tv_nsec / kNanosecondsPerMillisecond;
}

namespace {

// One key of the system carries all slots: at a thread's end the order in which separate keys are destroyed
// is not fixed, and the hook needs every slot.
constexpr int kSlots = 8;
struct ThreadSlots
{
    std::array<void*, kSlots> values = {};
};

std::array<bool, kSlots> g_slotUsed = {};
int g_slotCount = 0; // the key exists while it is not 0
pthread_key_t g_slotKey = 0;
std::atomic<void (*)()> g_threadEndHook = nullptr;

void EndThread(void* data)
{
    const std::unique_ptr<ThreadSlots> slots(static_cast<ThreadSlots*>(data));
    pthread_setspecific(g_slotKey, data); // the system has cleared it; the hook reads the slots
    if (auto* const hook = g_threadEndHook.load()) {
        hook();
    }
    pthread_setspecific(g_slotKey, nullptr);
}

} // namespace

int AllocateSlot()
{
    const CProcessLock lock;
    const auto free = std::find(g_slotUsed.begin(), g_slotUsed.end(), false);
    if (free == g_slotUsed.end() || (g_slotCount == 0 && pthread_key_create(&g_slotKey, EndThread) != 0)) {
        return -1;
    }
    *free = true;
    ++g_slotCount;
    return static_cast<int>(free - g_slotUsed.begin());
}

void FreeSlot(int slot)
{
    if (slot < 0) {
        return;
    }
    const CProcessLock lock;
    g_slotUsed.at(static_cast<std::size_t>(slot)) = false;
    if (--g_slotCount == 0) {
        const std::unique_ptr<ThreadSlots> own(static_cast<ThreadSlots*>(pthread_getspecific(g_slotKey)));
        pthread_key_delete(g_slotKey);
    }
}

bool SetSlot(int slot, void* value)
{
    if (slot < 0) {
        return false;
    }
    auto* slots = static_cast<ThreadSlots*>(pthread_getspecific(g_slotKey));
    if (slots == nullptr) {
        if (value == nullptr) {
            return true;
        }
        auto made = std::make_unique<ThreadSlots>();
        if (pthread_setspecific(g_slotKey, made.get()) != 0) {
            return false;
        }
        slots = made.release();
    }
    slots->values.at(static_cast<std::size_t>(slot)) = value;
    return true;
}

void* GetSlot(int slot)
{
    if (slot < 0) {
        return nullptr;
    }
    const auto* const slots = static_cast<const ThreadSlots*>(pthread_getspecific(g_slotKey));
    return slots == nullptr ? nullptr : slots->values.at(static_cast<std::size_t>(slot));
}

void SetThreadEndHook(void (*hook)())
{
    g_threadEndHook = hook;
}

namespace {
constinit std::mutex g_processMutex;

// Without memory for it there is no library either.
[[gnu::constructor]] void KeepLockFromForks()
{
    pthread_atfork([] { g_processMutex.lock(); }, [] { g_processMutex.unlock(); },
                   [] { g_processMutex.unlock(); });
}
} // namespace

CProcessLock::CProcessLock()
{
    g_processMutex.lock();
}

CProcessLock::~CProcessLock()
{
    g_processMutex.unlock();
}

CCancellationGuard::CCancellationGuard()
{
    m_changed = pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_old) == 0;
}

CCancellationGuard::~CCancellationGuard()
{
    if (m_changed) {
        pthread_setcancelstate(m_old, nullptr);
    }
}

namespace {
constexpr std::array kWriteSignals = {SIGPIPE, SIGXFSZ};

unsigned Bit(int signal)
{
    return 1U << static_cast<unsigned>(signal);
}

// Those whose bits are set.
sigset_t WriteSignals(unsigned bits)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : kWriteSignals) {
        if ((bits & Bit(signal)) != 0) {
            sigaddset(&set, signal);
        }
    }
    return set;
}

bool IsIn(const sigset_t& set, int signal)
{
    return sigismember(&set, signal) == 1;
}
} // namespace

CWriteSignalGuard::CWriteSignalGuard()
{
    const sigset_t all = WriteSignals(~0U);
    sigset_t old;
    sigset_t pending;
    if (pthread_sigmask(SIG_BLOCK, &all, &old) != 0) {
        return;
    }
    sigemptyset(&pending);
    if (std::any_of(kWriteSignals.begin(), kWriteSignals.end(), [&](int s) { return IsIn(old, s); })) {
        sigpending(&pending);
    }
    for (const int signal : kWriteSignals) {
        const bool wasBlocked = IsIn(old, signal);
        m_blocked |= wasBlocked ? 0 : Bit(signal);
        // One that was pending before belongs to the host and is left to it.
        m_held |= wasBlocked && IsIn(pending, signal) ? 0 : Bit(signal);
    }
}

CWriteSignalGuard::~CWriteSignalGuard()
{
    const int savedErrno = errno;
    sigset_t pending;
    sigemptyset(&pending);
    if (m_held != 0) {
        sigpending(&pending);
    }
    for (const int signal : kWriteSignals) {
        if ((m_held & Bit(signal)) != 0 && IsIn(pending, signal)) {
            const sigset_t one = WriteSignals(Bit(signal));
            const timespec now = {};
            while (sigtimedwait(&one, nullptr, &now) < 0 && errno == EINTR) {
            }
        }
    }
    if (m_blocked != 0) {
        const sigset_t blocked = WriteSignals(m_blocked);
        pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    }
    errno = savedErrno;
}

} // namespace platform
