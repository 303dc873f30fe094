#include "src-baselib/afile.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

namespace {
constexpr std::size_t kLargestTransfer = std::numeric_limits<std::uint32_t>::max();
constexpr int kFromBegin = 0;
constexpr int kFromCurrent = 1;
constexpr int kFromEnd = 2;

CEString Replaced(const char* text, char from, char to)
{
    CEString result(text);
    CEString replaced;
    for (const char c : result.View()) {
        const char piece[] = {c == from ? to : c, '\0'};
        replaced.Append(piece);
    }
    return replaced;
}
} // namespace

AFile::~AFile()
{
    if (m_handle != platform::kInvalidHandle && !platform::CloseFile(m_handle, m_lastError)) {
        Trace(TraceLevel::Warning, "Warning: Cannot close the file %s: error %d.", m_name.CStr(),
              m_lastError);
    }
}

bool AFile::OpenAs(Mode mode, FileState state)
{
    if (m_name.IsEmpty() || (IsOpen() && !Close())) {
        return false;
    }
    std::uint32_t access = 0;
    std::uint32_t share = 0;
    std::uint32_t creation = 0;
    (this->*mode)(access, share, creation);
    if (!OpenHandle(access, share, creation) || (state == FileState::Appending && !StartAtEnd())) {
        int ignored = 0; // what failed is told already
        if (IsOpen()) {
            platform::CloseFile(std::exchange(m_handle, platform::kInvalidHandle), ignored);
        }
        return false;
    }
    m_state = state;
    return true;
}

bool AFile::Open()
{
    return OpenAs(&AFile::ModeRead, FileState::Reading);
}

bool AFile::OpenWrite()
{
    return OpenAs(&AFile::ModeWrite, FileState::Writing);
}

bool AFile::OpenAppend()
{
    return OpenAs(&AFile::ModeAppend, FileState::Appending);
}

bool AFile::Create()
{
    if (m_name.IsEmpty()) {
        return ReportError("The filename is missing.", "");
    }
    return OpenAs(&AFile::ModeCreate, FileState::ReadingWriting);
}

bool AFile::TakeReadPosition(AFile& other)
{
    if (other.GetState() != FileState::Reading) {
        return true;
    }
    if (Open() && RawSeek(other.Tell(), kFromBegin)) {
        return true;
    }
    Close();
    return false;
}

bool AFile::Close()
{
    if (IsOpen()) {
        CloseHandle();
        m_state = FileState::Closed;
    }
    return true;
}

void AFile::Reset()
{
    Close();
    m_errorText.Clear();
    m_lastError = 0;
}

bool AFile::Read(void* buffer, std::size_t size, std::size_t count, std::size_t& countRead)
{
    return RawRead(buffer, size, count, countRead);
}

bool AFile::Read(void* buffer, std::size_t size, std::size_t count)
{
    std::size_t countRead = 0;
    return RawRead(buffer, size, count, countRead);
}

void AFile::SetReadAhead(std::size_t size)
{
    m_ahead.reset();
    m_aheadSize = size;
    DropReadAhead();
}

const char* AFile::Lend(std::size_t& count, std::size_t unit)
{
    count = std::min(count, Unread()) / unit * unit;
    m_aheadStart += count;
    return count == 0 ? nullptr : m_ahead.get() + m_aheadStart - count;
}

bool AFile::Write(const void* buffer, std::size_t size, std::size_t count)
{
    return RawWrite(buffer, size, count);
}

bool AFile::WriteString(const char* text, bool addLineEnd)
{
    return RawWriteString(text, addLineEnd);
}

bool AFile::SeekBegin(std::int64_t offset)
{
    return RawSeek(offset, kFromBegin);
}

bool AFile::SeekEnd(std::int64_t offset)
{
    return RawSeek(offset, kFromEnd);
}

bool AFile::SeekCurrent(std::int64_t offset)
{
    return RawSeek(offset, kFromCurrent);
}

std::int64_t AFile::GetLength()
{
    const bool openedHere = !IsOpen();
    if (openedHere && !Open()) {
        Trace(TraceLevel::Warning, "Warning: Cannot get file length: File '%s' not opened", m_name.CStr());
        return 0;
    }
    std::int64_t length = 0;
    if (!platform::FileLength(m_handle, length, m_lastError)) {
        ReportError("Cannot read the file %s: %s.", m_name.CStr());
        length = 0;
    }
    if (openedHere) {
        Close();
    }
    return length;
}

bool AFile::IsSameName(const char* first, const char* second) const
{
    // Names are compared whole: two long names that only begin alike must not be taken for one file.
    return std::strcmp(first, second) == 0 || (*second != '\0' && Replaced(first, '\\', '/') == second);
}

void AFile::ModeRead(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const
{
    access = platform::kAccessRead;
    share = platform::kShareRead | platform::kShareWrite;
    creation = platform::kOpenExisting;
}

void AFile::ModeWrite(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const
{
    access = platform::kAccessWrite;
    share = platform::kShareRead;
    creation = platform::kCreateAlways;
}

void AFile::ModeCreate(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const
{
    access = platform::kAccessRead | platform::kAccessWrite;
    share = platform::kShareRead | platform::kShareWrite;
    creation = platform::kCreateAlways;
}

void AFile::ModeAppend(std::uint32_t& access, std::uint32_t& share, std::uint32_t& creation) const
{
    access = platform::kAccessRead | platform::kAccessWrite;
    share = platform::kShareRead;
    creation = platform::kOpenAlways;
}

const CEString& AFile::GetSystemErrorText()
{
    m_errorText = platform::SystemErrorText(m_lastError);
    return m_errorText;
}

CEString AFile::DescribeFailure(const char* format, const char* argument)
{
    GetSystemErrorText();
    CEString message;
    message.Format(format, argument, m_errorText.IsEmpty() ? "null" : m_errorText.CStr());
    return message;
}

bool AFile::ReportError(const char* format, const char* argument)
{
    const CEString message = DescribeFailure(format, argument);
    Trace(TraceLevel::Error, "%s", message.CStr());
    RaiseError(codes::kFile);
    SetPendingErrorText(message.CStr());
    return false;
}

bool AFile::OpenHandle(std::uint32_t access, std::uint32_t share, std::uint32_t creation)
{
    m_handle = platform::OpenFile(m_name.CStr(), access, share, creation, m_lastError);
    Trace(TraceLevel::Normal, "Open file %s with Openmode %x Sharemode %x Creationmode %x: Handle %d",
          m_name.CStr(), access, share, creation, static_cast<int>(m_handle));
    // Where "\" is a letter like any other, a second try that creates would leave a stray file under that
    // name.
    const bool tryAgain = creation == platform::kOpenExisting || platform::BackslashSeparatesFolders();
    if (m_handle == platform::kInvalidHandle && tryAgain &&
        m_name.View().find('/') != std::string_view::npos) {
        int error = 0;
        m_handle =
            platform::OpenFile(Replaced(m_name.CStr(), '/', '\\').CStr(), access, share, creation, error);
    }
    if (m_handle == platform::kInvalidHandle) {
        return ReportError("The file %s cannot be opened: %s.", m_name.CStr());
    }
    m_endOfFile = false;
    DropReadAhead();
    // Whoever writes into the trace goes on with it; whoever reads it, to send it, reads it whole.
    const bool goesOn =
        (access & platform::kAccessWrite) != 0 && IsSameName(m_name.CStr(), CurrentTraceFile());
    return !goesOn || StartAtEnd();
}

// A pipe or a terminal that was just opened has no other place.
bool AFile::StartAtEnd()
{
    return !platform::IsRegularFile(m_handle) || RawSeek(0, kFromEnd);
}

bool AFile::CloseHandle()
{
    const bool closed = platform::CloseFile(m_handle, m_lastError);
    m_handle = platform::kInvalidHandle;
    m_endOfFile = false;
    DropReadAhead();
    return closed || ReportError("Cannot close the file %s: %s.", m_name.CStr());
}

// One platform read at most. Small reads of a file that only this handle reads are served from the
// read-ahead.
bool AFile::ReadSome(char* buffer, std::size_t wanted, std::size_t& moved)
{
    const bool ahead = m_state == FileState::Reading && wanted < m_aheadSize;
    if (Unread() == 0) {
        if (ahead && !m_ahead) {
            m_ahead.reset(new char[m_aheadSize]);
        }
        auto count = static_cast<std::uint32_t>(ahead ? m_aheadSize : std::min(wanted, kLargestTransfer));
        if (!platform::ReadFile(m_handle, ahead ? m_ahead.get() : buffer, count, m_lastError)) {
            return ReportError("Cannot read the file %s: %s.", m_name.CStr());
        }
        if (!ahead) {
            moved = count;
            return true;
        }
        m_aheadStart = 0;
        m_aheadEnd = count;
    }
    moved = std::min(wanted, Unread());
    std::copy_n(m_ahead.get() + m_aheadStart, moved, buffer);
    m_aheadStart += moved;
    return true;
}

bool AFile::RawRead(void* buffer, std::size_t size, std::size_t count, std::size_t& countRead)
{
    const std::size_t total = size * count;
    if (total > 0 && total <= Unread()) { // the usual case of small reads
        std::memcpy(buffer, m_ahead.get() + m_aheadStart, total);
        m_aheadStart += total;
        countRead = count;
        return true;
    }
    std::size_t done = 0;
    bool succeeded = true;
    while (succeeded && done < total) {
        std::size_t moved = 0;
        succeeded = ReadSome(static_cast<char*>(buffer) + done, total - done, moved);
        if (succeeded && moved == 0) {
            m_endOfFile = true;
            break;
        }
        done += moved;
    }
    countRead = size == 0 ? 0 : done / size;
    return succeeded;
}

bool AFile::RawWrite(const void* buffer, std::size_t size, std::size_t count)
{
    const std::size_t total = size * count;
    for (std::size_t done = 0; done < total;) {
        auto moved = static_cast<std::uint32_t>(std::min(total - done, kLargestTransfer));
        if (!platform::WriteFile(m_handle, static_cast<const char*>(buffer) + done, moved, m_lastError)) {
            return ReportError("Cannot write into the %s file: %s.", m_name.CStr());
        }
        done += moved;
    }
    return true;
}

bool AFile::RawSeek(std::int64_t offset, int origin)
{
    std::int64_t position = 0;
    if (origin == kFromCurrent) {
        offset -= static_cast<std::int64_t>(Unread());
    }
    DropReadAhead();
    m_endOfFile = false;
    return platform::SeekFile(m_handle, offset, origin, position, m_lastError) ||
           ReportError("Cannot search through the file %s: %s", m_name.CStr());
}

std::int64_t AFile::Tell()
{
    if (!IsOpen()) {
        Trace(TraceLevel::Warning, "Warning: Cannot get file pointer/ftell: File '%s' not opened",
              m_name.CStr());
        return 0;
    }
    std::int64_t position = 0;
    if (!platform::SeekFile(m_handle, 0, kFromCurrent, position, m_lastError)) {
        ReportError("Cannot search through the file %s: %s", m_name.CStr());
        return 0;
    }
    return position - static_cast<std::int64_t>(Unread());
}

bool AFile::RawWriteString(const char* text, bool addLineEnd)
{
    return RawWrite(text, 1, std::strlen(text)) && (!addLineEnd || RawWrite("\r\n", 1, 2));
}

bool AFile::RawReadLine(char* buffer, std::size_t size)
{
    if (size < 2) {
        return false;
    }
    buffer[0] = '\0';
    std::size_t count = 0;
    if (!RawRead(buffer, 1, size - 1, count)) {
        return false;
    }
    const std::string_view text(buffer, count);
    std::size_t kept = count;     // characters of the line as it is returned
    std::size_t consumed = count; // bytes of the file that it stands for
    if (const std::size_t pair = text.find("\r\n"); pair != std::string_view::npos) {
        buffer[pair] = '\n';
        kept = pair + 1;
        consumed = pair + 2;
    } else if (const std::size_t cr = text.find('\r'); cr != std::string_view::npos) {
        // At the end of a full read the "\n" that belongs to it may still follow: it is left for the next
        // read.
        const bool undecided = cr > 0 && cr + 1 == count && count == size - 1;
        kept = consumed = undecided ? cr : cr + 1;
        if (!undecided) {
            buffer[cr] = '\n';
        }
    } else if (const std::size_t lf = text.find('\n'); lf != std::string_view::npos) {
        kept = consumed = lf + 1;
    }
    buffer[kept] = '\0';
    return consumed == count || RawSeek(-static_cast<std::int64_t>(count - consumed), kFromCurrent);
}

bool AFile::ReadLine(char* buffer, std::size_t size, bool& complete)
{
    complete = false;
    if (size > 0) {
        buffer[0] = '\0';
    }
    if (IsEof() || !RawReadLine(buffer, size)) {
        return false;
    }
    const std::size_t length = std::strlen(buffer);
    if (length == 0 && IsEof()) {
        return false;
    }
    complete = (length > 0 && buffer[length - 1] == '\n') || IsEof();
    return true;
}
