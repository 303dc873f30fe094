#include "src/callframe.h"

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

bool CCallFrame::Enter()
{
    if (!EnsureThreadState()) {
        return false;
    }
    m_error = ThreadErrorVar().Get();
    m_mail = ThreadMail();
    return m_error != nullptr && m_mail != nullptr && m_error->EnsureWritable();
}

bool CCallFrame::RejectPending(CTraceFile* job)
{
    const int pending = m_error->GetPending();
    if (pending == 0) {
        return false;
    }
    static constexpr const char* kLine = "Warning: %s(): Beginne mit Fehlercode %d";
    m_error->Warning(kLine, m_name, pending);
    if (job != nullptr) {
        job->Warning(kLine, m_name, pending);
    }
    Fail();
    return true;
}

int CCallFrame::Fail()
{
    m_error->EndFailedCall();
    return 0;
}

int EndThrownCall(bool outOfMemory) noexcept
{
    CError* const error = ThreadErrorVar().Get();
    if (error == nullptr) {
        return 0; // the state could not be made: there is nowhere to keep a code
    }
    try {
        RaiseError(outOfMemory ? codes::kNotEnoughMemory : codes::kInternal,
                   outOfMemory ? "Not enough memory." : "ERROR: Internal Program Error.");
    } catch (...) {
        // The trace line needs memory too; the code stands all the same.
    }
    if (error->GetPending() == 0) {
        error->SetPending(outOfMemory ? codes::kNotEnoughMemory : codes::kInternal);
    }
    error->EndFailedCall();
    return 0;
}
