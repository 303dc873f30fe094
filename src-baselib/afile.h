// A file handle with its name, its last failure and a read-ahead for small reads. Every failure raises error
// 121 and is traced with the system's text. Operations return false on failure unless said otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "src-baselib/cestring.h"
#include "src-baselib/platform.h"

enum class FileState : std::uint8_t
{
    Closed,
    Reading,
    Writing,
    ReadingWriting,
    Appending
};

class AFile
{
public:
    AFile() = default;
    AFile(const AFile&) = delete;
    AFile& operator=(const AFile&) = delete;

    virtual ~AFile();
    // The open operations fail at once for an empty name and close the file first when it is open.
    virtual bool Open();
    virtual bool OpenWrite();
    virtual bool OpenAppend();
    virtual bool Create();
    // Opens this file for reading where `other` stands. True without action when that one is not open for
    // reading.
    virtual bool TakeReadPosition(AFile& other);
    // Always succeeds.
    virtual bool Close();
    // Reads `size` x `count` bytes; `countRead` comes back as the elements read, fewer only at the file's
    // end.
    virtual bool Read(void* buffer, std::size_t size, std::size_t count, std::size_t& countRead);
    virtual bool Read(void* buffer, std::size_t size, std::size_t count);
    // Reads at most `count` bytes, a multiple of `unit`, of what the read-ahead holds, where they lie: valid
    // until the next operation. Null, and `count` is 0, when it does not hold a unit.
    [[nodiscard]] const char* Lend(std::size_t& count, std::size_t unit);
    virtual bool Write(const void* buffer, std::size_t size, std::size_t count);
    virtual bool Flush() { return true; }
    virtual bool WriteString(const char* text, bool addLineEnd);
    // Reads one line of at most `size` - 1 bytes, which ends in "\n" whatever the file's line ends are.
    // `complete` tells whether the line was read to its end.
    virtual bool ReadLine(char* buffer, std::size_t size, bool& complete);
    virtual bool SeekBegin(std::int64_t offset);
    virtual bool SeekEnd(std::int64_t offset);
    virtual bool SeekCurrent(std::int64_t offset);
    // The file's length in bytes; 0 when it cannot be told. Works on a closed file too.
    [[nodiscard]] virtual std::int64_t GetLength();
    [[nodiscard]] virtual bool IsEof() const { return IsOpen() && m_endOfFile; }
    [[nodiscard]] virtual bool IsOpen() const { return m_handle != platform::kInvalidHandle; }
    [[nodiscard]] virtual bool IsSameName(const char* first, const char* second) const;
    virtual void ModeRead(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const;
    virtual void ModeWrite(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const;
    virtual void ModeCreate(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const;
    virtual void ModeAppend(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const;
    virtual const CEString& GetSystemErrorText();
    // Reports a failure: `format` takes `argument` and the system's error text. Always false.
    virtual bool ReportError(const char* format, const char* argument);
    virtual bool OpenHandle(std::uint32_t access, std::uint32_t share, std::uint32_t creation);
    virtual bool CloseHandle();
    virtual bool RawRead(void* buffer, std::size_t size, std::size_t count, std::size_t& countRead);
    virtual bool RawWrite(const void* buffer, std::size_t size, std::size_t count);
    // `origin` is 0 begin, 1 current, 2 end.
    virtual bool RawSeek(std::int64_t offset, int origin);
    virtual bool RawWriteString(const char* text, bool addLineEnd);
    virtual bool RawReadLine(char* buffer, std::size_t size);
    [[nodiscard]] virtual std::int64_t Tell();

    void SetFileName(const char* name) { m_name = name; }
    [[nodiscard]] const CEString& GetFileName() const { return m_name; }
    [[nodiscard]] FileState GetState() const { return m_state; }
    [[nodiscard]] int GetLastSystemError() const { return m_lastError; }
    // How much is read at once for small reads, in bytes; 65536 unless set. Set it while the file is closed.
    void SetReadAhead(std::size_t size);
    // Closed and without an error text, as newly made; the name stays.
    void Reset();

protected:
    [[nodiscard]] platform::FileHandle Handle() const { return m_handle; }
    void SetLastSystemError(int error) { m_lastError = error; }
    // The message of ReportError, for those that report it in another way.
    [[nodiscard]] CEString DescribeFailure(const char* format, const char* argument);

private:
    using Mode = void (AFile::*)(std::uint32_t&, std::uint32_t&, std::uint32_t&) const;
    bool OpenAs(Mode mode, FileState state);
    bool StartAtEnd();
    bool ReadSome(char* buffer, std::size_t wanted, std::size_t& moved);
    [[nodiscard]] std::size_t Unread() const { return m_aheadEnd - m_aheadStart; }
    void DropReadAhead() { m_aheadStart = m_aheadEnd = 0; }

    CEString m_name;
    platform::FileHandle m_handle = platform::kInvalidHandle;
    int m_lastError = 0;
    bool m_endOfFile = false; // a read returned no bytes
    CEString m_errorText;
    FileState m_state = FileState::Closed;
    std::unique_ptr<char[]> m_ahead; // made by the first small read of a file open for reading
    std::size_t m_aheadSize = 65536;
    std::size_t m_aheadStart = 0;
    std::size_t m_aheadEnd = 0;
};
