// Where the transport's own entries go: into the trace of the thread that sends.
#pragma once

using TransportTrace = void (*)(const char* format, ...);
// One for the process; the same one is set by every session. Null switches the entries off.
void SetTransportTrace(TransportTrace trace);
[[nodiscard]] TransportTrace GetTransportTrace();
// Writes an entry where they go.
template<class... Arguments>
void TraceTransport(const char* format, Arguments... arguments)
{
    if (const TransportTrace trace = GetTransportTrace()) {
        trace(format, arguments...);
    }
}

// Writes an entry to the calling thread's trace. A format of 2048 characters or more is written as it stands.
[[gnu::format(printf, 1, 2)]] void TraceSink(const char* format, ...);
