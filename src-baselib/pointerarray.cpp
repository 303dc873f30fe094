#include "src-baselib/pointerarray.h"

#include <algorithm>
#include <utility>

namespace {
constexpr std::int32_t kFirstCapacity = 31;
constexpr std::int64_t kGrowPercent = 150;
} // namespace

void CPointerArray::Grow()
{
    const std::int32_t capacity =
        m_capacity < 1 ? kFirstCapacity : static_cast<std::int32_t>(m_capacity * kGrowPercent / 100);
    auto slots = std::make_unique<void*[]>(static_cast<std::size_t>(capacity)); // beyond the count: null
    std::copy_n(m_slots.get(), m_count, slots.get());
    m_slots = std::move(slots);
    m_capacity = capacity;
}

void CPointerArray::Swap(CPointerArray& other) noexcept
{
    std::swap(m_slots, other.m_slots);
    std::swap(m_count, other.m_count);
    std::swap(m_capacity, other.m_capacity);
}

void CPointerArray::Add(void* pointer)
{
    if (m_count >= m_capacity) {
        Grow();
    }
    m_slots[static_cast<std::size_t>(m_count++)] = pointer;
}

void* CPointerArray::At(std::int32_t index) const
{
    return index < 0 || index >= m_count ? nullptr : m_slots[static_cast<std::size_t>(index)];
}

void* CPointerArray::Take(std::int32_t index)
{
    void* const pointer = At(index);
    if (index >= 0 && index < m_count) {
        void** const hole = m_slots.get() + index;
        std::copy(hole + 1, m_slots.get() + m_count, hole);
        --m_count;
    }
    return pointer;
}
