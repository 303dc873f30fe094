#include "src-baselib/iomem.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <utility>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

namespace {
constexpr std::int32_t kChunkSize = 65536;

bool ParseNumber(std::string_view text, std::uint64_t& number)
{
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return !text.empty() && error == std::errc() && stop == end;
}

bool ParseBlock(std::string_view address, std::string_view length, MemoryBlock& block)
{
    std::uint64_t place = 0;
    if (!ParseNumber(address, place) || !ParseNumber(length, block.length)) {
        return false;
    }
    // A block that does not fit into the address space cannot be one.
    if (block.length > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) ||
        place > std::numeric_limits<std::uintptr_t>::max() - block.length ||
        (place == 0 && block.length > 0)) {
        return false;
    }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the host passes addresses as decimal text
    block.address = reinterpret_cast<const void*>(static_cast<std::uintptr_t>(place));
    return true;
}
} // namespace

bool ParseMemoryBlocks(std::string_view text, std::vector<MemoryBlock>& blocks)
{
    blocks.clear();
    const auto takeItem = [&text] {
        const std::string_view item = text.substr(0, text.find(';'));
        text.remove_prefix(std::min(text.size(), item.size() + 1));
        return item;
    };
    while (!text.empty()) {
        const std::string_view address = takeItem();
        MemoryBlock block = {};
        if (text.empty() || !ParseBlock(address, takeItem(), block)) {
            blocks.clear();
            return false;
        }
        blocks.push_back(block);
    }
    return true;
}

IOMemory::IOMemory() : IOElement(static_cast<IOLender&>(*this)), m_store(kChunkSize) {}

bool IOMemory::ReadAt(std::int64_t& position, void* buffer, std::int32_t& length)
{
    const std::int64_t size = Size();
    if (position >= size) {
        length = 0;
        return true;
    }
    if (length > size - position) {
        length = static_cast<std::int32_t>(size - position);
    }
    if (buffer == nullptr || length < 0 || position < 0) {
        return false;
    }
    if (!Walk(position, position + length, static_cast<char*>(buffer))) {
        return false;
    }
    position += length;
    return true;
}

const char* IOMemory::Lend(std::int32_t& length, std::int32_t unit)
{
    const std::int32_t wanted = std::exchange(length, 0);
    if (unit <= 0 || m_position < 0 || m_position >= Size()) {
        return nullptr;
    }
    if (m_position < m_walkStart) {
        m_walkItem = 0;
        m_walkStart = 0;
    }
    while (m_walkStart + m_store.GetItemSize(m_walkItem) <= m_position) {
        m_walkStart += m_store.GetItemSize(m_walkItem++);
    }
    const std::int64_t inside = m_position - m_walkStart;
    const std::int64_t ready = m_store.GetItemSize(m_walkItem) - inside;
    length = static_cast<std::int32_t>(std::min<std::int64_t>(wanted, ready)) / unit * unit;
    m_position += length;
    return length > 0 ? m_store.GetItemData(m_walkItem) + inside : nullptr;
}

bool IOMemory::Append(const void* buffer, std::int32_t length)
{
    if (m_noCopy) {
        return m_store.AppendReference(const_cast<void*>(buffer), length);
    }
    return m_store.Append(buffer, length);
}

bool IOMemory::Overwrite(const char* buffer, std::int32_t length)
{
    const std::int32_t chunksBefore = m_store.GetItemCount();
    std::int32_t replaced = 0;
    std::int32_t index = -1;
    std::int64_t start = 0;
    for (std::int32_t i = 0; i < chunksBefore && index < 0; ++i) {
        const std::int64_t end = start + m_store.GetItemSize(i);
        if (m_position >= start && m_position < end) {
            index = i;
            replaced = static_cast<std::int32_t>(std::min<std::int64_t>(end - m_position, length));
            std::memcpy(m_store.GetItemData(i) + (m_position - start), buffer,
                        static_cast<std::size_t>(replaced));
        }
        start = end;
    }
    if (!m_store.Append(buffer + replaced, length - replaced)) {
        return false;
    }
    AddByteCount(
        static_cast<std::uint32_t>(length)); // by the whole length: consumers count what went through
    if (!SeekCurrent(length)) {
        return false;
    }
    if (m_autoFlush && HasSink() && index < std::max(chunksBefore - 1, 0)) {
        return RestartSink(); // what was changed has been handed on already
    }
    return true;
}

bool IOMemory::Write(const void* buffer, std::int32_t length)
{
    if (buffer == nullptr || length < 0 || m_borrowed) {
        return false;
    }
    const std::int32_t chunksBefore = m_store.GetItemCount();
    if (m_position < static_cast<std::int64_t>(GetByteCount())) {
        if (!Overwrite(static_cast<const char*>(buffer), length)) {
            return false;
        }
    } else {
        static constexpr char kZeros[4096] = {};
        while (m_position > static_cast<std::int64_t>(GetByteCount())) {
            const std::int64_t gap = m_position - static_cast<std::int64_t>(GetByteCount());
            const auto piece = static_cast<std::int32_t>(std::min<std::int64_t>(gap, sizeof kZeros));
            m_store.Append(kZeros, piece);
            AddByteCount(static_cast<std::uint32_t>(piece));
        }
        if (!Append(buffer, length)) {
            return false;
        }
        m_position = static_cast<std::int64_t>(GetByteCount()) + length;
        AddByteCount(static_cast<std::uint32_t>(length));
    }
    if (HasSink() && m_autoFlush && m_store.GetItemCount() > chunksBefore) {
        return FlushPending();
    }
    return true;
}

bool IOMemory::SetMark()
{
    m_mark = m_position;
    return true;
}

bool IOMemory::SetMarkPosition(std::int64_t offset)
{
    m_mark = offset;
    return true;
}

bool IOMemory::ClearMark()
{
    m_mark = -1;
    return true;
}

bool IOMemory::HandOn(const void* data, std::int64_t length)
{
    bool taken = false;
    if (m_dataSink != nullptr) {
        taken = m_dataSink(data, length, m_sinkUser, PendingError());
    } else {
        *m_sinkRecord = {data, length};
        taken = m_recordSink(m_sinkRecord, m_sinkUser, PendingError());
    }
    if (!taken) {
        RaiseError(codes::kMemoryOutput);
    }
    return taken;
}

void IOMemory::ClearStore()
{
    m_store.Clear();
    m_store.SetChunkSize(kChunkSize); // references have changed it
    m_borrowed = false;
    m_walkItem = 0;
    m_walkStart = 0;
}

// Copies the bytes of [from, to) to the destination or, with none, hands them to the sink chunk by chunk.
bool IOMemory::Walk(std::int64_t from, std::int64_t to, char* destination)
{
    if ((destination == nullptr && !HasSink()) || from < 0 || to < 1 || from >= to || to > Size()) {
        return false;
    }
    const bool resumes = from >= m_walkStart;
    std::int64_t start = resumes ? m_walkStart : 0;
    for (std::int32_t i = resumes ? m_walkItem : 0; i < m_store.GetItemCount() && start < to; ++i) {
        m_walkItem = i;
        m_walkStart = start;
        const std::int64_t end = start + m_store.GetItemSize(i);
        const std::int64_t first = std::max(from, start);
        const std::int64_t length = std::min(to, end) - first;
        if (length > 0) {
            const char* const data = m_store.GetItemData(i) + (first - start);
            if (destination != nullptr) {
                std::memcpy(destination, data, static_cast<std::size_t>(length));
                destination += length;
            } else if (!HandOn(data, length)) {
                return false;
            }
        }
        start = end;
    }
    return true;
}

bool IOMemory::FlushPending()
{
    if (!HasSink() || m_flushedOffset + 1 >= Size()) {
        return true;
    }
    if (!Walk(m_flushedOffset + 1, Size(), nullptr)) {
        return false;
    }
    m_flushedOffset = Size() - 1;
    return true;
}

bool IOMemory::RestartSink()
{
    if (!HandOn(nullptr, 0)) {
        return false;
    }
    m_flushedOffset = -1;
    return true;
}

bool IOMemory::SeekBegin(std::int64_t offset)
{
    if (offset < 0) {
        return false;
    }
    m_position = offset;
    return true;
}

bool IOMemory::SeekEnd(std::int64_t offset)
{
    if (offset > std::numeric_limits<std::int64_t>::max() - Size()) {
        return false;
    }
    m_position = Size() + offset;
    return true;
}

bool IOMemory::SeekCurrent(std::int64_t delta)
{
    if ((delta > 0 && m_position > std::numeric_limits<std::int64_t>::max() - delta) ||
        m_position + delta < 0) {
        return false;
    }
    m_position += delta;
    return true;
}

bool IOMemory::Close()
{
    if (m_closed) {
        return true;
    }
    m_closed = true;
    m_position = 0;
    m_mark = -1;
    m_baseOffset = 0;
    bool succeeded = true;
    if (HasSink()) {
        succeeded = FlushPending();
        succeeded = RestartSink() && succeeded;
    }
    ClearStore();
    return succeeded;
}

bool IOMemory::FlushToInner()
{
    if (m_store.GetItemCount() == 1) {
        return GetInner()->Write(m_store.GetItemData(0), m_store.GetItemSize(0));
    }
    if (Size() > std::numeric_limits<std::int32_t>::max()) {
        return false; // one write cannot carry it
    }
    const std::unique_ptr<char[]> whole(new (std::nothrow) char[static_cast<std::size_t>(Size())]);
    return whole != nullptr && m_store.CopyTo(whole.get(), Size()) &&
           GetInner()->Write(whole.get(), static_cast<std::int32_t>(Size()));
}

bool IOMemory::Flush()
{
    bool succeeded = GetInner() == nullptr || FlushToInner();
    if (HasSink()) {
        succeeded = FlushPending() && succeeded;
    }
    ClearStore();
    m_flushedOffset = -1; // what comes next has not been handed on
    return succeeded;
}

void IOMemory::SetAutoFlush(bool autoFlush)
{
    m_autoFlush = autoFlush;
    m_flushedOffset = -1;
}

void* IOMemory::GetDirectPointer(std::int64_t offset, std::int32_t length)
{
    if (GetInner() != nullptr) {
        return GetInner()->GetDirectPointer(offset, length);
    }
    offset -= m_baseOffset;
    if (offset < 0 || length < 1 || offset >= Size() - length) {
        return nullptr;
    }
    std::int64_t start = 0;
    std::int32_t item = 0;
    while (start + m_store.GetItemSize(item) <= offset) {
        start += m_store.GetItemSize(item++);
    }
    const std::int64_t inside = offset - start;
    return inside + length <= m_store.GetItemSize(item) ? m_store.GetItemData(item) + inside : nullptr;
}

bool IOMemory::SetMemoryBlocks(const char* text)
{
    m_position = 0;
    m_mark = -1;
    m_baseOffset = static_cast<std::int64_t>(GetByteCount());
    m_flushedOffset = -1;
    ResetByteCount();
    ClearStore();

    std::vector<MemoryBlock> blocks;
    if (!ParseMemoryBlocks(text == nullptr ? "" : text, blocks)) {
        return false;
    }
    m_borrowed = !blocks.empty();
    for (const MemoryBlock& block : blocks) {
        auto* data = static_cast<char*>(const_cast<void*>(block.address)); // only read: see Write
        for (std::uint64_t rest = block.length; rest > 0;) {
            const auto piece = static_cast<std::int32_t>(std::min<std::uint64_t>(rest, 1U << 30U));
            m_store.AppendReference(data, piece);
            AddByteCount(static_cast<std::uint32_t>(piece));
            data += piece;
            rest -= static_cast<std::uint64_t>(piece);
        }
    }
    return true;
}

void IOMemory::SetDataSink(DataSink sink, void* user)
{
    m_dataSink = sink;
    m_sinkUser = user;
}

void IOMemory::SetRecordSink(RecordSink sink, SinkRecord* record, void* user)
{
    m_recordSink = record == nullptr ? nullptr : sink;
    m_sinkRecord = record;
    m_sinkUser = user;
}
