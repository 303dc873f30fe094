// A temporary file in a private folder of its own, for another program to read under a chosen name. It goes
// with its object. What cannot be removed then, since somebody still reads it, is tried again later.
#pragma once

#include "src-baselib/cestring.h"
#include "src-baselib/ioelement.h"

// The longest path that every program of the platforms understands.
inline constexpr std::size_t kLongestPath = 259;

class CPrivateFile
{
public:
    CPrivateFile() = default;
    CPrivateFile(const CPrivateFile&) = delete;
    CPrivateFile& operator=(const CPrivateFile&) = delete;
    ~CPrivateFile();

    // Makes the file and copies `content` into it to its end. `name` is made safe, and short enough for a
    // path of 259 characters. False on failure, which is traced and not raised.
    bool Create(const CEString& name, IOElement& content);
    // The absolute path, empty before Create.
    [[nodiscard]] const CEString& GetPath() const { return m_path; }

    // Tries again to remove what could not be removed.
    static void RemoveLeftovers();
    // Removes the files of all threads: those that a process ends with never give back theirs.
    static void RemoveAll() noexcept;

private:
    bool Remove();

    CEString m_folder; // empty: there is none
    CEString m_path;
};

// A file name of at most `longest` characters that names a plain file in any folder: no path parts, no
// reserved characters, no device names. A longer one is cut in front of its extension. `longest` is at
// least 16.
[[nodiscard]] CEString SafeFileName(std::string_view name, std::size_t longest);
