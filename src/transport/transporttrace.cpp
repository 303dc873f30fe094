#include "src/transport/transporttrace.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "src-baselib/report.h"

namespace {

constexpr std::size_t kLongestFormat = 2048;

std::atomic<TransportTrace> g_transportTrace = nullptr;

} // namespace

void SetTransportTrace(TransportTrace trace)
{
    g_transportTrace = trace;
}

TransportTrace GetTransportTrace()
{
    return g_transportTrace;
}

void TraceSink(const char* format, ...)
{
    if (!IsTraceActive()) {
        return;
    }
    if (std::strlen(format) >= kLongestFormat) {
        TraceText(format);
        return;
    }
    std::va_list arguments;
    std::va_list again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    TraceText(text.c_str());
}
