#include "src-baselib/textcache.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "src-baselib/neverdestroyed.h"

namespace {
constinit CNeverDestroyed<const CBString> g_noBuffer;
constinit CNeverDestroyed<const CPointerCacheItem> g_noItem;
} // namespace

CTextCacheItem::CTextCacheItem(std::int32_t capacity)
{
    m_buffer.Reserve(static_cast<std::size_t>(std::max(capacity, 0)));
}

void CTextCacheItem::SetSize(std::int32_t size)
{
    m_buffer.SetLength(static_cast<std::size_t>(std::clamp(size, 0, GetCapacity())));
}

void CPointerCacheItem::SetSize(std::int32_t size)
{
    m_size = std::clamp(size, 0, m_capacity);
}

const CBString& CPointerCacheItem::GetBuffer() const
{
    return g_noBuffer.Get();
}

const CCacheItem& CTextCache::Item(std::int32_t index) const
{
    const CCacheItem* const item = m_items.At(index);
    return item == nullptr ? g_noItem.Get() : *item;
}

CCacheItem& CTextCache::MakeCurrent(std::unique_ptr<CCacheItem> item)
{
    m_current = m_items.Add(std::move(item));
    return *m_current;
}

bool CTextCache::Append(const void* data, std::int32_t length)
{
    const auto* bytes = static_cast<const char*>(data);
    if (length < 0 && bytes != nullptr) {
        length = static_cast<std::int32_t>(
            std::min<std::size_t>(std::strlen(bytes), std::numeric_limits<std::int32_t>::max()));
    }
    if (length <= 0) {
        return true;
    }
    if (bytes == nullptr) {
        return false;
    }
    if (m_chunkSize <= 0) {
        return AppendReference(const_cast<char*>(bytes), length);
    }
    while (length > 0) {
        if (m_current == nullptr || m_current->GetSize() >= m_current->GetCapacity()) {
            MakeCurrent(std::make_unique<CTextCacheItem>(m_chunkSize));
        }
        const std::int32_t piece = std::min(length, m_current->GetCapacity() - m_current->GetSize());
        std::memcpy(m_current->GetData() + m_current->GetSize(), bytes, static_cast<std::size_t>(piece));
        m_current->Grow(piece);
        m_totalSize += static_cast<std::uint64_t>(piece);
        bytes += piece;
        length -= piece;
    }
    return true;
}

bool CTextCache::AppendReference(void* data, std::int32_t length)
{
    if (length == 0) {
        return true;
    }
    if (length < 0 || data == nullptr) {
        return false;
    }
    AddItem(length, data);
    m_totalSize += static_cast<std::uint64_t>(length);
    return true;
}

void CTextCache::AddItem(std::int32_t size, void* data)
{
    m_chunkSize = size;
    if (data != nullptr) {
        MakeCurrent(std::make_unique<CPointerCacheItem>(data, size));
    } else {
        MakeCurrent(std::make_unique<CTextCacheItem>(size));
    }
}

void CTextCache::SetChunkSize(std::int32_t size)
{
    if (size > 0) {
        m_chunkSize = size;
    }
}

void CTextCache::Clear()
{
    for (std::int32_t i = m_items.GetCount(); i > 0; --i) {
        m_items.Take(i - 1).reset();
    }
    m_current = nullptr;
    m_totalSize = 0;
}

bool CTextCache::CopyTo(void* destination, std::int64_t length) const
{
    if (destination == nullptr || length == 0) {
        return m_totalSize == 0;
    }
    auto* out = static_cast<char*>(destination);
    for (std::int32_t i = 0; i < m_items.GetCount(); ++i) {
        const CCacheItem& item = Item(i);
        const std::int64_t piece = std::min<std::int64_t>(item.GetSize(), length);
        if (piece > 0) {
            std::memcpy(out, item.GetData(), static_cast<std::size_t>(piece));
        }
        out += piece;
        length -= piece;
        if (piece < item.GetSize()) {
            return false;
        }
    }
    return true;
}

bool CTextCache::ForEachChunk(ChunkCallback callback, void* argument, std::int64_t* count,
                              std::int32_t* index, std::int32_t* offset) const
{
    std::int64_t wanted = count == nullptr || *count == -1 ? static_cast<std::int64_t>(m_totalSize) : *count;
    std::int32_t item = index == nullptr ? 0 : *index;
    std::int32_t start = offset == nullptr ? 0 : *offset;
    std::int64_t delivered = 0;
    bool more = true;
    while (wanted > 0 && item < m_items.GetCount()) {
        const std::int32_t size = GetItemSize(item);
        const auto piece =
            static_cast<std::int32_t>(std::min<std::int64_t>(std::max(size - start, 0), wanted));
        more = callback(argument, GetItemData(item) + start, piece) != 0;
        if (!more) {
            break;
        }
        start += piece;
        wanted -= piece;
        delivered += piece;
        if (start >= size) {
            ++item;
            start = 0;
        }
    }
    if (count != nullptr) {
        *count = delivered;
    }
    if (index != nullptr) {
        *index = item;
    }
    if (offset != nullptr) {
        *offset = start;
    }
    return more;
}

void CTextCache::SetItemSize(std::int32_t index, std::int32_t size)
{
    CCacheItem* const item = m_items.At(index);
    if (item == nullptr) {
        return;
    }
    item->SetSize(size);
    m_totalSize = 0;
    for (std::int32_t i = 0; i < m_items.GetCount(); ++i) {
        m_totalSize += static_cast<std::uint64_t>(GetItemSize(i));
    }
}
