// Calls of the transport that keep copies of what they are given. Most of them do not look whether there was
// memory for the copy, and report success without it: such a message would go out without a header field.
#pragma once

#include <cerrno>
#include <new>

// The result of `function`. Throws std::bad_alloc when it ran out of memory, which errno alone tells.
template<class Function, class... Arguments>
auto CallTransport(Function function, Arguments... arguments)
{
    errno = 0;
    const auto result = function(arguments...);
    if (errno == ENOMEM) {
        throw std::bad_alloc();
    }
    return result;
}
