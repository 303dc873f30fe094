// Directories: CEPathString names one and reports failures, CEWorkingDir records the process's current
// directory and returns to it when it is destroyed. The current directory belongs to the whole process.
#pragma once

#include "src-baselib/cestring.h"
#include "src-baselib/platform.h"

class CEPathString : public CEString
{
public:
    // Raises error 118 and writes `format` with `name` and the system's text for the last failure.
    virtual void ReportDirError(const char* format, const char* name);

    // Reads the current directory into this string; on failure it is reported and the string left empty.
    bool GetCurrentDir();

    [[nodiscard]] int GetLastFailure() const { return m_lastFailure; }

protected:
    void SetLastFailure(int failure) { m_lastFailure = failure; }

private:
    int m_lastFailure = 0; // the system's error number; 0 after a success
};

class CEWorkingDir : public CEPathString
{
public:
    CEWorkingDir();
    CEWorkingDir(const CEWorkingDir&) = delete;
    CEWorkingDir& operator=(const CEWorkingDir&) = delete;
    // Goes back, unless this object never left; that needs no memory.
    ~CEWorkingDir() override;

    // Changes the process's directory. A null or empty name does nothing and succeeds. Where there is no way
    // back it fails and changes nothing.
    bool ChangeDir(const char* name);
    // Sees whether somebody else has moved the process since RememberPlace; this object then goes back at its
    // end. False when the place cannot be remembered.
    bool RememberPlace();
    void NoticeMove() noexcept { m_changed = m_changed || m_place.IsLeft(); }

private:
    CEString m_homeName; // for the trace; empty when it cannot be told
    platform::CPlace m_place;
    bool m_changed = false;
};

// What follows the last "/" or "\" of a path, on every platform.
[[nodiscard]] std::string_view FileNamePart(std::string_view path);
