// A stream over a file. Reading and writing open the file as they need it; the mark is a second handle on the
// same file, used only to read from the mark.
#pragma once

#include "src-baselib/afile.h"
#include "src-baselib/ioelement.h"

class IOFile : public IOElement, public IOLender
{
public:
    IOFile() : IOElement(static_cast<IOLender&>(*this)) {}

    bool Read(void* buffer, std::int32_t& length) override;
    [[nodiscard]] const char* Lend(std::int32_t& length, std::int32_t unit) override;
    bool Write(const void* buffer, std::int32_t length) override;
    bool SetMark() override;
    bool ReadAtMark(void* buffer, std::int32_t& length) override;
    bool SetMarkPosition(std::int64_t offset) override { return m_markFile.SeekBegin(offset); }
    bool ClearMark() override { return m_markFile.Close(); }
    [[nodiscard]] std::int64_t GetSize() override { return m_file.GetLength(); }
    void SetAppend(bool append) override { m_append = append; }
    void SetName(const char* name) override { m_file.SetFileName(name); }
    [[nodiscard]] const CEString& GetName() const override { return m_file.GetFileName(); }
    [[nodiscard]] bool IsAvailable() override { return m_file.IsOpen() || m_file.Open(); }
    [[nodiscard]] bool IsAtEnd() override { return m_file.IsEof(); }
    [[nodiscard]] bool IsMarkAtEnd() override { return m_markFile.IsEof(); }
    bool SeekBegin(std::int64_t offset) override { return m_file.SeekBegin(offset); }
    bool SeekEnd(std::int64_t offset) override { return m_file.SeekEnd(offset); }
    bool SeekCurrent(std::int64_t delta) override { return m_file.SeekCurrent(delta); }
    [[nodiscard]] std::int64_t Tell() override { return m_file.Tell(); }
    bool Close() override;
    [[nodiscard]] bool IsOpen() const override { return m_file.IsOpen(); }

    virtual AFile& GetFile() { return m_file; }
    [[nodiscard]] virtual const AFile& GetFile() const { return m_file; }
    virtual AFile& GetMarkFile() { return m_markFile; }

private:
    bool m_append = false;
    AFile m_file;
    AFile m_markFile;
};
