// Takes received messages apart for assertions, strictly: only CR LF ends a line.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct CMessageText
{
    // Name and value in order, continuation lines joined; a line without a colon has an empty name.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The values of all fields of that name, in any case.
    [[nodiscard]] std::vector<std::string> Values(std::string_view name) const;
};

struct CMultipart
{
    std::string preamble;
    std::vector<std::pair<std::string, std::string>>
        parts;            // header text, body; the last line end of each is cut
    std::string epilogue; // all that follows the closing delimiter
    bool closed = false;  // the closing delimiter was there
};

[[nodiscard]] CMessageText SplitMessage(std::string_view message);
[[nodiscard]] CMultipart SplitMultipart(std::string_view body, std::string_view boundary);
// Lines of at most 76 characters, padding only at the very end; nothing for any other text.
[[nodiscard]] std::optional<std::string> DecodeBase64(std::string_view text);
