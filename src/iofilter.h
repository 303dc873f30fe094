// Read-only transforming streams between a data source and the MIME composer. Read delivers up to the
// capacity given in `length`, followed by a NUL byte that is not counted: the buffer holds capacity + 1 bytes
// (base64 lines: see below). A filter does not own the stream it reads from; without one Read fails with
// length 0. A read failure of that stream looks like its end.
#pragma once

#include "src-baselib/ioelement.h"

class IOFilter : public IOElement
{
public:
    explicit IOFilter(IOElement* source = nullptr) { SetInner(source); }

    bool Write(const void* buffer, std::int32_t length) override;
    bool SetMark() override { return false; }
    bool ReadAtMark(void* buffer, std::int32_t& length) override;
    bool SetMarkPosition(std::int64_t /*offset*/) override { return false; }
    bool ClearMark() override { return false; }
    [[nodiscard]] std::int64_t GetSize() override { return 0; }
    void SetName(const char* name) override { m_name = name; }
    [[nodiscard]] const CEString& GetName() const override { return m_name; }

protected:
    explicit IOFilter(IOLender& self) : IOElement(self) {}

private:
    CEString m_name;
};

// Encodes each chunk as one complete base64 line: at most 57 bytes give at most 76 characters and CR LF. The
// buffer must hold (capacity / 4) * 4 + 3 bytes, 79 for full lines.
class CBase64FilterIo : public IOFilter
{
public:
    static constexpr std::int32_t kLineCapacity = 76;
    static constexpr std::int32_t kOneLine = kLineCapacity + 3; // with CR LF and NUL

    using IOFilter::IOFilter;
    bool Read(void* buffer, std::int32_t& length) override;
    // The same lines, as many at once as lie ready in the source and fit in `length` bytes, at least
    // kOneLine.
    bool ReadLines(char* buffer, std::int32_t& length);
};

// Delivers text with CR LF line ends, wherever the chunks are cut. A CR without LF passes unchanged.
class CrLfFilterIo : public IOFilter
{
public:
    using IOFilter::IOFilter;
    bool Read(void* buffer, std::int32_t& length) override;
    // The same text without the NUL byte, as much at once as lies ready in the source and surely fits in
    // `length` bytes, at least 3.
    bool ReadText(char* buffer, std::int32_t& length);
    // Begins a new pass over `source`.
    void Restart(IOElement* source);

private:
    char m_lastByte = 0; // the last one delivered by the call before
};
