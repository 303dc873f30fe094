#include "src-baselib/error.h"

#include <string_view>
#include <utility>

CError::CError(const char* jobName, const char* buildText, const char* variable, std::uint32_t threadId)
    : CTraceFile(jobName, buildText, variable, threadId), m_ownThread(threadId)
{
}

void CError::Raise(int code, const char* text, const SourcePlace& where)
{
    std::string_view file = where.file;
    file = file.substr(0, file.rfind('.')); // sources are named without their extension
    const auto length = static_cast<int>(file.size());
    const int before = m_pending;
    ++m_pendingCount;
    if (before == 0) {
        m_pending = code;
    }
    if (before == 0 && text == nullptr) {
        Error("Error: Setting error %d in %.*s(%d)", code, length, file.data(), where.line);
    } else if (before == 0) {
        Error("Error: Setting error %d (%s) in %.*s(%d)", code, text, length, file.data(), where.line);
    } else if (text == nullptr) {
        Error("Error: Current error: %d. Additional error  %d in %.*s(%d)", before, code, length, file.data(),
              where.line);
    } else {
        Error("Error: Current error: %d. Additional error %d (%s) in %.*s(%d)", before, code, text, length,
              file.data(), where.line);
    }
}

void CError::ClearPending()
{
    m_pending = 0;
    m_pendingCount = 0;
    m_pendingText.Clear();
}

CError::Aside CError::PutAside() noexcept
{
    return {std::exchange(m_pending, 0), std::exchange(m_pendingCount, 0), std::move(m_pendingText)};
}

void CError::TakeBack(Aside aside) noexcept
{
    m_pending = aside.code;
    m_pendingCount = aside.count;
    m_pendingText = std::move(aside.text);
}

void CError::BeginCall()
{
    m_last = 0;
    ClearPending();
}

void CError::EndFailedCall()
{
    m_last = m_pending;
    m_pending = 0;
    m_pendingCount = 0;
}

namespace {
constinit CNeverDestroyed<CThreadVar<CError>> g_threadError;
} // namespace

CThreadVar<CError>& ThreadErrorVar()
{
    return g_threadError.Get();
}

void SetPendingError(int code)
{
    if (CError* const error = ThreadErrorVar().Get()) {
        error->SetPending(code);
    }
}

void ClearPendingError()
{
    if (CError* const error = ThreadErrorVar().Get()) {
        error->ClearPending();
    }
}

void RaiseError(int code, const char* text, const SourcePlace& where)
{
    if (CError* const error = ThreadErrorVar().Get()) {
        error->Raise(code, text, where);
    }
}

void Trace(TraceLevel level, const char* format, ...)
{
    if (CError* const error = ThreadErrorVar().Get()) {
        std::va_list arguments;
        va_start(arguments, format);
        error->Line(level, format, arguments);
        va_end(arguments);
    }
}

void TraceText(const char* text)
{
    if (CError* const error = ThreadErrorVar().Get()) {
        error->WriteText(text);
    }
}

bool IsTraceActive()
{
    const CError* const error = ThreadErrorVar().Get();
    return error != nullptr && error->IsActive();
}

int PendingError()
{
    const CError* const error = ThreadErrorVar().Get();
    return error == nullptr ? 0 : error->GetPending();
}

void SetPendingErrorText(const char* text)
{
    if (CError* const error = ThreadErrorVar().Get()) {
        error->SetPendingText(text);
    }
}

const char* CurrentTraceFile()
{
    const CError* const error = ThreadErrorVar().Get();
    return error == nullptr ? "" : error->GetFileName().CStr();
}
