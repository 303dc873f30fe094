// An object in static storage whose destructor never runs: at the process's end the library is still at work
// after the destructors of its statics, for threads that are and for handlers that the host registered
// before.
#pragma once

#include <new>

template<class T>
class CNeverDestroyed
{
public:
    CNeverDestroyed() { new (m_storage) T; }
    [[nodiscard]] T& Get() { return *std::launder(reinterpret_cast<T*>(m_storage)); }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
};
