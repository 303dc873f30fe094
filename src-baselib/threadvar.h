// One object of each kind for each thread, kept in a thread-local slot of the platform. The slot exists from
// Alloc to Free; an object from the thread's first use of it to Destroy, both called on the thread itself.
#pragma once

#include <atomic>
#include <memory>

#include "src-baselib/neverdestroyed.h"
#include "src-baselib/platform.h"

class CThreadVarBase
{
public:
    using DestroyFunction = void (*)(void* object);

    CThreadVarBase() = default;
    CThreadVarBase(const CThreadVarBase&) = delete;
    CThreadVarBase& operator=(const CThreadVarBase&) = delete;
    virtual ~CThreadVarBase() = default;
    virtual bool Init()
    {
        m_slot = -1;
        return true;
    }
    // False when the system has no slot left.
    virtual bool Alloc() = 0;

    // Other threads may be at work, at the process's end: to them it looks as if they had no object.
    void Free() { platform::FreeSlot(m_slot.exchange(-1)); }
    // Deletes the calling thread's object, if it has one. The slot is emptied after that: what the object's
    // end reports still finds the thread's state.
    void Destroy()
    {
        const int slot = m_slot;
        void* const object = platform::GetSlot(slot);
        if (object != nullptr && m_destroy != nullptr) {
            m_destroy(object);
            platform::SetSlot(slot, nullptr);
        }
    }

protected:
    bool AllocSlot(DestroyFunction destroy)
    {
        m_destroy = destroy;
        if (m_slot == -1) {
            m_slot = platform::AllocateSlot();
        }
        return m_slot != -1 && platform::SetSlot(m_slot, nullptr);
    }
    [[nodiscard]] int Slot() const { return m_slot; }

private:
    std::atomic<int> m_slot = -1;
    DestroyFunction m_destroy = nullptr;
};

template<class T>
class CThreadVar : public CThreadVarBase
{
public:
    bool Alloc() override
    {
        return AllocSlot([](void* object) { const std::unique_ptr<T> owned(static_cast<T*>(object)); });
    }
    // The calling thread's object, null when it has none.
    [[nodiscard]] T* Get() const { return static_cast<T*>(platform::GetSlot(Slot())); }
    // Hands the object to the slot. Null, and the object is gone, when the slot cannot keep it.
    T* Set(std::unique_ptr<T> object)
    {
        return platform::SetSlot(Slot(), object.get()) ? object.release() : nullptr;
    }
};
