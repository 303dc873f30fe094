// The one way of a message's bytes: whoever puts a message on the wire asks its source for more of it until
// it ends or fails. A source belongs to one thread and composes one message after the other.
#pragma once

#include <cstdint>

class CMail;

enum class PullState : std::uint8_t
{
    More,
    End,   // the message is complete
    Failed // it never will be; the error is raised. Nothing that was given out may be delivered.
};

struct Pulled
{
    std::int32_t count = 0; // bytes written; 0 only with End and Failed
    PullState state = PullState::More;
};

class CMessageSource
{
public:
    // The least room for a call of Next, in bytes.
    static constexpr std::int32_t kSmallestRoom = 1000;

    CMessageSource() = default;
    CMessageSource(const CMessageSource&) = delete;
    CMessageSource& operator=(const CMessageSource&) = delete;
    virtual ~CMessageSource() = default;

    // Begins the message of `job` anew. The job must live as long as the message is pulled. Throws nothing.
    virtual void Begin(CMail& job) = 0;
    // Writes the message's next bytes, at most `size`, into `room`. After End or Failed the answer stays the
    // same, with no bytes, until the next Begin. Throws std::bad_alloc without memory; that too is for good.
    virtual Pulled Next(char* room, std::int32_t size) = 0;
};
