#include "host.h"

#include <array>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include "system.h"
#include "velmail.h"

void Set(const Settings& settings)
{
    for (const auto& [name, value] : settings) {
        ASSERT_EQ(VelMailSetProperty(name.c_str(), value.c_str()), 1) << name;
    }
}

std::string Get(const char* name)
{
    std::array<char, 4096> buffer = {};
    EXPECT_EQ(VelMailGetProperty(name, buffer.data(), buffer.size()), 1) << name;
    return buffer.data();
}

int LastError()
{
    int code = 0;
    EXPECT_EQ(VelMailGetLastError(&code), 1);
    return code;
}

int SendAndDisconnect()
{
    const bool sent = VelMailSend() == 1;
    int code = LastError();
    if (VelMailDisconnect() == 0) { // a delivery's code surfaces here
        code = code != 0 ? code : LastError();
        VelMailDisconnect();
    }
    EXPECT_EQ(sent, code == 0);
    return code;
}

int Deliver(const Settings& mail)
{
    Set(mail);
    EXPECT_EQ(VelMailConnect(), 1);
    return SendAndDisconnect();
}

std::string Block(std::string_view content)
{
    return std::to_string(reinterpret_cast<std::uintptr_t>(content.data())) + ";" +
           std::to_string(content.size());
}

Settings SmallMail(const std::string& port, Settings more)
{
    more.merge(Settings{{"MailServer", "127.0.0.1"},
                        {"MailServerPort", port},
                        {"MailSenderMailBox", "ada@host.example"},
                        {"MailRecipientsMailBox", "bob@host.example"},
                        {"MailSubject", "Hello"},
                        {"MailTextMemoryAddress", Block("Hello Bob\n")}});
    return more;
}

std::string RunTraced(const std::function<void()>& body, const std::string& level)
{
    const CTempFolder folder;
    SetEnvironment("VEL_MAILTRACE", (folder.Path("host.log") + ";" + level).c_str());
    std::thread(body).join();
    SetEnvironment("VEL_MAILTRACE", nullptr);
    std::string trace;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
        trace += ReadFile(entry.path().string());
    }
    return trace;
}

std::size_t CountOf(std::string_view whole, std::string_view text)
{
    std::size_t count = 0;
    for (std::size_t at = whole.find(text); at != std::string_view::npos; at = whole.find(text, at + 1)) {
        ++count;
    }
    return count;
}

namespace {
// What stands between the first `start` and the next `end`.
std::string Between(const std::string& text, const std::string& start, const std::string& end)
{
    const std::size_t at = text.find(start);
    const std::size_t from = at + start.size();
    return at == std::string::npos ? "" : text.substr(from, text.find(end, from) - from);
}
} // namespace

std::string BoundaryOf(const std::string& message)
{
    return Between(message, "Content-Type: multipart/mixed;boundary=\"", "\"");
}

std::string FieldOf(const std::string& message, const std::string& name)
{
    return Between(message.substr(0, message.find("\r\n\r\n") + 2), "\r\n" + name + ": ", "\r\n");
}
