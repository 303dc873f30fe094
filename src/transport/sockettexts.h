// The descriptions of socket errors, as the transport's entries have them.
#pragma once

// "Connection refused." and its like for a Windows Sockets code; null for an unknown one.
[[nodiscard]] const char* SocketCodeText(int code);
// The same for an error number of the platform's socket calls.
[[nodiscard]] const char* SocketErrorText(int error);
