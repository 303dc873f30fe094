// How any file reports what happens, without knowing who keeps it: raising an error and writing a trace line.
// Both go to the calling thread's error state; without one they do nothing.
#pragma once

#include <cstdint>

enum class TraceLevel : std::uint8_t
{
    Error,
    Warning,
    Info,
    Normal,
    Debug
};

// Where a failure was noticed: the source file's path from the root, and the line.
struct SourcePlace
{
    const char* file;
    int line;

    // The caller's own place, also as a default argument.
    static constexpr SourcePlace Here(const char* file = __builtin_FILE(), int line = __builtin_LINE())
    {
        return {file, line};
    }
};

// Raises an error. The first one of a call stays pending until the call ends, later ones are only traced.
// `text` (may be null) goes to the trace line, never to the host.
void RaiseError(int code, const char* text = nullptr, const SourcePlace& where = SourcePlace::Here());

// Writes one printf-style line at `level` to the calling thread's trace.
[[gnu::format(printf, 2, 3)]] void Trace(TraceLevel level, const char* format, ...);

// Writes one preformatted text of any length as a NORMAL line.
void TraceText(const char* text);

// True when trace lines of the calling thread reach a file: what is costly to format asks first.
[[nodiscard]] bool IsTraceActive();

// The calling thread's pending error, 0 for none.
[[nodiscard]] int PendingError();

// Sets the pending error without a trace line, and forgets it with its text and count: for the trace writer,
// whose failures belong to the thread and not to the writer that failed.
void SetPendingError(int code);
void ClearPendingError();

// Stores the text that goes with the pending error (null or empty clears it).
void SetPendingErrorText(const char* text);

// The file that the calling thread's trace is written to, "" for none.
[[nodiscard]] const char* CurrentTraceFile();
