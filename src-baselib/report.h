// How any file reports what happens, without knowing who keeps it: raising an error and writing a trace line.
// Both go to the calling thread's error state; without one they do nothing.
#pragma once

#include <cstdint>
#include <source_location>

enum class TraceLevel : std::uint8_t
{
    Error,
    Warning,
    Info,
    Normal,
    Debug
};

// Raises an error. The first one of a call stays pending until the call ends, later ones are only traced.
// `text` (may be null) goes to the trace line, never to the host.
void RaiseError(int code, const char* text = nullptr,
                const std::source_location& where = std::source_location::current());

// Writes one printf-style line at `level` to the calling thread's trace.
[[gnu::format(printf, 2, 3)]] void Trace(TraceLevel level, const char* format, ...);

// Writes one preformatted text of any length as a NORMAL line.
void TraceText(const char* text);

// True when trace lines of the calling thread reach a file: what is costly to format asks first.
[[nodiscard]] bool IsTraceActive();

// The calling thread's pending error, 0 for none.
[[nodiscard]] int PendingError();

// Stores the text that goes with the pending error (null or empty clears it).
void SetPendingErrorText(const char* text);

// The file that the calling thread's trace is written to, "" for none.
[[nodiscard]] const char* CurrentTraceFile();
