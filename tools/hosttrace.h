// The library's trace during a send, from which the host reads why one failed: where the user names none, a
// private temporary file that goes with the object.
#pragma once

#include <string>

class CHostTrace
{
public:
    // `named` is what --trace says, empty for none. To be made before the library is loaded.
    explicit CHostTrace(const std::string& named);
    CHostTrace(const CHostTrace&) = delete;
    CHostTrace& operator=(const CHostTrace&) = delete;
    ~CHostTrace() { Remove(); }

    // The whole trace, once the thread that wrote it has ended; empty where there is none.
    [[nodiscard]] std::string Read() const;
    // Removes a temporary file. On Windows it stays while the library has it open.
    void Remove() noexcept;

private:
    std::string m_path;
    bool m_temporary = false;
};
