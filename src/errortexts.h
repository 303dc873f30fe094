// The texts of the error codes, English and German: null-terminated arrays of rows "N::text", ascending by N,
// no N twice. Texts are Windows-1252 and constant for the life of the library; any thread may read them.
#pragma once

extern const char* const kEnglishTexts[];
extern const char* const kGermanTexts[];

// The text of `code`, which stays the table's, or nullptr when the table has no such row.
[[nodiscard]] const char* FindErrorText(const char* const* table, int code);
