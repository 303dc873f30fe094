// The byte store behind IOMemory: a growing sequence of bytes kept as a list of items, so that appending
// never moves what is stored. An item is an owned chunk (CTextCacheItem) or a block that somebody else owns
// (CPointerCacheItem); such a block must stay valid as long as the cache refers to it. Memory exhaustion
// throws.
#pragma once

#include <cstdint>

#include "src-baselib/cestring.h"
#include "src-baselib/pointerarray.h"

class CCacheItem
{
public:
    CCacheItem() = default;
    CCacheItem(const CCacheItem&) = delete;
    CCacheItem& operator=(const CCacheItem&) = delete;
    virtual ~CCacheItem() = default;

    [[nodiscard]] virtual std::int32_t GetSize() const = 0;
    [[nodiscard]] virtual std::int32_t GetCapacity() const = 0;
    [[nodiscard]] virtual char* GetData() const = 0;
    // Counts `length` bytes that were written at the item's end.
    virtual void Grow(std::int32_t length) = 0;
    virtual void SetSize(std::int32_t size) = 0;
    // The buffer object of an owned chunk; an empty one for a referenced block.
    [[nodiscard]] virtual const CBString& GetBuffer() const = 0;
};

class CTextCacheItem : public CCacheItem
{
public:
    // Reserves `capacity` bytes; 0 makes an empty chunk.
    explicit CTextCacheItem(std::int32_t capacity);

    [[nodiscard]] std::int32_t GetSize() const override
    {
        return static_cast<std::int32_t>(m_buffer.GetLength());
    }
    [[nodiscard]] std::int32_t GetCapacity() const override
    {
        return static_cast<std::int32_t>(m_buffer.GetCapacity());
    }
    [[nodiscard]] char* GetData() const override { return m_buffer.Data(); }
    void Grow(std::int32_t length) override { SetSize(GetSize() + length); }
    // Bounded by the capacity.
    void SetSize(std::int32_t size) override;
    [[nodiscard]] const CBString& GetBuffer() const override { return m_buffer; }

private:
    CBString m_buffer;
};

class CPointerCacheItem : public CCacheItem
{
public:
    CPointerCacheItem() = default; // of no bytes
    CPointerCacheItem(void* data, std::int32_t size)
        : m_data(static_cast<char*>(data)), m_size(size), m_capacity(size)
    {
    }

    [[nodiscard]] std::int32_t GetSize() const override { return m_size; }
    [[nodiscard]] std::int32_t GetCapacity() const override { return m_capacity; }
    [[nodiscard]] char* GetData() const override { return m_data; }
    void Grow(std::int32_t length) override { SetSize(m_size + length); }
    // Bounded by the block's length.
    void SetSize(std::int32_t size) override;
    [[nodiscard]] const CBString& GetBuffer() const override;

private:
    char* m_data = nullptr; // not owned
    std::int32_t m_size = 0;
    std::int32_t m_capacity = 0;
};

class CTextCacheBase
{
public:
    // Returns 0 to stop the walk.
    using ChunkCallback = int (*)(void* argument, const char* data, std::int32_t length);

    CTextCacheBase() = default;
    CTextCacheBase(const CTextCacheBase&) = delete;
    CTextCacheBase& operator=(const CTextCacheBase&) = delete;

    virtual ~CTextCacheBase() = default;
    virtual bool Append(const void* data, std::int32_t length) = 0;
    virtual bool AppendReference(void* data, std::int32_t length) = 0;
    [[nodiscard]] virtual std::int32_t GetChunkSize() const = 0;
    virtual bool CopyTo(void* destination, std::int64_t length) const = 0;
    [[nodiscard]] virtual char* GetItemData(std::int32_t index) const = 0;
    [[nodiscard]] virtual const CBString& GetItemText(std::int32_t index) const = 0;
    [[nodiscard]] virtual std::int32_t GetItemSize(std::int32_t index) const = 0;
    [[nodiscard]] virtual std::int32_t GetItemCount() const = 0;
    virtual void Clear() = 0;
    virtual void AddItem(std::int32_t size, void* data) = 0;
    virtual void SetChunkSize(std::int32_t size) = 0;
    virtual bool ForEachChunk(ChunkCallback callback, void* argument, std::int64_t* count,
                              std::int32_t* index, std::int32_t* offset) const = 0;
    virtual void ReservedA() {}
    virtual void ReservedB() {}
    virtual void SetItemSize(std::int32_t index, std::int32_t size) = 0;
};

class CTextCache : public CTextCacheBase
{
public:
    // `chunkSize` is the capacity of each owned chunk; 0: appended bytes are referenced, not copied.
    explicit CTextCache(std::int32_t chunkSize) : m_chunkSize(chunkSize) {}

    // Copies bytes in. A negative length takes a zero-terminated text (nothing when `data` is null).
    bool Append(const void* data, std::int32_t length) override;
    // Refers to a block of the caller. As a side effect the chunk size becomes the block's length.
    bool AppendReference(void* data, std::int32_t length) override;
    [[nodiscard]] std::int32_t GetChunkSize() const override { return m_chunkSize; }
    // Copies up to `length` bytes out. False when the cache holds more than was asked for, true when it was
    // copied whole; a null destination or length 0 asks whether the cache is empty.
    bool CopyTo(void* destination, std::int64_t length) const override;
    // An index out of range selects an empty item.
    [[nodiscard]] char* GetItemData(std::int32_t index) const override { return Item(index).GetData(); }
    [[nodiscard]] const CBString& GetItemText(std::int32_t index) const override
    {
        return Item(index).GetBuffer();
    }
    [[nodiscard]] std::int32_t GetItemSize(std::int32_t index) const override
    {
        return Item(index).GetSize();
    }
    [[nodiscard]] std::int32_t GetItemCount() const override { return m_items.GetCount(); }
    void Clear() override;
    // Sets the chunk size and appends an item: a reference to `data`, or an empty chunk when that is null.
    void AddItem(std::int32_t size, void* data) override;
    // Ignored unless positive.
    void SetChunkSize(std::int32_t size) override;
    // Hands stored bytes to `callback`. `count` (-1: all), `index` and `offset` may be null; they come back
    // as the number of bytes delivered and the place to resume at. False when the callback stopped the walk.
    bool ForEachChunk(ChunkCallback callback, void* argument, std::int64_t* count, std::int32_t* index,
                      std::int32_t* offset) const override;
    void SetItemSize(std::int32_t index, std::int32_t size) override;

    [[nodiscard]] std::uint64_t GetTotalSize() const { return m_totalSize; }

private:
    [[nodiscard]] const CCacheItem& Item(std::int32_t index) const;
    CCacheItem& MakeCurrent(std::unique_ptr<CCacheItem> item);

    std::uint64_t m_totalSize = 0;
    COwnedArray<CCacheItem> m_items;
    CCacheItem* m_current = nullptr; // the item that Append fills; owned by m_items
    std::int32_t m_chunkSize;
};
