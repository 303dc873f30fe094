// The base64 encoding of one line.
#pragma once

#include <cstddef>

inline constexpr std::size_t kBase64LineBytes = 57;

// Encodes `count` bytes, at most kBase64LineBytes, with padding; returns the characters written to `out`,
// which must have room for them: four for each three bytes begun.
std::size_t EncodeBase64Line(const char* bytes, std::size_t count, char* out);
