// The error state of one thread, which is at the same time its trace writer. The first error raised in a call
// stays pending until the call ends; then it becomes the last error, which the host asks for.
#pragma once

#include "src-baselib/threadvar.h"
#include "src-baselib/tracefile.h"

class CError : public CTraceFile
{
public:
    CError(const char* jobName, const char* buildText, const char* variable, std::uint32_t threadId);

    void Raise(int code, const char* text, const SourcePlace& where);
    [[nodiscard]] int GetPending() const { return m_pending; }
    // Forgets the pending error with its text and count.
    void ClearPending();
    // Sets the pending error without a trace line: for failures of the trace itself.
    void SetPending(int code) { m_pending = code; }
    void SetPendingText(const char* text) { m_pendingText = text; }
    [[nodiscard]] const CEString& GetPendingText() const { return m_pendingText; }

    // The pending error, out of the way of a call that must neither tell nor lose it.
    struct Aside
    {
        int code;
        int count;
        CEString text;
    };
    [[nodiscard]] Aside PutAside() noexcept;
    void TakeBack(Aside aside) noexcept;

    [[nodiscard]] int GetLast() const { return m_last; }
    // A working call begins: the error of the one before is forgotten.
    void BeginCall();
    // A call ends in failure: its pending error becomes the last one.
    void EndFailedCall();

    // The thread that it was made for.
    [[nodiscard]] std::uint32_t GetThreadId() const { return m_ownThread; }
    void SetMultiThreaded() { m_multiThreaded = true; }
    [[nodiscard]] bool IsThreadOfMany() const { return m_multiThreaded; }

private:
    const std::uint32_t m_ownThread;
    int m_pending = 0;
    int m_pendingCount = 0; // errors raised since the state was cleared
    CEString m_pendingText;
    bool m_multiThreaded = false;
    int m_last = 0;
};

// The per-thread variable that holds it; threadstate makes and destroys the objects.
CThreadVar<CError>& ThreadErrorVar();
