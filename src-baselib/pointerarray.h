// A growable array of pointers. CPointerArray owns its slots, never what they point to; COwnedArray adds
// typed access and deletes its elements. Not for use from several threads at once.
#pragma once

#include <cstdint>
#include <memory>

class CPointerArray
{
public:
    CPointerArray() = default;
    CPointerArray(const CPointerArray&) = delete;
    CPointerArray& operator=(const CPointerArray&) = delete;
    virtual ~CPointerArray() = default;

    // Appends a pointer. Throws std::bad_alloc when the slots cannot grow; the array is then unchanged.
    void Add(void* pointer);
    // The pointer at `index`, or null for an index out of range.
    [[nodiscard]] void* At(std::int32_t index) const;
    // Takes the pointer at `index` out and returns it; null for an index out of range.
    void* Take(std::int32_t index);
    void Swap(CPointerArray& other) noexcept;
    // Forgets all pointers and keeps the slots.
    void Forget() { m_count = 0; }
    [[nodiscard]] std::int32_t GetCount() const { return m_count; }
    [[nodiscard]] std::int32_t GetCapacity() const { return m_capacity; }
    [[nodiscard]] void** Slots() const { return m_slots.get(); }

private:
    void Grow();

    std::unique_ptr<void*[]> m_slots;
    std::int32_t m_count = 0;
    std::int32_t m_capacity = 0;
};

template<class T>
class COwnedArray : public CPointerArray
{
public:
    COwnedArray() = default;
    COwnedArray(const COwnedArray&) = delete;
    COwnedArray& operator=(const COwnedArray&) = delete;
    ~COwnedArray() override { DeleteElements(); }

    T* Add(std::unique_ptr<T> element)
    {
        CPointerArray::Add(element.get());
        return element.release();
    }
    [[nodiscard]] T* At(std::int32_t index) const { return static_cast<T*>(CPointerArray::At(index)); }
    std::unique_ptr<T> Take(std::int32_t index)
    {
        return std::unique_ptr<T>(static_cast<T*>(CPointerArray::Take(index)));
    }

protected:
    void DeleteElements()
    {
        for (std::int32_t i = 0; i < GetCount(); ++i) {
            const std::unique_ptr<T> element(At(i));
        }
        Forget();
    }
};
