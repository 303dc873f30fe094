// What tests ask of the system beside sockets; one file per platform implements it.
#pragma once

#include <cstddef>

// For threads that the library does not know yet. Null unsets the variable.
void SetEnvironment(const char* name, const char* value);
// Makes `locale` ("de_DE.UTF-8") the user's language for the calling thread, which the library must not know
// yet; null takes that back.
void SetUserLanguage(const char* locale);

// Sends the process a signal every half millisecond, or ends that; where there are signals.
void DisturbWithSignals(bool on);

// Whether the transport of this platform's library sends in chunks (BDAT) where the server takes them.
[[nodiscard]] bool TransportSendsChunks();

// A library that was loaded at run time.
[[nodiscard]] bool UnloadModule(void* module);

// What this process holds of the system; each count grows with what a library leaves behind.
struct Holdings
{
    std::size_t handles, slots, bytes;
};
[[nodiscard]] Holdings CountHoldings();
// By how much the bytes may differ with nothing left behind: what allocators keep for threads.
[[nodiscard]] std::size_t UncertainBytes();
