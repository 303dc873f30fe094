// The delivery through a mail client, with a stand-in for its library and the registry.
#include "src/mapimailservice.h"

#include <cfenv>
#include <clocale>
#include <filesystem>
#include <map>
#include <set>

#include "tests/mapi/recorder.h"
#include "tests/support/files.h"
#include "tests/support/system.h"
#include "tests/unit/helpers.h"

namespace {

namespace fs = std::filesystem;
constexpr auto kAll = std::regex::ECMAScript | std::regex::multiline;

std::string HostState()
{
    return fs::current_path().string() + "|" + std::setlocale(LC_NUMERIC, nullptr) + "|" +
           std::to_string(std::fegetround());
}

// The system that the mail client lives in.
struct System
{
    std::set<std::string> missing; // functions of the client, or "MAPI32.DLL"
    std::map<std::string, std::string> registry;
    COsVersionInfo version;
};
System* g_system;

class CStandIn : public CMapiPlatform
{
public:
    std::uintptr_t OpenLibrary(const char* name) override
    {
        SpoilHost();
        return g_system->missing.contains(name) ? 31 : 32; // what the system's loader calls a failure
    }
    Function FindFunction(std::uintptr_t library, const char* name) override
    {
        EXPECT_EQ(library, 32U);
        static const std::map<std::string, Function> functions = {
            {"MAPILogon", reinterpret_cast<Function>(&MAPILogon)},
            {"MAPISendMail", reinterpret_cast<Function>(&MAPISendMail)},
            {"MAPIResolveName", reinterpret_cast<Function>(&MAPIResolveName)},
            {"MAPIFreeBuffer", reinterpret_cast<Function>(&MAPIFreeBuffer)}};
        const auto found = functions.find(name);
        const auto never = [] { ADD_FAILURE() << "never called"; };
        return g_system->missing.contains(name) ? nullptr
               : found == functions.end()       ? static_cast<Function>(never)
                                                : found->second;
    }
    bool HasRegistryKey(const char* key) override { return g_system->registry.contains(key); }
    std::optional<CEString> ReadRegistry(const char* key, const char* name) override
    {
        const auto found =
            g_system->registry.find(name == nullptr ? std::string(key) + "|" : std::string(key) + "|" + name);
        return found == g_system->registry.end() ? std::optional<CEString>()
                                                 : CEString(std::string_view(found->second));
    }
    COsVersionInfo GetOsVersion() override { return g_system->version; }
};

class Mapi : public testing::Test
{
protected:
    Mapi()
    {
        g_system = &m_system;
        SetEnvironment("VELMAIL_RECORDER_FILE", m_folder.Path("record").c_str());
        Answer("0", "0");
        TakeError();
    }
    ~Mapi() override
    {
        EXPECT_EQ(HostState(), m_hostState);
        std::setlocale(LC_NUMERIC, "C");
        std::fesetround(FE_TONEAREST);
    }

    static std::unique_ptr<CMapiMailService> MakeService(bool dialog = false, bool resolve = false)
    {
        return std::make_unique<CMapiMailService>(dialog, resolve, std::make_unique<CStandIn>());
    }

    // The client's results for the logons and the sends.
    static void Answer(const std::string& logon, const std::string& send)
    {
        SetEnvironment("VELMAIL_RECORDER_LOGON", logon.c_str());
        SetEnvironment("VELMAIL_RECORDER_SEND", send.c_str());
    }
    // What the client has recorded since the last time, "|" after each line. Its copies of files go with it.
    std::string Record() const
    {
        const std::string record = ReadFile(m_folder.Path("record"));
        for (const auto& entry : fs::directory_iterator(m_folder.Path())) {
            fs::remove(entry);
        }
        return std::regex_replace(record, std::regex("\n *"), "|");
    }

    // The files that the record names.
    std::vector<fs::path> TakeFiles() const
    {
        const std::string record = Record();
        const std::regex line("\\|file: ([^|]*)");
        std::vector<fs::path> files;
        for (std::sregex_iterator at(record.begin(), record.end(), line), end; at != end; ++at) {
            files.emplace_back((*at)[1].str());
        }
        return files;
    }

    // The lines that `body` traces, "|" after each; "P" stands for an address.
    template<class Body>
    static std::string Traced(Body body)
    {
        CError& trace = *ThreadErrorVar().Get();
        static int number = 0; // a closed file's name would not be opened again
        const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
        EXPECT_TRUE(trace.SwitchFile((test + std::to_string(++number)).c_str()));
        const std::string name = CurrentTraceFile();
        body();
        trace.SwitchFile("");
        std::string lines = ReadFile(name);
        lines.erase(0, lines.find('\n') + 1); // the head
        fs::remove(name);
        const std::pair<const char*, const char*> marks[] = {
            {R"(^ *\d+ \d\d\.\d\d\.\d{4} \d\d:\d\d:\d\d,\d{3} )", ""},
            {"^Open file .*\r\n|^File: Current.*\r\n|^Trace closed.\r\n", ""},
            {R"( in src/mapimailservice\(\d+\))", " @"},
            {R"(\(nil\)|\b0x[0-9a-f]+|\b[0-9A-Fa-f]{16}\b)", "P"},
            {"\r\n", "|"}};
        for (const auto& [pattern, mark] : marks) {
            lines = std::regex_replace(lines, std::regex(pattern, kAll), mark);
        }
        return lines;
    }

    System m_system;
    CTempFolder m_folder;
    std::string m_hostState = HostState();
};

// The record of a mail by the client, up to its files.
std::string Sent(const std::string& recipients, const char* result = "0", const char* flags = "0",
                 const char* subject = "Hello")
{
    return std::string("MAPISendMail, session 4711, flags ") + flags + ": " + result +
           "|subject: " + subject + "|" + recipients;
}

constexpr const char* kLogon = "MAPILogon, flags 0: 0|";
constexpr const char* kTo = "to: a@b.c <a@b.c>|";
constexpr const char* kText = "text: Hi\r||";

// A mail that can be sent.
struct Mail : CMail
{
    explicit Mail(std::string_view text = "Hi\n")
    {
        Text().SetMemory(Memory(text));
        SetSubject("Hello");
        Add(To(), "a@b.c", "");
    }
    static void Add(Addresses& list, const char* mailbox, const char* name)
    {
        list.Add(std::make_unique<CMailAddress>(mailbox, name));
    }
    void Attach(const std::string& file, const char* name = "", std::string_view memory = "")
    {
        auto& attachment = *Attachments().Add(std::make_unique<CMailAttachment>());
        attachment.SetFileName(file.c_str());
        attachment.SetName(name);
        attachment.SetMemory(memory.empty() ? CEString() : Memory(memory));
    }
    static CEString Memory(std::string_view text)
    {
        const std::string list =
            std::to_string(reinterpret_cast<std::uintptr_t>(text.data())) + ";" + std::to_string(text.size());
        return list.c_str();
    }
};

TEST_F(Mapi, LogsOnInUpToFourAttempts)
{
    const std::string bound = "Mapi init P uninit P vorhanden?|Logon:  Handle: 0 |";
    const std::string first = bound + "1.Versuch: MapiLogon failed 3|TryMailLogonDialog ist 1|";
    const std::string second = first + "2.Versuch mit Session ohne Dialog: MapiLogon ";
    const std::string third = second + "failed 3|3.Versuch ohne Session mit Dialog: MapiLogon ";
    const std::string fourth = third + "failed 3|4.Versuch mit Session mit Dialog: MapiLogon ";
    const struct
    {
        const char *results, *flags;
        std::string trace;
        int error; // 0: logged on
        bool dialog;
    } cases[] = {
        {"0", "0", bound + "1.Versuch: MapiLogon erfolgreich mit 0|", 0, false},
        {"3", "0", bound + "1.Versuch: MapiLogon failed 3|TryMailLogonDialog ist 0|", 153, false},
        {"4294967146", "0", bound + "1.Versuch: MapiLogon failed -150|TryMailLogonDialog ist 1|", 152, true},
        {"3,0", "02", second + "erfolgreich mit 0|", 0, true},
        {"3,3,0", "021", third + "erfolgreich mit 0|", 0, true},
        {"3,3,1", "021", third + "failed 1|", 151, true},
        {"3,3,3,0", "0213", fourth + "erfolgreich mit 0|", 0, true},
        {"3,3,3,26", "0213", fourth + "failed 26|", 176, true}};
    for (const auto& row : cases) {
        Answer(row.results, "0");
        std::unique_ptr<CMapiMailService> service;
        const std::string trace = Traced([&] { service = MakeService(row.dialog); });
        const bool good = row.error == 0;
        EXPECT_EQ(service->GetState(), good ? MapiState::LoggedOn : MapiState::LogonFailed);
        EXPECT_EQ(TakeError(), row.error);
        const std::regex logon("MAPILogon, flags (.): \\d+\\|");
        EXPECT_EQ(std::regex_replace(Record(), logon, "$1"), row.flags);
        const std::string failure =
            "Error: Setting error " + std::to_string(row.error) + " @|Mail Logon fails|";
        EXPECT_EQ(trace, row.trace + (good ? "" : failure));
        Mail mail;
        EXPECT_EQ(service->Send(mail), good);
        EXPECT_EQ(TakeError(), good ? 0 : 701);
        EXPECT_EQ(Record(), good ? Sent(kTo) + kText : "");
    }
}

TEST_F(Mapi, TellsWhatTheLibraryLacks)
{
    const std::string bound = "Mapi init P uninit P vorhanden?|";
    const std::tuple<const char*, int, std::string> cases[] = {
        {"MAPI32.DLL", 60, "Error: Setting error 60 @|Mapi dll not found|"},
        {"MAPILogon", 61, bound + "Error: Setting error 61 @|Mapi function logon not found P|"},
        {"MAPILogoff", 61, bound + "Mapi function logoff not found P|Error: Setting error 61 @|"},
        {"MAPISendMail", 61, bound + "Mapi function sendmail not found P|Error: Setting error 61 @|"},
        {"MAPIResolveName", 61, bound + "Mapi function resolvename not found P|Error: Setting error 61 @|"},
        {"what it need not have", 0, ""}};
    for (const auto& [name, error, wanted] : cases) {
        m_system.missing = {"MAPIInitialize", "MAPIUninitialize", "MAPILogonEx", "MAPIFreeBuffer", name};
        std::unique_ptr<CMapiMailService> service;
        const std::string trace = Traced([&] { service = MakeService(false, true); });
        EXPECT_EQ(trace, error == 0 ? trace : wanted);
        EXPECT_EQ(TakeError(), error) << name;
        EXPECT_EQ(service->GetState(), error == 0 ? MapiState::LoggedOn : MapiState::NotAvailable) << name;
        Mail mail;
        Mail::Add(mail.To(), "", "Ada");
        EXPECT_EQ(service->Send(mail), error == 0) << name;
        EXPECT_EQ(TakeError(), error == 0 ? 0 : 701) << name;
    }
}

TEST_F(Mapi, AsksTheRegistryForAClientOnWindows95Alone)
{
    const std::string mail = "SOFTWARE\\Clients\\Mail";
    const std::string express = "SOFTWARE\\Microsoft\\Outlook Express";
    const std::string enabled = "SOFTWARE\\Netscape\\Netscape Navigator\\MAPI|Enabled";
    const char* const none = "Win95 Kein g\xFCltiger Mailclient erkannt -> Annahme: Internet Mail|";
    const struct
    {
        const char *client, *path;
        std::string value, version; // of the client's own key
        bool usable;
        const char* trace; // behind what was found
    } cases[] = {
        {"Outlook Express", "x", {"\0\1\0\0", 4}, "", true, "OE4+ SimpleMAPI is activated|"},
        {"Outlook Express", "x", {"\0\0\0\0", 4}, "6,0", false, "OE4 or OE4 SimpleMAPI is not activated|"},
        {"Outlook Express", "x", "", "5,50,4133", true, "OE4+ SimpleMAPI is activated|"},
        {"Outlook Express", "x", "", "4,72", false, "OE4 or OE4 SimpleMAPI is not activated|"},
        {"Microsoft Outlook", "x", "", "10", true, "Outlook SimpleMAPI is activated|"},
        {"Microsoft Outlook", "x", "", "", false, "Outlook or Outlook SimpleMAPI is not activated|"},
        {"Netscape Messenger", "x", "1", "", true, "Netscape4 SimpleMAPI is activated|"},
        {"Netscape Messenger", "x", "", "", false, "Netscape4 or Netscape4 SimpleMAPI is not activated|"},
        {"Pegasus Mail", "x", "", "", false, "SimpleMAPI should be active|"},
        {"Pegasus Mail", "", "", "", true, "Pegasus Mail SimpleMAPI should be active|"},
        {"Microsoft Outlook", "", "", "", true, "Microsoft Outlook SimpleMAPI should be active|"},
        {"Other", "", "", "", false, ""}};
    for (const auto& row : cases) {
        for (const bool old : {true, false}) {
            m_system.version = {!old, 4, 0};
            m_system.registry = {{mail + "|", row.client},
                                 {mail + "\\" + row.client, ""},
                                 {mail + "\\" + row.client + "|DLLPath", row.path},
                                 {express + "\\Version Info|Current", row.version}};
            if (!row.value.empty()) {
                m_system.registry[*row.client == 'N' ? enabled : express + "|SMapi"] = row.value;
            }
            const std::string wanted =
                std::string("Found StandardEmailHandler in Registry: ") + row.client + "|" +
                (*row.path == '\0' ? "" : "Found StandardEmailHandlerDLLPath in Registry: x|") + row.trace +
                (row.usable ? "Mapi init" : none);
            std::unique_ptr<CMapiMailService> service;
            const std::string trace = Traced([&] { service = MakeService(); });
            EXPECT_EQ(trace.substr(0, old ? wanted.size() : 9), old ? wanted : "Mapi init");
            EXPECT_EQ(service->GetState(),
                      row.usable || !old ? MapiState::LoggedOn : MapiState::NotAvailable);
            EXPECT_EQ(TakeError(), 0);
        }
    }
    for (const char* const name : {"", "Gone"}) { // no name, and a name without its key
        m_system.version = {false, 4, 0};
        m_system.registry = {{mail + "|", name}};
        EXPECT_EQ(Traced([&] { EXPECT_EQ(MakeService()->GetState(), MapiState::NotAvailable); }), none);
    }
    m_system.version = {false, 4, 10}; // its successor
    EXPECT_EQ(MakeService()->GetState(), MapiState::LoggedOn);
}

TEST_F(Mapi, HandsOverTheWholeMailAndKeepsTheProcessAsItWas)
{
    const char* const numbers = std::setlocale(LC_NUMERIC, "C.UTF-8"); // what else there is beside "C"
    EXPECT_NE(numbers == nullptr ? std::setlocale(LC_NUMERIC, "German") : numbers, nullptr);
    std::fesetround(FE_DOWNWARD);
    m_hostState = HostState();
    std::ofstream("relative.txt") << "content";
    const std::string root = fs::current_path().root_path().string();
    const std::string longText = std::string(1500, 'x') + "\nb";
    for (const bool resolve : {true, false}) {
        const auto service = MakeService(false, resolve);
        Mail mail(longText);
        mail.Sender().SetFullName("Me");
        Mail::Add(mail.To(), "bob@x.y", "Ambiguous");
        Mail::Add(mail.Bcc(), "carl@x.y", "Unknown");
        Mail::Add(mail.Cc(), "", "Ada");
        Mail::Add(mail.Cc(), "eve@x.y", "Bare");
        Mail::Add(mail.Cc(), "", "Nothing");
        mail.Attach("relative.txt");
        mail.Attach(root + std::string(300, 'p'));
        const std::string trace = Traced([&] { EXPECT_TRUE(service->Send(mail)); });
        EXPECT_EQ(ReadFile(m_folder.Path("relative.txt")), "content");
        const std::string asked = "MAPIResolveName, Me: 0|MAPIResolveName, Ambiguous: 21|"
                                  "MAPIResolveName, Ada: 0|MAPIFreeBuffer: a variable|"
                                  "MAPIResolveName, Bare: 0|MAPIFreeBuffer: a variable|"
                                  "MAPIResolveName, Nothing: 0|MAPIResolveName, Unknown: 14|";
        const std::string book = "of the book <SMTP:book@host.example>|";
        const std::string found = (resolve ? "from: Me " + book : "from: Me <->|") + kTo +
                                  "to: Ambiguous <bob@x.y>|" +
                                  (resolve ? "cc: Ada " + book + "cc: Bare of the book <eve@x.y>|"
                                           : "cc: Ada <->|cc: Bare <eve@x.y>|") +
                                  "cc: Nothing <->|bcc: Unknown <carl@x.y>|";
        EXPECT_EQ(Record(), kLogon + (resolve ? asked : "") + Sent(found) +
                                "file: " + (fs::current_path() / "relative.txt").string() + "|file: " + root +
                                std::string(259 - root.size(), 'p') +
                                "|not there|text: " + std::string(1500, 'x') + "\r|b|");
        const std::string traced =
            resolve ? "ResolveName: Me of the book SMTP:book@host.example|Not ResolveName: a@b.c|"
                      "Not ResolveName: Ambiguous|ResolveName: Ada of the book SMTP:book@host.example|"
                      "ResolveName: Bare of the book (null)|"
                    : "Fullname of sender could not be resolved (property 'MailSenderFullName'): Me|"
                      "Not ResolveName: a@b.c|Not ResolveName: Ambiguous|Not ResolveName: Ada|"
                      "Not ResolveName: Bare|";
        EXPECT_EQ(trace, "SendMail: no Dialog|Mail: Attached Files 2|" + traced +
                             "Not ResolveName: Nothing|Not ResolveName: Unknown|SendMail Flags 0|"
                             "SendMail returns 0|");
    }
    EXPECT_EQ(TakeError(), 0);
}

TEST_F(Mapi, TurnsTheResultOfASendIntoAnError)
{
    const auto service = MakeService();
    for (const MapiResult result : {0U, 1U, 2U, 10U, 11U, 12U, 13U, 26U, 999U, 0xFFFFFF6AU}) {
        Answer("0", std::to_string(result));
        int wanted = result > 999 ? 152 : 150 + static_cast<int>(result);
        std::string line = "Error: Setting error " + std::to_string(wanted) + " @|";
        if (result <= 1) {
            wanted = 0;
            line = result == 0 ? "" : "SendMail durch Benutzer abgebrochen|";
        } else if (result == 11 || result == 12) {
            wanted = 659;
            line = std::string("Error: Setting error 659 (At least one attachment file ") +
                   (result == 11 ? "not found." : "could not be opened.") + ") @|";
        }
        Mail mail;
        const std::string trace = Traced([&] { EXPECT_EQ(service->Send(mail), wanted == 0); });
        EXPECT_EQ(trace, "SendMail: no Dialog|Not ResolveName: a@b.c|SendMail Flags 0|SendMail returns " +
                             std::to_string(static_cast<std::int32_t>(result)) + "|" + line);
        EXPECT_EQ(TakeError(), wanted);
    }
}

TEST_F(Mapi, LeavesWhatIsMissingToTheClientsDialogAlone)
{
    const std::pair<std::string, int> cases[] = {
        {"subject", 651}, {"recipients", 650}, {"html", 0}, {"text", 695}, {"attachment", 163}};
    for (const auto& row : cases) {
        const std::string& what = row.first;
        const int error = row.second;
        for (const bool dialog : {false, true}) {
            const auto service = MakeService();
            CMailConnectionInfo info;
            info.showDialog = dialog;
            EXPECT_TRUE(service->Connect(info));
            Record();
            Mail whole;
            CMail bare;
            CMail& mail = what == "recipients" ? bare : whole;
            mail.SetSubject(what == "subject" ? "" : "Hello");
            mail.Text().SetMemory(what == "text" ? CEString() : whole.Text().GetMemory());
            if (what == "text") {
                std::ofstream("shrinks.txt") << "longer";
                mail.Text().SetFileName("shrinks.txt");
                EXPECT_TRUE(mail.Text().CheckFile());
                std::ofstream("shrinks.txt") << "short";
            } else if (what == "attachment") {
                mail.Attachments().Add(std::make_unique<CMailAttachment>())->SetMemory("7");
            }
            mail.Text().SetContentType(what == "html" ? "Text/HTML; charset=x" : "text/htmlx");
            const bool good = error == 0 || (dialog && (error == 650 || error == 651));
            const std::string trace = Traced([&] { EXPECT_EQ(service->Send(mail), good) << what; });
            EXPECT_EQ(TakeError(), good ? 0 : error) << what;
            const std::string sent = Sent(what == "recipients" ? "" : kTo, "0", dialog ? "8" : "0",
                                          what == "subject" ? "-" : "Hello");
            EXPECT_EQ(Record(), good ? sent + kText : "") << what;
            EXPECT_EQ(trace.find(dialog ? "SendMail: show Dialog|" : "SendMail: no Dialog|"), 0U);
            EXPECT_EQ(trace.find("Warning: ") != std::string::npos, what == "html") << trace;
            EXPECT_EQ(trace.find("SendMail Flags 8|") != std::string::npos, dialog && good);
        }
    }
}

TEST_F(Mapi, HandsOverMemoryInPrivateFilesUntilTheClientIsDone)
{
    const std::string bytes("a\0b\r\n", 5);
    for (const auto& [result, disconnects] :
         {std::pair("0", true), {"0", false}, {"1", true}, {"2", false}}) {
        Answer("0", result);
        auto service = MakeService();
        Mail mail;
        mail.Attach("", "..\\..\\evil.txt", bytes);
        mail.Attach("", "evil.txt", "2nd");
        EXPECT_EQ(service->Send(mail), *result != '2');
        EXPECT_EQ(ReadFile(m_folder.Path("evil.txt")), bytes);
        EXPECT_EQ(ReadFile(m_folder.Path("evil.txt+")), "2nd");
        const std::vector<fs::path> paths = TakeFiles();
        ASSERT_EQ(paths.size(), 2U);
        for (const fs::path& path : paths) {
            EXPECT_EQ(fs::exists(path), *result == '0') << "kept for a client that reads it later";
            EXPECT_EQ(path.parent_path().parent_path() / "", fs::temp_directory_path() / "");
        }
        EXPECT_TRUE(disconnects ? service->Disconnect() : (service.reset(), true));
        for (const fs::path& path : paths) {
            EXPECT_FALSE(fs::exists(path.parent_path()));
        }
        TakeError();
    }
    Answer("0", "0");
    const auto service = MakeService();
    Mail mail;
    mail.Attach("", "x", "1");
    EXPECT_TRUE(service->Send(mail));
    const fs::path folder = TakeFiles().at(0).parent_path();
    std::ofstream(folder / "late") << "x"; // the client's own, beside the attachment
    EXPECT_NE(Traced([&] { service->Disconnect(); }).find("Warning: Cannot remove the temporary folder"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(folder / "x"));
    fs::remove(folder / "late"); // the client is done
    CPrivateFile::RemoveLeftovers();
    EXPECT_FALSE(fs::exists(folder));
    EXPECT_TRUE(service->Send(mail));
    CPrivateFile::RemoveAll(); // the process ends before the service
    EXPECT_FALSE(fs::exists(TakeFiles().at(0).parent_path()));
    EXPECT_EQ(Traced([&] { service->Disconnect(); }), "");
    EXPECT_EQ(TakeError(), 0);
}

TEST(PrivateFiles, HaveNamesThatStayInTheirFolder)
{
    std::istringstream names( // each before its safe one
        "Offer 1.pdf;Offer 1.pdf;;attachment;..;attachment;. . "
        ";attachment;a/b\\;attachment;/etc/passwd;passwd;"
        "C:\\x\\..\\y.txt;y.txt;C:y.txt;C_y.txt;y.txt:stream;y.txt_stream;<a>\"b|c?d*\x01\x1F;_a__b_c_d___;"
        "y.txt. .;y.txt;CON;_CON;nul.txt;_nul.txt;Aux .tar.gz;_Aux .tar.gz;com1;_com1;lpt\xB2.x;_lpt\xB2.x;"
        "COM\xC2\xB3;_COM\xC2\xB3;conin$;_conin$;COM10;COM10;CONSOLE.txt;CONSOLE.txt;");
    for (std::string name, safe; std::getline(names, name, ';') && std::getline(names, safe, ';');) {
        EXPECT_EQ(SafeFileName(name, 99).View(), safe) << testing::PrintToString(name);
    }
    const std::string n(30, 'n');
    const std::pair<std::string, std::string> cuts[] = {
        // to 20 characters
        {n + ".html", n.substr(0, 15) + ".html"},
        {n.substr(0, 20), n.substr(0, 20)},
        {n, n.substr(0, 20)},
        {"a." + n, "a." + n.substr(0, 18)},
        {"." + std::string(30, ' ') + "x", "attachment"},
        {"n.n" + n.substr(0, 15) + ". .x" + n, "n.n" + n.substr(0, 15)},
        {"conx.y123456789012345", "_on.y123456789012345"}};
    for (const auto& [name, wanted] : cuts) {
        EXPECT_EQ(SafeFileName(name, 20).View(), wanted) << testing::PrintToString(name);
    }
}

} // namespace
