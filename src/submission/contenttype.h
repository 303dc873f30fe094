// Content types: a host's are taken apart, so that nothing else gets into the header of a part, and a file
// that comes without one gets that of its name.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ContentType
{
    std::string type; // "text/plain"
    std::vector<std::pair<std::string, std::string>>
        parameters; // the values as they are written, with quotes

    [[nodiscard]] bool Has(std::string_view parameter) const;
    // Of the main type, given with its "/", in any case.
    [[nodiscard]] bool Is(std::string_view mainType) const;
    // Multipart or message: its content may not be encoded.
    [[nodiscard]] bool IsComposite() const { return Is("multipart/") || Is("message/"); }
    // The header field without its CR LF, folded.
    [[nodiscard]] std::string Field() const;
};

// False, and `parsed` is of no use, when the text is no content type.
[[nodiscard]] bool ParseContentType(std::string_view text, ContentType& parsed);

// The type of the files with the name's extension, "application/octet-stream" for an unknown one.
[[nodiscard]] const char* ContentTypeOfFile(std::string_view name);
