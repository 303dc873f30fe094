// The compiler's guards of static variables in functions, in place of the runtime's: those use its threads
// library, which keeps a slot and two handles of the system that it does not give back when the library is
// unloaded.
#include <atomic>
#include <cstdint>
#include <cxxabi.h>

#include <windows.h>

namespace {

// What the compiler's own code reads of a guard is its first byte: whether the variable is made.
struct Guard
{
    std::atomic<std::uint8_t> made;
    bool inProgress; // under the lock
};

// One for all: a variable is made once, and seldom.
SRWLOCK g_lock = SRWLOCK_INIT;
CONDITION_VARIABLE g_changed = CONDITION_VARIABLE_INIT;

Guard& Of(__cxxabiv1::__guard* guard)
{
    static_assert(sizeof(Guard) <= sizeof *guard);
    return *reinterpret_cast<Guard*>(guard);
}

void End(Guard& guard, bool made)
{
    AcquireSRWLockExclusive(&g_lock);
    guard.inProgress = false;
    guard.made = made ? 1 : 0;
    ReleaseSRWLockExclusive(&g_lock);
    WakeAllConditionVariable(&g_changed);
}

} // namespace

// 1: the caller makes the variable, and tells so; 0: it is made.
extern "C" int __cxa_guard_acquire(__cxxabiv1::__guard* of) noexcept
{
    Guard& guard = Of(of);
    AcquireSRWLockExclusive(&g_lock);
    while (guard.inProgress) {
        SleepConditionVariableSRW(&g_changed, &g_lock, INFINITE, 0);
    }
    guard.inProgress = guard.made == 0;
    const int mine = guard.inProgress ? 1 : 0;
    ReleaseSRWLockExclusive(&g_lock);
    return mine;
}

extern "C" void __cxa_guard_release(__cxxabiv1::__guard* of) noexcept
{
    End(Of(of), true);
}

extern "C" void __cxa_guard_abort(__cxxabiv1::__guard* of) noexcept
{
    End(Of(of), false);
}
