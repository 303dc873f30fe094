// The transport, libESMTP, as a library that may be missing: it is loaded at the first connect where the
// platform allows that, and none of its functions may be called before.
#pragma once

#include "src-baselib/cestring.h"

// Loads the transport for the life of the process. False when it is not there, with the system's text in
// `reason`; the next call tries again.
[[nodiscard]] bool LoadTransport(CEString& reason);

// A function that this build of the transport has beside its usual ones; null where it has none of that name.
using TransportFunction = void (*)();
[[nodiscard]] TransportFunction FindTransportFunction(const char* name);

// Whether failed socket calls of the calling thread are traced as they happen. Returns whether they will be:
// not every transport tells of them.
bool TraceSocketErrors(bool on);

// They are while one exists.
class CSocketErrorTrace
{
public:
    CSocketErrorTrace() : m_told(TraceSocketErrors(true)) {}
    CSocketErrorTrace(const CSocketErrorTrace&) = delete;
    CSocketErrorTrace& operator=(const CSocketErrorTrace&) = delete;
    ~CSocketErrorTrace() { TraceSocketErrors(false); }

    [[nodiscard]] bool IsTold() const { return m_told; }

private:
    const bool m_told;
};
