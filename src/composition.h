// What a thread remembers between two calls of its message callbacks. One record a thread: several threads
// compose their mails at the same time, each thread one message after the other.
#pragma once

#include <cstdint>

#include "src-baselib/cestring.h"
#include "src/iofilter.h"

class CMail;
class CMailAttachment;

enum class CompositionPhase : std::int32_t
{
    NotStarted,
    Text,
    Attachments
};

struct CompositionState
{
    static constexpr std::int32_t kCapacity = 1000;

    CompositionPhase phase = CompositionPhase::NotStarted;
    bool failed = false;  // no further chunk is given out until the next rewind
    CMail* job = nullptr; // not owned; valid for the send that registered it
    CEString boundary;
    IOElement* textStream = nullptr; // the job's
    std::int32_t attachmentCount = 0;
    std::int32_t attachmentIndex = 0;
    bool attachmentHeaderSent = false;
    IOElement* attachmentStream = nullptr; // the current attachment's
    CEString overflow;                     // what did not fit the buffer and goes out first
    CBase64FilterIo attachmentLines;       // over that stream
    char ownBuffer[kCapacity + 1] = "";

    // Where the next chunk is written, kCapacity + 1 bytes; it is valid until the next call.
    char* buffer = ownBuffer;
    // A caller whose buffer has room may take as many lines of an attachment at once as fit in these bytes.
    std::int32_t lineRoom = kOneLine;
    static constexpr std::int32_t kOneLine = 79;
};

struct WholeTextState
{
    bool sent = false;
    int length = 0;
};

struct ThreadComposition
{
    CompositionState message;
    WholeTextState wholeText;
};

// The calling thread's record; null when the thread has no state.
[[nodiscard]] ThreadComposition* CurrentComposition();
