// A stream over bytes in memory, held in a store of 65536-byte chunks. A sink, when one is set, receives the
// bytes as chunks fill up, for consumers that want them early.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "src-baselib/ioelement.h"
#include "src-baselib/textcache.h"

struct MemoryBlock
{
    const void* address;
    std::uint64_t length;
};

// Reads a ";"-separated list of decimal numbers that alternate between an address in this process and a
// length in bytes. False for an odd number of items, anything but a plain number, a number out of range, and
// a null address with a length. A trailing ";" adds no item; an empty text is a valid empty list.
[[nodiscard]] bool ParseMemoryBlocks(std::string_view text, std::vector<MemoryBlock>& blocks);

class IOMemory : public IOElement, public IOLender
{
public:
    struct SinkRecord
    {
        const void* data;
        std::int64_t length;
    };
    // Both return false to report a failure. Null bytes of length 0 tell the sink to start over.
    using DataSink = bool (*)(const void* data, std::int64_t length, void* user, int error);
    using RecordSink = bool (*)(SinkRecord* record, void* user, int error);

    IOMemory();

    bool Read(void* buffer, std::int32_t& length) override { return ReadAt(m_position, buffer, length); }
    [[nodiscard]] const char* Lend(std::int32_t& length, std::int32_t unit) override;
    // Writing over stored bytes replaces them only within the chunk at the position; the rest is appended.
    // Fails for a stream over blocks of the host, which are only read.
    bool Write(const void* buffer, std::int32_t length) override;
    bool SetMark() override;
    bool ReadAtMark(void* buffer, std::int32_t& length) override { return ReadAt(m_mark, buffer, length); }
    bool SetMarkPosition(std::int64_t offset) override;
    bool ClearMark() override;
    // Written bytes are referenced, not copied: they must outlive the stream.
    void SetNoCopy(bool noCopy) override { m_noCopy = noCopy; }
    [[nodiscard]] std::int64_t GetSize() override { return Size(); }
    void SetName(const char* name) override { m_name = name; }
    [[nodiscard]] const CEString& GetName() const override { return m_name; }
    [[nodiscard]] bool IsAvailable() override { return Size() > 0; }
    [[nodiscard]] void* GetDirectPointer(std::int64_t offset, std::int32_t length) override;
    [[nodiscard]] bool IsAtEnd() override { return m_position >= Size(); }
    [[nodiscard]] bool IsMarkAtEnd() override { return m_mark == Size(); }
    bool SeekBegin(std::int64_t offset) override;
    bool SeekEnd(std::int64_t offset) override;
    bool SeekCurrent(std::int64_t delta) override;
    [[nodiscard]] std::int64_t Tell() override { return m_position; }
    bool Close() override;
    [[nodiscard]] bool ReservedQuery() const override { return true; }
    bool Flush() override;
    // Also makes every stored byte count as not yet handed to the sink.
    virtual void SetAutoFlush(bool autoFlush);

    // The content is now that of the listed blocks of the host, which are read where they lie: they must stay
    // until the stream ends or has another content. False, and no content, when the list is not valid.
    bool SetMemoryBlocks(const char* text);
    // At most one of the sinks is used, the data sink before the record sink. `record` is not owned.
    void SetDataSink(DataSink sink, void* user);
    void SetRecordSink(RecordSink sink, SinkRecord* record, void* user);

private:
    [[nodiscard]] std::int64_t Size() const { return static_cast<std::int64_t>(m_store.GetTotalSize()); }
    [[nodiscard]] bool HasSink() const { return m_dataSink != nullptr || m_recordSink != nullptr; }
    bool ReadAt(std::int64_t& position, void* buffer, std::int32_t& length);
    bool Append(const void* buffer, std::int32_t length);
    bool Overwrite(const char* buffer, std::int32_t length);
    bool Walk(std::int64_t from, std::int64_t to, char* destination);
    bool HandOn(const void* data, std::int64_t length);
    bool FlushPending();
    bool RestartSink();
    bool FlushToInner();

    void ClearStore();

    CTextCache m_store;
    // Where the last walk ended: reads go on from there instead of walking from the first chunk.
    std::int32_t m_walkItem = 0;
    std::int64_t m_walkStart = 0; // of that item
    std::int64_t m_position = 0;
    std::int64_t m_baseOffset = 0; // subtracted from offsets given to GetDirectPointer
    std::int64_t m_mark = -1;      // -1: none
    DataSink m_dataSink = nullptr;
    RecordSink m_recordSink = nullptr;
    SinkRecord* m_sinkRecord = nullptr; // not owned
    void* m_sinkUser = nullptr;
    bool m_closed = false;
    bool m_autoFlush = true;
    bool m_noCopy = false;
    bool m_borrowed = false;           // the content lies in blocks of the host
    std::int64_t m_flushedOffset = -1; // of the last byte handed to the sink; -1: none
    CEString m_name;
};
