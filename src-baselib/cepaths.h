// Directories: CEPathString names one and reports failures, CEWorkingDir records the process's current
// directory and returns to it when it is destroyed. The current directory belongs to the whole process.
#pragma once

#include "src-baselib/cestring.h"

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
    // Goes back, unless this object never left.
    ~CEWorkingDir() override;

    // Changes the process's directory. A null or empty name does nothing and succeeds.
    bool ChangeDir(const char* name);
    // Sees whether somebody else has moved the process since RememberPlace; this object then goes back at its
    // end.
    void RememberPlace();
    void NoticeMove() noexcept;

private:
    CEStringArray m_stack;
    CEString m_place; // as the system has it
    bool m_changed = false;
};

// What follows the last "/" or "\" of a path, on every platform.
[[nodiscard]] std::string_view FileNamePart(std::string_view path);
