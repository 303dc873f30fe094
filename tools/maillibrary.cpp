#include "tools/maillibrary.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "tools/hostoptions.h"

namespace {

constexpr int kBufferTooSmall = 47;

// Windows-1252 is Latin-1 but for the codes 80 to 9F, five of which it does not use.
std::string ToUtf8(std::string_view text)
{
    static constexpr std::array<std::uint16_t, 32> kHighCodes = {
        0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
        0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
        0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        const unsigned code = byte >= 0x80 && byte < 0xA0 ? kHighCodes[byte - 0x80U] : byte;
        if (code < 0x80) {
            result += character;
        } else if (code < 0x800) {
            result += static_cast<char>(0xC0U | code >> 6U);
            result += static_cast<char>(0x80U | (code & 0x3FU));
        } else {
            result += static_cast<char>(0xE0U | code >> 12U);
            result += static_cast<char>(0x80U | (code >> 6U & 0x3FU));
            result += static_cast<char>(0x80U | (code & 0x3FU));
        }
    }
    return result;
}

} // namespace

std::string EnvironmentText(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

CMailLibrary::CMailLibrary(const std::string& path)
    : m_path(path.empty() ? DefaultLibraryPath() : PathForLoader(path))
{
    std::string reason;
    HostLibrary library = LoadHostLibrary(m_path, reason);
    if (library == nullptr) {
        throw CHostFailure("the mail library cannot be loaded: " + reason +
                           " (--library PATH names another)");
    }
    Bind(library, "VelMailSetProperty", m_setProperty);
    Bind(library, "VelMailGetProperty", m_getProperty);
    Bind(library, "VelMailGetLastError", m_getLastError);
    Bind(library, "VelMailGetErrorText", m_getErrorText);
    Bind(library, "VelMailGetVersion", m_getVersion);
    Bind(library, "VelMailGetVersionText", m_getVersionText);
    Bind(library, "VelMailConnect", m_connect);
    Bind(library, "VelMailSend", m_send);
    Bind(library, "VelMailDisconnect", m_disconnect);
}

template<typename Function>
void CMailLibrary::Bind(HostLibrary library, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(FindHostFunction(library, name));
    if (function == nullptr) {
        throw CHostFailure("'" + m_path + "' is not the mail library: it has no function " + name);
    }
}

std::string CMailLibrary::VersionText() const
{
    std::array<char, 64> text = {};
    unsigned int number = 0;
    if (m_getVersionText(text.data(), text.size()) == 0 || m_getVersion(&number) == 0) {
        throw CHostFailure("the library does not tell its version");
    }
    std::array<char, 16> hexadecimal = {};
    std::snprintf(hexadecimal.data(), hexadecimal.size(), "0x%08X", number);
    return std::string(text.data()) + " (" + hexadecimal.data() + ")";
}

int CMailLibrary::LastError() const
{
    int code = 0;
    if (m_getLastError(&code) == 0) {
        const std::string trace = EnvironmentText(kTraceVariable);
        throw CHostFailure(trace.empty() ? "the library cannot set up its state"
                                         : "the library does not work without its trace file: '" + trace +
                                               "' (" + kTraceVariable + ") cannot be written");
    }
    return code;
}

std::string CMailLibrary::ErrorSentence(int code) const
{
    std::array<char, 256> text = {};
    const bool known = m_getErrorText(code, text.data(), static_cast<int>(text.size())) != 0;
    return "error " + std::to_string(code) + ": " +
           (known ? ToUtf8(text.data()) : "(no text for this error)");
}

std::string CMailLibrary::FailureSentence(int code) const
{
    return code != 0 ? ErrorSentence(code) : "the library gives no error number";
}

void CMailLibrary::Set(const std::string& name, const std::string& value) const
{
    if (m_setProperty(name.c_str(), value.c_str()) != 0) {
        return;
    }
    const int code = LastError();
    if (code != 0) {
        throw CLibraryFailure("property '" + name + "' cannot be set: " + ErrorSentence(code), code);
    }
    const PropertyInfo* property = FindProperty(name);
    throw CHostFailure(property != nullptr && property->kind == PropertyKind::ReadOnly
                           ? "property '" + name + "' can only be read"
                           : "unknown property '" + name + "'; --help lists the properties",
                       ExitStatus::Usage);
}

// A code that an earlier read left behind (MailAvailable does where there is no MAPI) keeps the next call
// from doing its work: asked again, the library answers.
bool CMailLibrary::Read(const std::string& name, void* buffer, std::size_t size) const
{
    const auto length = static_cast<unsigned int>(size);
    return m_getProperty(name.c_str(), buffer, length) != 0 ||
           (LastError() != 0 && m_getProperty(name.c_str(), buffer, length) != 0);
}

std::string CMailLibrary::Get(const std::string& name) const
{
    const PropertyInfo* property = FindProperty(name);
    if (property == nullptr || property->kind != PropertyKind::Flag) {
        return GetText(name);
    }
    std::int32_t flag = 0;
    if (!Read(name, &flag, sizeof flag)) {
        const int code = LastError();
        throw CLibraryFailure("property '" + name + "' cannot be read: " + FailureSentence(code), code);
    }
    return std::to_string(flag);
}

// Most values fit at once; only for a longer one is the library asked for the size. (To ask first would not
// do: MailAvailable has no size to ask for.)
std::string CMailLibrary::GetText(const std::string& name) const
{
    std::vector<char> buffer(4096);
    if (Read(name, buffer.data(), buffer.size())) {
        return buffer.data();
    }
    int code = LastError();
    if (code == 0) {
        throw CHostFailure("unknown property '" + name + "'; --help lists the properties", ExitStatus::Usage);
    }
    if (code == kBufferTooSmall && Read(name, buffer.data(), 0)) {
        buffer.assign(std::strtoul(buffer.data(), nullptr, 10), '\0');
        if (Read(name, buffer.data(), buffer.size())) {
            return buffer.data();
        }
        code = LastError();
    }
    throw CLibraryFailure("property '" + name + "' cannot be read: " + FailureSentence(code), code);
}

// A code that surfaces only now keeps the call from doing its work: the service is ended by a second call.
int CMailLibrary::EndService() const
{
    if (m_disconnect() != 0) {
        return 0;
    }
    const int code = LastError();
    if (code != 0) {
        (void)m_disconnect();
    }
    return code;
}

// A library that does not know it, for it is older, sends all the same.
bool CMailLibrary::OfferProgress(SendProgress& progress) const
{
    const std::string place = std::to_string(reinterpret_cast<std::uintptr_t>(progress.block)) + ";" +
                              std::to_string(sizeof progress.block);
    return m_setProperty("MailProgressMemoryAddress", place.c_str()) != 0;
}

// Asked while no code is pending, which the question would take from an older library.
bool CMailLibrary::HasReport() const
{
    char empty = '\0';
    return m_getProperty("MailDeliveryReport", &empty, sizeof empty) != 0;
}

Delivery CMailLibrary::Deliver(SendProgress& progress) const
{
    Delivery delivery;
    progress.known = OfferProgress(progress);
    const bool reports = HasReport();
    if (m_connect() == 0) {
        delivery.code = LastError();
        delivery.failure = "connect failed: " + FailureSentence(delivery.code);
        return delivery;
    }
    progress.phase = SendProgress::Phase::Sending;
    const bool sent = m_send() != 0;
    progress.phase = SendProgress::Phase::After;
    const int early = sent ? 0 : LastError();
    if (reports) {
        delivery.report = GetText("MailDeliveryReport");
    }
    const int late = EndService();
    delivery.code = early != 0 ? early : late;
    if (!sent) {
        delivery.failure = "send failed: " + FailureSentence(delivery.code);
        return delivery;
    }
    delivery.sentence = ErrorSentence(0);
    if (delivery.code != 0) {
        delivery.beside = ErrorSentence(delivery.code);
    }
    return delivery;
}
