// The frame that every export runs through: the thread's state, its trace file, an error left from outside
// any call, and the boundary that no exception crosses.
#pragma once

#include <new>
#include <utility>

#include "src-baselib/error.h"
#include "src/threadstate.h"

class CCallFrame
{
public:
    // `name` is the export's, for its lines.
    explicit CCallFrame(const char* name) : m_name(name) {}

    // Makes sure that the thread has its state and a usable trace. False: the export returns 0 at once.
    bool Enter();
    // True when an error was left pending from outside any call; the call is then finished and returns 0. The
    // warning goes to the thread's trace and to `job`, when one is given.
    bool RejectPending(CTraceFile* job = nullptr);
    // The work begins: the error of the call before is forgotten.
    void Begin() { m_error->BeginCall(); }
    // The call ends in failure. Always 0.
    int Fail();
    // 1, or the end of a failed call.
    int End(bool succeeded) { return succeeded ? 1 : Fail(); }

    [[nodiscard]] CError& Error() const { return *m_error; }
    [[nodiscard]] CMailGlobal& Mail() const { return *m_mail; }

private:
    const char* m_name;
    CError* m_error = nullptr;     // the thread's; set by Enter
    CMailGlobal* m_mail = nullptr; // the thread's; set by Enter
};

// Ends a call that threw: error 10 without memory, 699 for anything else. Always 0.
int EndThrownCall(bool outOfMemory) noexcept;

// Runs the body of an export. No exception leaves it.
template<class Body>
int GuardedCall(const char* name, Body body) noexcept
{
    const platform::CCancellationGuard guard; // its unwinding must not meet the boundary below
    try {
        CCallFrame frame(name);
        return body(frame);
    } catch (const std::bad_alloc&) {
        return EndThrownCall(true);
    } catch (...) {
        return EndThrownCall(false);
    }
}

// The same for the working calls: enters, rejects a pending error and begins before the body runs.
template<class Body>
int WorkingCall(const char* name, Body body) noexcept
{
    return GuardedCall(name, [&body](CCallFrame& frame) {
        if (!frame.Enter() || frame.RejectPending()) {
            return 0;
        }
        frame.Begin();
        return static_cast<int>(body(frame));
    });
}

// The same for a question about the call before: what is pending stays so, and the last error too unless the
// question itself fails.
template<class Body>
int AsideCall(const char* name, Body body) noexcept
{
    return GuardedCall(name, [name, &body](CCallFrame& frame) {
        if (!frame.Enter()) {
            return 0;
        }
        CError::Aside aside = frame.Error().PutAside();
        const int result = GuardedCall(name, [&](CCallFrame&) { return static_cast<int>(body(frame)); });
        frame.Error().TakeBack(std::move(aside));
        return result;
    });
}
