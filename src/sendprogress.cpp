#include "src/sendprogress.h"

#include <atomic>
#include <vector>

#include "src-baselib/iomem.h"

bool CSendProgress::Set(std::string_view block)
{
    m_words = nullptr;
    if (block.empty()) {
        return true;
    }
    std::vector<MemoryBlock> blocks;
    if (!ParseMemoryBlocks(block, blocks) || blocks.size() != 1 ||
        blocks[0].length != Count * sizeof *m_words ||
        reinterpret_cast<std::uintptr_t>(blocks[0].address) % sizeof *m_words != 0) {
        return false;
    }
    m_words = static_cast<std::uint64_t*>(const_cast<void*>(blocks[0].address));
    return true;
}

void CSendProgress::Begin(std::uint64_t total) const noexcept
{
    if (IsSet()) {
        std::atomic_ref(m_words[Read]).store(0, std::memory_order_relaxed);
        std::atomic_ref(m_words[Total]).store(total, std::memory_order_relaxed);
    }
}

void CSendProgress::AddRead(std::int64_t count) const noexcept
{
    if (IsSet() && count > 0) {
        std::atomic_ref(m_words[Read])
            .fetch_add(static_cast<std::uint64_t>(count), std::memory_order_relaxed);
    }
}

bool CSendProgress::IsCancelled() const noexcept
{
    return IsSet() && std::atomic_ref(m_words[Cancel]).load(std::memory_order_relaxed) != 0;
}
