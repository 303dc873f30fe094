// What became of a send, told from the library's error code, its delivery report and the lines of its trace.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// The exit statuses, which scripts rely on.
enum class ExitStatus : std::uint8_t
{
    Sent,         // every recipient's server said yes
    NotBuilt,     // a setting or a file is wrong; so is whatever fails in the host itself
    Usage,        // a command line that makes no sense
    Refused,      // the server refused a recipient or the mail
    NoConnection, // or it was lost, or could not be secured
    NoLogin,
    Cancelled
};

// A failure that ends the program; the text is for the user and stands on one line.
class CHostFailure : public std::runtime_error
{
public:
    explicit CHostFailure(const std::string& text, ExitStatus status = ExitStatus::NotBuilt)
        : std::runtime_error(text), m_status(status)
    {
    }
    [[nodiscard]] ExitStatus Status() const { return m_status; }

private:
    ExitStatus m_status;
};

// The status for a call of the library that failed with the code.
[[nodiscard]] ExitStatus StatusOf(int code);

// A recipient's line of MailDeliveryReport. Code 0: the server has not answered.
struct ReportLine
{
    int code = 0;
    std::string mailbox;
    std::string words;

    [[nodiscard]] bool IsTaken() const { return code >= 200 && code < 300; }
    [[nodiscard]] bool IsRefused() const { return code >= 400; }
};
[[nodiscard]] std::vector<ReportLine> ReadReport(const std::string& report);

// The lines that say why the library raised the code: the words of the system, of the server or its own.
[[nodiscard]] std::vector<std::string> FindReasons(const std::string& trace, int code);

// The properties that a user may have to correct, "MailServer, MailServerPort"; empty where none is known or
// the reasons name one.
[[nodiscard]] std::string PropertiesBehind(int code, const std::vector<std::string>& reasons);
