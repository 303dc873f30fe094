// The mail library's command-line host: sets properties, connects, sends, disconnects and says how it went.
// It knows the library by its public header alone and loads it at run time.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "include/velmail.h"
#include "tools/hostlibrary.h"
#include "tools/hostoptions.h"

namespace {

constexpr int kBufferTooSmall = 47;
constexpr const char* kTraceVariable = "VEL_MAILTRACE";

// A failure inside the library, of which a trace would tell more.
class CLibraryFailure : public CHostFailure
{
public:
    using CHostFailure::CHostFailure;
};

std::string EnvironmentText(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

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

// The functions of a loaded library, and what a host makes of their results.
class CMailLibrary
{
public:
    // Throws when the library cannot be loaded or is not a mail library.
    explicit CMailLibrary(const std::string& path);

    [[nodiscard]] const std::string& Path() const { return m_path; }
    [[nodiscard]] std::string VersionText() const;

    // Fails when the library cannot serve this thread at all.
    void CheckUsable() const { (void)LastError(); }
    // The code of the last working call, 0 for none.
    [[nodiscard]] int LastError() const;
    // "error 664: Dropped connection"
    [[nodiscard]] std::string ErrorSentence(int code) const;
    // The same for what failed, where code 0 is not success but a failure that came without one.
    [[nodiscard]] std::string FailureSentence(int code) const;

    void Set(const std::string& name, const std::string& value) const;
    [[nodiscard]] std::string Get(const std::string& name) const;
    // Connects, sends and disconnects. Returns the code of what went wrong beside a successful send, 0 for
    // none.
    [[nodiscard]] int Deliver() const;

private:
    template<typename Function>
    void Bind(HostLibrary library, const char* name, Function& function);
    [[nodiscard]] int EndService() const;
    [[nodiscard]] bool Read(const std::string& name, void* buffer, std::size_t size) const;
    [[nodiscard]] std::string GetText(const std::string& name) const;

    std::string m_path;
    decltype(&::VelMailSetProperty) m_setProperty = nullptr;
    decltype(&::VelMailGetProperty) m_getProperty = nullptr;
    decltype(&::VelMailGetLastError) m_getLastError = nullptr;
    decltype(&::VelMailGetErrorText) m_getErrorText = nullptr;
    decltype(&::VelMailGetVersion) m_getVersion = nullptr;
    decltype(&::VelMailGetVersionText) m_getVersionText = nullptr;
    decltype(&::VelMailConnect) m_connect = nullptr;
    decltype(&::VelMailSend) m_send = nullptr;
    decltype(&::VelMailDisconnect) m_disconnect = nullptr;
};

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
        throw CLibraryFailure("property '" + name + "' cannot be set: " + ErrorSentence(code));
    }
    const PropertyInfo* property = FindProperty(name);
    throw CHostFailure(property != nullptr && property->kind == PropertyKind::ReadOnly
                           ? "property '" + name + "' can only be read"
                           : "unknown property '" + name + "'; --help lists the properties");
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
        throw CLibraryFailure("property '" + name + "' cannot be read: " + FailureSentence(LastError()));
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
        throw CHostFailure("unknown property '" + name + "'; --help lists the properties");
    }
    if (code == kBufferTooSmall && Read(name, buffer.data(), 0)) {
        buffer.assign(std::strtoul(buffer.data(), nullptr, 10), '\0');
        if (Read(name, buffer.data(), buffer.size())) {
            return buffer.data();
        }
        code = LastError();
    }
    throw CLibraryFailure("property '" + name + "' cannot be read: " + FailureSentence(code));
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

int CMailLibrary::Deliver() const
{
    if (m_connect() == 0) {
        throw CLibraryFailure("connect failed: " + FailureSentence(LastError()));
    }
    const bool sent = m_send() != 0;
    const int early = sent ? 0 : LastError();
    const int late = EndService();
    if (!sent) {
        throw CLibraryFailure("send failed: " + FailureSentence(early != 0 ? early : late));
    }
    return late;
}

// Files handed to the library in memory. They stay where they are until the object ends, which must outlive
// the send.
class CMemoryFiles
{
public:
    // Returns the block as the library wants it: "address;length".
    std::string Add(const std::string& path);

private:
    std::vector<std::unique_ptr<std::string>> m_contents;
};

std::string ReadWholeFile(const std::string& path)
{
    std::string content;
    std::vector<char> chunk(65536);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    std::size_t length = 0;
    while (file != nullptr && (length = std::fread(chunk.data(), 1, chunk.size(), file.get())) > 0) {
        content.append(chunk.data(), length);
    }
    if (file == nullptr || std::ferror(file.get()) != 0) {
        throw CHostFailure("cannot read '" + path + "': " + std::generic_category().message(errno));
    }
    return content;
}

std::string CMemoryFiles::Add(const std::string& path)
{
    const std::string& content = *m_contents.emplace_back(std::make_unique<std::string>(ReadWholeFile(path)));
    return std::to_string(reinterpret_cast<std::uintptr_t>(content.data())) + ";" +
           std::to_string(content.size());
}

void AppendPart(std::string& list, const std::string& part)
{
    list += (list.empty() ? "" : ";") + part;
}

// Applies the settings of the command line in their order. Files given as "@FILE" become memory blocks; those
// of one property add up, and attachments without names of their own are named after their files.
class CSettingsWriter
{
public:
    CSettingsWriter(const CMailLibrary& library, CMemoryFiles& files) : m_library(library), m_files(files) {}

    void Write(const std::vector<Setting>& settings);

private:
    void WriteBlocks(const Setting& setting);

    const CMailLibrary& m_library;
    CMemoryFiles& m_files;
    std::string m_textBlocks;
    std::string m_attachmentBlocks;
    std::string m_attachmentNames;
};

void CSettingsWriter::Write(const std::vector<Setting>& settings)
{
    bool named = false;
    for (const Setting& setting : settings) {
        named = named || setting.name == "MailAttachmentFilename";
        const PropertyInfo* property = FindProperty(setting.name);
        if (property != nullptr && property->kind == PropertyKind::Blocks) {
            WriteBlocks(setting);
        } else if (property != nullptr && property->kind == PropertyKind::Secret &&
                   setting.value.starts_with("@")) { // not for everybody who lists the processes
            const std::string content = ReadWholeFile(setting.value.substr(1));
            m_library.Set(setting.name, content.substr(0, content.find_first_of("\r\n")));
        } else {
            m_library.Set(setting.name, setting.value);
        }
    }
    if (!named && !m_attachmentNames.empty()) {
        m_library.Set("MailAttachmentFilename", m_attachmentNames);
    }
}

void CSettingsWriter::WriteBlocks(const Setting& setting)
{
    const bool attachment = setting.name == "MailAttachmentMemoryAddress";
    std::string& blocks = attachment ? m_attachmentBlocks : m_textBlocks;
    if (setting.value.empty()) {
        blocks.clear();
        if (attachment) {
            m_attachmentNames.clear();
        }
    } else if (setting.value.starts_with("@")) {
        const std::string path = setting.value.substr(1);
        AppendPart(blocks, m_files.Add(path));
        if (attachment) {
            std::string name = path.substr(path.find_last_of("/\\") + 1); // as the library does
            std::ranges::replace(name, ';', '_'); // the list has no way to quote its separator
            AppendPart(m_attachmentNames, name);
        }
    } else {
        // An address means nothing outside the process it is from: the library would read at random.
        throw CHostFailure("property '" + setting.name + "' takes a file: " + setting.name + "=@FILE");
    }
    m_library.Set(setting.name, blocks);
}

void SendMail(const CMailLibrary& library)
{
    const int code = library.Deliver();
    std::printf("Sent (%s)\n", library.ErrorSentence(0).c_str());
    if (code != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "velmail: note: the mail was sent, but something failed beside it: %s\n",
                     library.ErrorSentence(code).c_str());
    }
}

void RunAction(const HostOptions& options)
{
    if (options.action == HostAction::Help) {
        std::fputs(HelpText().c_str(), stdout);
        return;
    }
    const CMailLibrary library(options.library);
    if (options.action == HostAction::Version) {
        std::printf("%s\nlibrary: %s\n", library.VersionText().c_str(), library.Path().c_str());
        return;
    }
    library.CheckUsable();
    CMemoryFiles files;
    CSettingsWriter(library, files).Write(options.settings);
    if (options.action == HostAction::Send) {
        SendMail(library);
    }
    for (const std::string& name : options.queries) {
        std::printf("%s\n", library.Get(name).c_str());
    }
}

void PrintFailure(const char* text)
{
    std::fflush(stdout);
    std::fprintf(stderr, "velmail: %s\n", text);
}

} // namespace

int main(int count, char** arguments)
{
    try {
        RunAction(ReadOptions({arguments + std::min(count, 1), arguments + count}));
        if (std::fflush(stdout) != 0) {
            throw CHostFailure("the output cannot be written: " + std::generic_category().message(errno));
        }
        return EXIT_SUCCESS;
    } catch (const CLibraryFailure& failure) {
        PrintFailure(failure.what());
        if (EnvironmentText(kTraceVariable).empty()) {
            PrintFailure(
                "hint: set VEL_MAILTRACE=mail.trc in the environment to trace what the library does");
        }
    } catch (const std::exception& failure) {
        PrintFailure(failure.what());
    }
    return EXIT_FAILURE;
}
