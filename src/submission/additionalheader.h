// The header lines that a host adds to its mails.
#pragma once

#include <string>
#include <string_view>

#include "src/submission/charset.h"

// Writes the fields of `given`, lines with CR LF or LF between them, to `fields`, each with CR LF. Fields in
// ASCII stay as they are, also their folding; in others the words that are not become encoded words. False,
// with what is wrong in `fields`, for a line that is no field, is too long, or belongs to the library.
[[nodiscard]] bool ReadAdditionalHeader(std::string_view given, Charset charset, std::string& fields);
