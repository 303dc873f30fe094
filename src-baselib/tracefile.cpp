#include "src-baselib/tracefile.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>

#include "src-baselib/cepaths.h"
#include "src-baselib/errorcodes.h"
#include "version.h"

namespace {
constexpr std::size_t kMessageSize = 2048;
constexpr std::size_t kLineSize = 2084;      // line number, time and message
constexpr std::int32_t kMostProblems = 1000; // a host that runs for years must not grow by its warnings

constexpr const char* kLevelNames[] = {"ERROR", "WARNING", "INFO", "NORMAL", "DEBUG"};

// What the writers of all threads share: who was first, and whether there has been another.
constinit std::atomic<std::uint32_t> g_firstThread = 0;
constinit std::atomic<bool> g_multiThreaded = false;

// Whether this thread's writers keep the plain name: those of the first thread, until there is another.
bool KeepsPlainName(std::uint32_t threadId)
{
    std::uint32_t first = 0;
    return !g_multiThreaded && (g_firstThread.compare_exchange_strong(first, threadId) || first == threadId);
}

// Inserts `suffix` before the last "." of the file's name; a dot in a folder's name does not count.
CEString Suffixed(const CEString& name, const char* suffix)
{
    const std::string_view file = FileNamePart(name.View());
    const std::size_t dot = name.GetLength() - file.size() + std::min(file.rfind('.'), file.size());
    CEString result(name.View().substr(0, dot));
    result.Append(suffix);
    result.Append(name.View().substr(dot));
    return result;
}
} // namespace

CTraceFile::CTraceFile(const char* jobName, const char* buildText, const char* variable,
                       std::uint32_t threadId)
    : m_version(VELMAIL_VERSION_NUMBER), m_jobName(jobName), m_buildText(buildText), m_level("NORMAL")
{
    if (!KeepsPlainName(threadId)) {
        g_multiThreaded = true;
        m_threadMark = 't';
        m_threadId = threadId;
    }

    const CEString setting = std::strcmp(variable, kBuiltInVariable) == 0
                                 ? CEString(buildText)
                                 : platform::EnvironmentVariable(variable);
    const std::size_t semicolon = setting.View().find(';');
    m_configuredName = CEString(setting.View().substr(0, semicolon));
    if (semicolon != std::string_view::npos) {
        m_level = CEString(setting.View().substr(semicolon + 1));
    }
}

CTraceFile::~CTraceFile()
{
    CloseTrace();
}

bool CTraceFile::IsMultiThreaded()
{
    return g_multiThreaded;
}

CEString CTraceFile::WithThreadSuffix(const CEString& name) const
{
    if (m_threadMark == '0' && m_threadId == 0) {
        return name;
    }
    CEString suffix;
    suffix.Format("-%c%lu", m_threadMark, static_cast<unsigned long>(m_threadId));
    return name.View().find(suffix.View()) != std::string_view::npos ? name : Suffixed(name, suffix.CStr());
}

bool CTraceFile::OpenCurrentName()
{
    m_lineCounter = 0;
    m_warningCount = 0;
    m_errorCount = 0;
    return OpenWrite();
}

// Stands at the head of every file, whatever the level.
void CTraceFile::WriteHeader()
{
    CEString header;
    header.Format("%s Version %s (%#8.8lx) vom %s, %s", m_jobName.CStr(), m_buildText.CStr(),
                  static_cast<unsigned long>(m_version), __DATE__, __TIME__);
    WriteLine(header.CStr());
}

bool CTraceFile::OpenConfigured()
{
    m_configuredName = WithThreadSuffix(m_configuredName);
    SetFileName(m_configuredName.CStr());
    if (!OpenCurrentName()) {
        return false;
    }
    WriteHeader();
    return true;
}

bool CTraceFile::EnsureWritable()
{
    return IsOpen() || m_configuredName.IsEmpty() || OpenConfigured() || ResolveConflict();
}

bool CTraceFile::ResolveConflict()
{
    const CEString wanted = m_configuredName;
    const int before = PendingError(); // of a delivery that failed: still to be told to the host
    for (char letter = 'a'; letter <= 'z'; ++letter) {
        ClearPendingError();
        const char suffix[] = {'-', letter, '\0'};
        const CEString name = Suffixed(wanted, suffix);
        if (SwitchFile(name.CStr())) {
            SetPendingError(before);
            Normal("Opened new trace file '%s', because of a writing conflict with file '%s'", name.CStr(),
                   wanted.CStr());
            return true;
        }
    }
    SetPendingError(codes::kNoTraceFile);
    return false;
}

namespace {
// While a line is written, what the writing reports is dropped.
class CWriting
{
public:
    explicit CWriting(bool& flag) : m_flag(flag) { m_flag = true; }
    ~CWriting() { m_flag = false; }
    CWriting(const CWriting&) = delete;
    CWriting& operator=(const CWriting&) = delete;

private:
    bool& m_flag;
};
} // namespace

bool CTraceFile::OpenHandle(std::uint32_t access, std::uint32_t share, std::uint32_t creation)
{
    const CWriting writing(m_writing);
    return AFile::OpenHandle(access, share, creation);
}

bool CTraceFile::ReportError(const char* format, const char* argument)
{
    char system[257] = "";
    char message[kMessageSize];
    std::snprintf(message, sizeof message, format, argument,
                  platform::SystemErrorText(GetLastSystemError(), system, sizeof system));
    Trace(TraceLevel::Error, "%s", message);
    return false;
}

bool CTraceFile::LeaveFile()
{
    Normal("Trace closed.");
    return Close();
}

bool CTraceFile::SwitchFile(const char* name)
{
    if (name == nullptr || *name == '\0') {
        return LeaveFile();
    }
    const CEString newName = WithThreadSuffix(name);
    if (newName == GetFileName()) {
        return true;
    }
    const std::int32_t warnings = m_warningCount;
    const std::int32_t errors = m_errorCount;
    const CEString oldName = IsOpen() ? GetFileName() : CEString();
    const bool wasOpen = IsOpen();
    if (wasOpen) {
        Normal("New tracefile '%s'", newName.CStr());
        if (!LeaveFile()) {
            return false;
        }
    }
    SetFileName(newName.CStr());
    if (!OpenCurrentName()) {
        return false;
    }
    WriteHeader();
    m_warningCount = warnings;
    m_errorCount = errors;
    m_configuredName = newName;
    if (wasOpen) {
        Normal("Previous tracefile '%s'", oldName.IsEmpty() ? "(null)" : oldName.CStr());
    }
    return true;
}

void CTraceFile::CloseTrace()
{
    if (IsOpen()) {
        LeaveFile();
    }
}

bool CTraceFile::IsActive(TraceLevel level) const
{
    if (!IsOpen()) {
        return false;
    }
    // A configured text that is no level never stops the walk: everything is written.
    const auto* const end = std::begin(kLevelNames) + static_cast<int>(level);
    return std::find(std::begin(kLevelNames), end, m_level.View()) == end;
}

void CTraceFile::Count(TraceLevel level, const char* message)
{
    if (level > TraceLevel::Warning) {
        return;
    }
    ++(level == TraceLevel::Error ? m_errorCount : m_warningCount);
    if (GetFileName().IsEmpty() || m_problems.GetCount() >= kMostProblems) {
        return;
    }
    try {
        CEString problem;
        problem.Format("%s (%ld): %s \r\n", GetFileName().CStr(), static_cast<long>(m_lineCounter), message);
        m_problems.Add(problem);
    } catch (const std::bad_alloc&) {
        // The line itself needs no memory: it is written, the list misses it.
    }
}

void CTraceFile::FormatPrefix()
{
    const platform::LocalTime now = platform::GetLocalTime();
    std::snprintf(m_timestamp, sizeof m_timestamp, "%02d.%02d.%04d %02d:%02d:%02d,%03d ", now.day, now.month,
                  now.year, now.hour, now.minute, now.second, now.millisecond);
    std::snprintf(m_lineNumber, sizeof m_lineNumber, "%4ld ", static_cast<long>(++m_lineCounter));
}

bool CTraceFile::WriteLine(const char* message)
{
    if (m_writing) {
        return false;
    }
    const CWriting writing(m_writing);
    FormatPrefix();
    char line[kLineSize + 3];
    const int length = m_bareLines
                           ? std::snprintf(line, kLineSize + 1, "%s", message)
                           : std::snprintf(line, kLineSize + 1, "%s%s%s", m_lineNumber, m_timestamp, message);
    std::size_t end = std::min(static_cast<std::size_t>(std::max(length, 0)), kLineSize);
    line[end++] = '\r';
    line[end++] = '\n';
    return Write(line, 1, end);
}

bool CTraceFile::Line(TraceLevel level, const char* format, std::va_list arguments)
{
    if (!IsOpen()) {
        return false;
    }
    if (!IsActive(level)) {
        return true;
    }
    char message[kMessageSize];
    if (std::vsnprintf(message, sizeof message, format, arguments) < 0) {
        message[0] = '\0';
    }
    Count(level, message);
    return WriteLine(message);
}

bool CTraceFile::WriteText(const char* text)
{
    if (!IsOpen()) {
        return false;
    }
    if (!IsActive(TraceLevel::Normal)) {
        return true;
    }
    if (m_writing) {
        return false;
    }
    const CWriting writing(m_writing);
    FormatPrefix();
    return (m_bareLines || (WriteString(m_lineNumber, false) && WriteString(m_timestamp, false))) &&
           WriteString(text, false) && WriteString("", true);
}

// Four functions that differ in their level alone; a variadic one cannot forward to another.
#define VELMAIL_LINE(level)                                                                                  \
    std::va_list arguments;                                                                                  \
    va_start(arguments, format);                                                                             \
    const bool written = Line(level, format, arguments);                                                     \
    va_end(arguments);                                                                                       \
    return written

bool CTraceFile::Error(const char* format, ...)
{
    VELMAIL_LINE(TraceLevel::Error);
}

bool CTraceFile::Warning(const char* format, ...)
{
    VELMAIL_LINE(TraceLevel::Warning);
}

bool CTraceFile::Info(const char* format, ...)
{
    VELMAIL_LINE(TraceLevel::Info);
}

bool CTraceFile::Normal(const char* format, ...)
{
    VELMAIL_LINE(TraceLevel::Normal);
}

#undef VELMAIL_LINE

CEString CTraceFile::RuntimeText(const platform::ClockTime& start)
{
    return RuntimeText(start, platform::GetClockTime());
}

CEString CTraceFile::RuntimeText(const platform::ClockTime& start, const platform::ClockTime& now)
{
    constexpr int kMilliseconds = 1000;
    constexpr std::uint32_t kNanosecondsPerMillisecond = 1'000'000;
    auto seconds = static_cast<int>(now.seconds - start.seconds);
    int milliseconds = static_cast<int>(now.nanoseconds / kNanosecondsPerMillisecond) -
                       static_cast<int>(start.nanoseconds / kNanosecondsPerMillisecond);
    if (milliseconds < 0) {
        --seconds;
        milliseconds += kMilliseconds;
    }
    CEString text;
    text.Format("%d:%02d:%02d,%03d", seconds / 3600, seconds / 60 % 60, seconds % 60, milliseconds);
    return text;
}
