// An object in static storage whose destructor never runs: at the process's end the library is still at work
// after the destructors of its statics, for threads that are and for handlers that the host registered
// before. At namespace scope and `constinit`, since a forked child could find the guard of a static variable
// in a function taken, by a thread that it does not have.
#pragma once

template<class T>
class CNeverDestroyed
{
public:
    constexpr CNeverDestroyed() : m_object() {}
    constexpr ~CNeverDestroyed() {} // NOLINT(modernize-use-equals-default): the default one is deleted
    CNeverDestroyed(const CNeverDestroyed&) = delete;
    CNeverDestroyed& operator=(const CNeverDestroyed&) = delete;

    [[nodiscard]] T& Get() { return m_object; }

private:
    union
    {
        T m_object;
    };
};
