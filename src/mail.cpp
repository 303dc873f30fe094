#include "src/mail.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "src-baselib/report.h"

namespace {
constexpr std::int64_t kLargestReadAhead = 65536;

// Looks at a file without making the host's error of what it finds.
class CProbeFile : public AFile
{
public:
    bool ReportError(const char* format, const char* argument) override
    {
        Trace(TraceLevel::Error, "%s", DescribeFailure(format, argument).CStr());
        return false;
    }

    // The file's size, -1 where the system does not tell it beforehand.
    bool Probe(std::int64_t& size)
    {
        if (!Open()) {
            return false;
        }
        if (!platform::IsRegularFile(Handle())) {
            SetLastSystemError(platform::NotAFileError());
            return ReportError("The file %s cannot be opened: %s.", GetFileName().CStr());
        }
        char byte = 0;
        std::uint32_t count = 1;
        int error = 0;
        if (!platform::ReadFile(Handle(), &byte, count,
                                error)) { // one byte tells; reading ahead would be wasted
            SetLastSystemError(error);
            return ReportError("Cannot read the file %s: %s.", GetFileName().CStr());
        }
        size = GetLength();
        if (size == 0 && count > 0) {
            size = -1; // some system files have content and no size
        }
        return true;
    }
};
} // namespace

bool CCheckedFile::Begin()
{
    Close();
    m_rest = m_checkedSize;
    if (m_checkedSize > 0 && m_checkedSize < kLargestReadAhead) {
        GetFile().SetReadAhead(static_cast<std::size_t>(m_checkedSize)); // one read takes all of a small file
    }
    m_failed = !GetFile().Open();
    return !m_failed;
}

bool CCheckedFile::Read(void* buffer, std::int32_t& length)
{
    if (m_checkedSize >= 0) {
        length = static_cast<std::int32_t>(std::min<std::int64_t>(length, m_rest));
        if (length == 0) {
            return !m_failed;
        }
    }
    const bool read = IOFile::Read(buffer, length);
    m_failed = m_failed || !read;
    m_rest -= m_checkedSize >= 0 ? length : 0;
    return read;
}

const char* CCheckedFile::Lend(std::int32_t& length, std::int32_t unit)
{
    if (m_checkedSize < 0) {
        return IOFile::Lend(length, unit);
    }
    length = static_cast<std::int32_t>(std::min<std::int64_t>(length, m_rest));
    const char* const bytes = IOFile::Lend(length, unit);
    m_rest -= bytes != nullptr ? length : 0;
    return bytes;
}

bool CMailDocument::CheckFile()
{
    CProbeFile probe;
    probe.SetFileName(m_fileName.CStr());
    std::int64_t size = -1;
    const bool readable = probe.Probe(size);
    m_file.SetCheckedSize(size);
    return readable;
}

std::int64_t CMailDocument::GetContentSize() const
{
    std::vector<MemoryBlock> blocks;
    if (m_memory.IsEmpty()) {
        return m_file.GetCheckedSize();
    }
    if (!ParseMemoryBlocks(m_memory.View(), blocks)) {
        return -1;
    }
    return std::accumulate(blocks.begin(), blocks.end(), std::int64_t{0},
                           [](std::int64_t sum, const MemoryBlock& block) {
                               return sum + static_cast<std::int64_t>(block.length);
                           });
}

bool CCountedStream::Read(void* buffer, std::int32_t& length)
{
    const bool read = GetInner()->Read(buffer, length);
    m_progress.AddRead(read ? length : 0);
    return read;
}

const char* CCountedStream::Lend(std::int32_t& length, std::int32_t unit)
{
    IOLender* const lender = GetInner()->GetLender();
    const char* const bytes = lender == nullptr ? nullptr : lender->Lend(length, unit);
    m_progress.AddRead(bytes == nullptr ? 0 : length);
    return bytes;
}

IOElement* CMailDocument::OpenChosenStream()
{
    IOElement* const source = OpenSource();
    m_counted.SetInner(source);
    return source != nullptr && m_counted.IsWanted() ? &m_counted : source;
}

IOElement* CMailDocument::OpenSource()
{
    if (m_memory.IsEmpty()) {
        m_file.SetName(m_fileName.CStr());
        return m_file.Begin() ? &m_file : nullptr;
    }
    if (!m_memoryStream) {
        m_memoryStream = std::make_unique<IOMemory>();
    }
    return m_memoryStream->SetMemoryBlocks(m_memory.CStr()) ? m_memoryStream.get() : nullptr;
}

CrLfFilterIo* CMailTextBody::OpenStream()
{
    m_textFilter.Restart(OpenChosenStream());
    return &m_textFilter;
}

std::uint64_t CMail::GetContentSize() const
{
    std::int64_t size = std::max<std::int64_t>(m_text.GetContentSize(), 0);
    for (std::int32_t i = 0; i < m_attachments.GetCount(); ++i) {
        size += std::max<std::int64_t>(m_attachments.At(i)->GetContentSize(), 0);
    }
    return static_cast<std::uint64_t>(size) * static_cast<std::uint64_t>(GetMessageCount());
}

void CMail::CountReads()
{
    m_text.CountReads(m_progress);
    for (std::int32_t i = 0; i < m_attachments.GetCount(); ++i) {
        m_attachments.At(i)->CountReads(m_progress);
    }
}

std::vector<const CMailAddress*> CMail::GetRecipients(std::int32_t message) const
{
    std::vector<const CMailAddress*> all;
    for (const Addresses* const list : {&m_to, &m_cc, &m_bcc}) {
        const bool one = list == &m_to && IsMessagePerRecipient();
        const std::int32_t end = one ? std::min(message + 1, list->GetCount()) : list->GetCount();
        for (std::int32_t i = one ? message : 0; i < end; ++i) {
            all.push_back(list->At(i));
        }
    }
    return all;
}
