// The trace writer: one text file of numbered, time-stamped lines, filtered by level. A writer belongs to one
// thread. With no configured name it is off and every call is a cheap no-op. A file that another writer holds
// makes it move to a name with a letter suffix.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "src-baselib/afile.h"
#include "src-baselib/cestring.h"
#include "src-baselib/report.h"

class CTraceFile : public AFile
{
public:
    // The variable name for which the second text is the setting and the environment is not read.
    static constexpr const char* kBuiltInVariable = "VEL_JMTRACE";

    // The setting is a file name, optionally followed by ";" and a level.
    CTraceFile(const char* jobName, const char* buildText, const char* variable, std::uint32_t threadId);
    ~CTraceFile() override;

    // Printf-style lines; none of them throws or needs memory. False when the file is not open or the write
    // failed, true also for a filtered line.
    [[gnu::format(printf, 2, 3)]] bool Error(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] bool Warning(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] bool Info(const char* format, ...);
    [[gnu::format(printf, 2, 3)]] bool Normal(const char* format, ...);
    bool Line(TraceLevel level, const char* format, std::va_list arguments);
    // One preformatted text of any length as a NORMAL line.
    bool WriteText(const char* text);

    // True when tracing is off or a file is usable. False, and error 17 pending, when none could be opened.
    bool EnsureWritable();
    // Lines from now on stand without number and time; they are counted all the same.
    void SetBareLines(bool bare) { m_bareLines = bare; }
    // Moves the trace to another file; an empty name closes it.
    bool SwitchFile(const char* name);
    // What opening this file reports must not become its first line.
    bool OpenHandle(std::uint32_t access, std::uint32_t share, std::uint32_t creation) override;
    // A failing trace is told to the thread's own trace where it can be, and never becomes the host's error.
    bool ReportError(const char* format, const char* argument) override;
    // Writes the last line and closes the file. Safe to call again.
    void CloseTrace();

    // True when a line at `level` would be written.
    [[nodiscard]] bool IsActive(TraceLevel level = TraceLevel::Normal) const;
    [[nodiscard]] const CEString& GetConfiguredName() const { return m_configuredName; }
    [[nodiscard]] std::int32_t GetWarningCount() const { return m_warningCount; }
    [[nodiscard]] std::int32_t GetErrorCount() const { return m_errorCount; }
    [[nodiscard]] const CEStringArray& GetProblems() const { return m_problems; }

    // The time since `start` as "h:mm:ss,mmm".
    [[nodiscard]] static CEString RuntimeText(const platform::ClockTime& start);
    [[nodiscard]] static CEString RuntimeText(const platform::ClockTime& start,
                                              const platform::ClockTime& now);
    // Whether more than one thread of this process has made a writer.
    [[nodiscard]] static bool IsMultiThreaded();

private:
    bool OpenConfigured();
    bool OpenCurrentName();
    bool LeaveFile();
    bool ResolveConflict();
    void WriteHeader();
    [[nodiscard]] CEString WithThreadSuffix(const CEString& name) const;
    void Count(TraceLevel level, const char* message);
    bool WriteLine(const char* message);
    void FormatPrefix();

    CEString m_configuredName;
    std::uint32_t m_version;
    CEString m_jobName;
    CEString m_buildText;
    bool m_writing = false; // a line that arrives while one is written is dropped
    bool m_bareLines = false;
    std::int32_t m_lineCounter = 0;
    char m_timestamp[32] = "";
    char m_lineNumber[16] = "";
    std::int32_t m_warningCount = 0;
    std::int32_t m_errorCount = 0;
    CEStringArray m_problems; // bounded
    std::uint32_t m_threadId = 0;
    char m_threadMark = '0'; // 't': the file name carries the thread id
    CEString m_level;
};
