// The base64 encoding of lines.
#pragma once

#include <cstddef>

inline constexpr std::size_t kBase64LineBytes = 57;

// Encodes `count` bytes, at most kBase64LineBytes, with padding; returns the characters written to `out`,
// which must have room for them: four for each three bytes begun.
std::size_t EncodeBase64Line(const char* bytes, std::size_t count, char* out);
// Encodes `lines` full lines, each with its CR LF: 78 characters for each 57 bytes, and nothing behind them.
using Base64LinesEncoder = void (*)(const char* bytes, std::size_t lines, char* out);
// Those that this processor can run, the fastest first; null behind the last.
[[nodiscard]] Base64LinesEncoder FindBase64LinesEncoder(std::size_t rank = 0);
