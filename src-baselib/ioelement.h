// The one stream interface: memory (IOMemory), files (IOFile) and the filters over them. Operations report
// success as a boolean; the reason of a failure is in the thread's error state. A stream belongs to one
// thread.
#pragma once

#include <cstdint>

#include "src-baselib/cestring.h"

// A stream that can also be read where its bytes lie, without a copy.
class IOLender
{
public:
    // The address of the next bytes, valid until the stream's next operation. `length` is the most that is
    // wanted on entry and what was read on return, a multiple of `unit`. Null, and nothing is read, when not
    // even one unit lies ready: Read delivers it then.
    [[nodiscard]] virtual const char* Lend(std::int32_t& length, std::int32_t unit) = 0;

protected:
    ~IOLender() = default;
};

class IOElement
{
public:
    IOElement() = default;
    IOElement(const IOElement&) = delete;
    IOElement& operator=(const IOElement&) = delete;

    virtual ~IOElement() = default;
    // `length` is the room on entry and the bytes read on return, 0 at the end of the data.
    virtual bool Read(void* buffer, std::int32_t& length) = 0;
    virtual bool Write(const void* buffer, std::int32_t length) = 0;
    // The mark is a second read position, independent of the first.
    virtual bool SetMark() = 0;
    virtual bool ReadAtMark(void* buffer, std::int32_t& length) = 0;
    virtual bool SetMarkPosition(std::int64_t offset) = 0;
    virtual bool ClearMark() = 0;
    virtual void SetNoCopy(bool noCopy);
    [[nodiscard]] virtual std::int64_t GetSize() = 0;
    virtual void SetAppend(bool append);
    virtual void SetName(const char* name);
    [[nodiscard]] virtual const CEString& GetName() const;
    [[nodiscard]] virtual bool IsAvailable();
    // The address of `length` stored bytes at `offset` where they lie in one piece, else null.
    [[nodiscard]] virtual void* GetDirectPointer(std::int64_t offset, std::int32_t length);
    [[nodiscard]] virtual bool IsAtEnd();
    [[nodiscard]] virtual bool IsMarkAtEnd();
    virtual bool SeekBegin(std::int64_t offset);
    virtual bool SeekEnd(std::int64_t offset);
    virtual bool SeekCurrent(std::int64_t delta);
    [[nodiscard]] virtual std::int64_t Tell();
    virtual bool Close();
    [[nodiscard]] virtual bool IsOpen() const { return true; }
    [[nodiscard]] virtual bool ReservedQuery() const { return false; }
    [[nodiscard]] virtual std::uint64_t GetByteCount() const { return m_byteCount; }
    virtual void ResetByteCount() { m_byteCount = 0; }
    virtual void AddByteCount(std::uint32_t count) { m_byteCount += count; }
    virtual bool Flush() { return true; }

    // This stream as one that lends; null for one that does not.
    [[nodiscard]] IOLender* GetLender() const { return m_lender; }

    // The wrapped stream, not owned; null makes this one a leaf.
    void SetInner(IOElement* inner) { m_inner = inner; }
    [[nodiscard]] IOElement* GetInner() const { return m_inner; }

protected:
    explicit IOElement(IOLender& self) : m_lender(&self) {}

private:
    IOLender* m_lender = nullptr; // this
    IOElement* m_inner = nullptr;
    std::uint64_t m_byteCount = 0;
};
