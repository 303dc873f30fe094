#include "src-baselib/iofile.h"

namespace {
bool ReadFrom(AFile& file, void* buffer, std::int32_t& length)
{
    const std::int32_t wanted = length;
    length = 0;
    if (buffer == nullptr || wanted < 0) {
        return false;
    }
    std::size_t count = 0;
    const bool succeeded = file.Read(buffer, 1, static_cast<std::size_t>(wanted), count);
    length = static_cast<std::int32_t>(count);
    return succeeded;
}
} // namespace

bool IOFile::Read(void* buffer, std::int32_t& length)
{
    const FileState state = m_file.GetState();
    const bool readable =
        state == FileState::Reading || state == FileState::ReadingWriting || state == FileState::Appending;
    if (!readable && !m_file.Open()) {
        length = 0;
        return false;
    }
    return ReadFrom(m_file, buffer, length);
}

const char* IOFile::Lend(std::int32_t& length, std::int32_t unit)
{
    if (length < unit || unit <= 0) {
        return nullptr;
    }
    auto count = static_cast<std::size_t>(length);
    const char* const bytes = m_file.Lend(count, static_cast<std::size_t>(unit));
    length = static_cast<std::int32_t>(count);
    return bytes;
}

bool IOFile::Write(const void* buffer, std::int32_t length)
{
    if (buffer == nullptr || length < 0) {
        return false;
    }
    const FileState wanted = m_append ? FileState::Appending : FileState::ReadingWriting;
    if (m_file.GetState() != wanted && !(m_append ? m_file.OpenAppend() : m_file.Create())) {
        return false;
    }
    if (!m_file.Write(buffer, 1, static_cast<std::size_t>(length))) {
        return false;
    }
    AddByteCount(static_cast<std::uint32_t>(length));
    return true;
}

bool IOFile::SetMark()
{
    if (!m_file.IsOpen() && !m_file.Open()) {
        return false;
    }
    m_markFile.Reset();
    m_markFile.SetFileName(m_file.GetFileName().CStr());
    return m_markFile.TakeReadPosition(m_file) && m_markFile.IsOpen();
}

bool IOFile::ReadAtMark(void* buffer, std::int32_t& length)
{
    if (!m_markFile.IsOpen()) {
        length = 0;
        return false;
    }
    return ReadFrom(m_markFile, buffer, length);
}

bool IOFile::Close()
{
    m_markFile.Close();
    m_file.Close();
    return IOElement::Close();
}
