// What a thread owns, when it is made and when it is destroyed; and the library's own beginning and end.
#pragma once

#include "src/mailglobal.h"

// Makes the calling thread's state if it has none. False when there is no place to keep it; throws
// std::bad_alloc without memory.
bool EnsureThreadState();
// Destroys the calling thread's state: the mail state, then the error state with its trace. Never throws.
void DestroyThreadState() noexcept;
// The calling thread's mail state; null before EnsureThreadState.
[[nodiscard]] CMailGlobal* ThreadMail();

// The library is loaded: `module` is its handle, null where there is none. Never throws.
void LibraryAttach(void* module) noexcept;
// The library is unloaded, or the process ends.
void LibraryDetach() noexcept;
