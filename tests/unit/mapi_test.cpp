// The delivery through a mail client, with a stand-in for its library and the registry.
#include "src/mapimailservice.h"

#include <cfenv>
#include <clocale>
#include <filesystem>
#include <map>
#include <set>

#include "tests/unit/helpers.h"

namespace {

namespace fs = std::filesystem;
constexpr auto kAll = std::regex::ECMAScript | std::regex::multiline;

std::string HostState()
{
    return fs::current_path().string() + "|" + std::setlocale(LC_NUMERIC, nullptr) + "|" +
           std::to_string(std::fegetround());
}

std::string ReadAll(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The mail client: how it answers, and what it has seen.
struct Client
{
    struct Entry
    {
        std::string name, address;
        MapiRecipDesc description;
    };

    std::set<std::string> missing; // of its functions, or "MAPI32.DLL"
    std::map<std::string, std::string> registry;
    COsVersionInfo system;
    std::vector<MapiResult> logons = {0};
    std::map<std::string, std::pair<std::string, std::string>> book;
    MapiResult sendResult = 0;
    bool addsFile = false; // beside the first attachment

    std::string hostState = HostState(); // as every call must find it
    std::string seen;
    std::vector<std::string> paths;
    std::vector<std::unique_ptr<Entry>> entries;
};
Client* g_client;

// Every call finds the process as the host has it, and spoils it.
void Enter()
{
    EXPECT_EQ(HostState(), g_client->hostState);
    fs::current_path(fs::temp_directory_path());
    std::setlocale(LC_NUMERIC, "C");
    std::fesetround(FE_UPWARD);
}

std::string Text(const char* text)
{
    return text == nullptr ? "-" : text;
}

bool IsZero(const void* data, std::size_t size)
{
    const auto* const bytes = static_cast<const char*>(data);
    return std::all_of(bytes, bytes + size, [](char c) { return c == 0; });
}

MapiResult Logon(MapiHandle window, char* profile, char* password, std::uint32_t flags,
                 std::uint32_t reserved, MapiHandle* session)
{
    Enter();
    EXPECT_TRUE(window == 0 && profile == nullptr && password == nullptr && reserved == 0 && *session == 0);
    g_client->seen += std::to_string(flags);
    const MapiResult result = g_client->logons.front();
    g_client->logons.erase(g_client->logons.begin());
    *session = result == 0 ? 4711 : 9; // a failed attempt's is not to be used
    return result;
}

std::string Describe(const MapiRecipDesc& r)
{
    EXPECT_TRUE(r.ulReserved == 0);
    return std::to_string(r.ulRecipClass) + " " + Text(r.lpszName) + " " + Text(r.lpszAddress) + "|";
}

MapiResult SendMail(MapiHandle session, MapiHandle window, MapiMessage* m, std::uint32_t flags,
                    std::uint32_t reserved)
{
    Enter();
    EXPECT_TRUE(session == 4711 && window == 0 && reserved == 0);
    EXPECT_TRUE(m->ulReserved == 0 && m->flFlags == 0 && IsZero(&m->lpszMessageType, 3 * sizeof(char*)));
    std::string& seen = g_client->seen;
    seen += std::to_string(flags) + "|" + Text(m->lpszSubject) + "|" + Text(m->lpszNoteText) + "|";
    seen += m->lpOriginator == nullptr ? "-|" : Describe(*m->lpOriginator);
    for (std::uint32_t i = 0; i < m->nRecipCount; ++i) {
        seen += Describe(m->lpRecips[i]);
        EXPECT_TRUE(m->lpRecips[i].ulEIDSize == 0 && m->lpRecips[i].lpEntryID == nullptr);
    }
    EXPECT_TRUE(IsZero(&m->lpRecips[m->nRecipCount], sizeof *m->lpRecips)) << "one more, empty";
    for (std::uint32_t i = 0; i < m->nFileCount; ++i) {
        const MapiFileDesc& file = m->lpFiles[i];
        EXPECT_TRUE(file.nPosition == 0xFFFFFFFF && file.ulReserved == 0 && file.flFlags == 0);
        EXPECT_TRUE(file.lpszFileName == nullptr && file.lpFileType == nullptr);
        g_client->paths.emplace_back(file.lpszPathName);
        seen += fs::path(file.lpszPathName).filename().string() + "=" + ReadAll(file.lpszPathName) + "|";
    }
    if (g_client->addsFile) {
        std::ofstream(fs::path(g_client->paths[0]).parent_path() / "late") << "x";
    }
    std::fill_n(m->lpszNoteText, Text(m->lpszNoteText).size(), '?'); // a client's own to change
    return g_client->sendResult;
}

MapiResult ResolveName(MapiHandle session, MapiHandle window, char* name, std::uint32_t flags,
                       std::uint32_t reserved, MapiRecipDesc** entry)
{
    Enter();
    EXPECT_TRUE(session == 4711 && window == 0 && flags == 0 && reserved == 0);
    const auto found = g_client->book.find(name);
    if (found == g_client->book.end()) {
        return 14;
    }
    if (found->second.first == "ambiguous") {
        return 21;
    }
    if (found->second.first == "nothing") {
        return 0;
    }
    auto& made = *g_client->entries.emplace_back(std::make_unique<Client::Entry>());
    made.name = found->second.first;
    made.address = found->second.second;
    char* const address = made.address.empty() ? nullptr : made.address.data();
    made.description = {0, 7, made.name.data(), address, 3, made.name.data()};
    *entry = &made.description;
    return 0;
}

MapiResult FreeBuffer(void* argument)
{
    Enter();
    auto** const variable = static_cast<MapiRecipDesc**>(argument);
    Client::Entry& last = *g_client->entries.back();
    EXPECT_EQ(*variable, &last.description) << "the variable's address, not the entry";
    EXPECT_TRUE(IsZero(variable - 8, 64)) << "a client's own mark is looked for here";
    *variable = nullptr;
    std::fill(last.name.begin(), last.name.end(), '?');
    std::fill(last.address.begin(), last.address.end(), '?');
    last.description = {};
    g_client->seen += "free|";
    return 0;
}

class CStandIn : public CMapiPlatform
{
public:
    std::uintptr_t OpenLibrary(const char* name) override
    {
        Enter();
        return g_client->missing.contains(name) ? 31 : 32; // what the system's loader calls a failure
    }
    Function FindFunction(std::uintptr_t library, const char* name) override
    {
        EXPECT_EQ(library, 32U);
        static const std::map<std::string, Function> functions = {
            {"MAPILogon", reinterpret_cast<Function>(&Logon)},
            {"MAPISendMail", reinterpret_cast<Function>(&SendMail)},
            {"MAPIResolveName", reinterpret_cast<Function>(&ResolveName)},
            {"MAPIFreeBuffer", reinterpret_cast<Function>(&FreeBuffer)}};
        const auto found = functions.find(name);
        const auto never = [] { ADD_FAILURE() << "never called"; };
        return g_client->missing.contains(name) ? nullptr
               : found == functions.end()       ? static_cast<Function>(never)
                                                : found->second;
    }
    bool HasRegistryKey(const char* key) override { return g_client->registry.contains(key); }
    std::optional<CEString> ReadRegistry(const char* key, const char* name) override
    {
        const auto found =
            g_client->registry.find(name == nullptr ? std::string(key) + "|" : std::string(key) + "|" + name);
        return found == g_client->registry.end() ? std::optional<CEString>()
                                                 : CEString(std::string_view(found->second));
    }
    COsVersionInfo GetOsVersion() override { return g_client->system; }
};

class Mapi : public testing::Test
{
protected:
    Mapi()
    {
        g_client = &m_client;
        TakeError();
    }
    ~Mapi() override
    {
        EXPECT_EQ(HostState(), m_client.hostState);
        std::setlocale(LC_NUMERIC, "C");
        std::fesetround(FE_TONEAREST);
    }

    std::unique_ptr<CMapiMailService> MakeService(bool dialog = false, bool resolve = false)
    {
        return std::make_unique<CMapiMailService>(dialog, resolve, std::make_unique<CStandIn>());
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
        std::string lines = ReadAll(name);
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

    Client m_client;
};

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
        std::vector<MapiResult> results;
        const char* flags;
        std::string trace;
        int error; // 0: logged on
        bool dialog;
    } cases[] = {
        {{0}, "0", bound + "1.Versuch: MapiLogon erfolgreich mit 0|", 0, false},
        {{3}, "0", bound + "1.Versuch: MapiLogon failed 3|TryMailLogonDialog ist 0|", 153, false},
        {{2}, "0", bound + "1.Versuch: MapiLogon failed 2|TryMailLogonDialog ist 1|", 152, true},
        {{0xFFFFFF6A}, "0", bound + "1.Versuch: MapiLogon failed -150|TryMailLogonDialog ist 1|", 152, true},
        {{3, 0}, "02", second + "erfolgreich mit 0|", 0, true},
        {{3, 1}, "02", second + "failed 1|", 151, true},
        {{3, 3, 0}, "021", third + "erfolgreich mit 0|", 0, true},
        {{3, 3, 1}, "021", third + "failed 1|", 151, true},
        {{3, 3, 3, 0}, "0213", fourth + "erfolgreich mit 0|", 0, true},
        {{3, 3, 3, 3}, "0213", fourth + "failed 3|", 153, true},
        {{3, 3, 3, 26}, "0213", fourth + "failed 26|", 176, true}};
    for (const auto& row : cases) {
        m_client.logons = row.results;
        m_client.seen.clear();
        std::unique_ptr<CMapiMailService> service;
        const std::string trace = Traced([&] { service = MakeService(row.dialog); });
        EXPECT_EQ(service->GetState(), row.error == 0 ? MapiState::LoggedOn : MapiState::LogonFailed);
        EXPECT_EQ(TakeError(), row.error);
        EXPECT_EQ(m_client.seen, row.flags);
        const std::string failure =
            "Error: Setting error " + std::to_string(row.error) + " @|Mail Logon fails|";
        EXPECT_EQ(trace, row.trace + (row.error == 0 ? "" : failure));
        Mail mail;
        EXPECT_EQ(service->Send(mail), row.error == 0);
        EXPECT_EQ(TakeError(), row.error == 0 ? 0 : 701);
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
        {"MAPIInitialize", 0, ""},
        {"MAPIUninitialize", 0, ""},
        {"MAPILogonEx", 0, ""},
        {"MAPIFreeBuffer", 0, ""}};
    for (const auto& [name, error, wanted] : cases) {
        m_client.missing = {name};
        m_client.logons = {0};
        m_client.book = {{"Ada", {"Ada L", "ada@x.y"}}};
        std::unique_ptr<CMapiMailService> service;
        const std::string trace = Traced([&] { service = MakeService(false, true); });
        EXPECT_TRUE(error == 0 || trace == wanted) << trace;
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
    const std::string version = express + "\\Version Info|Current";
    const std::string netscape = "SOFTWARE\\Netscape\\Netscape Navigator\\MAPI|Enabled";
    const std::string activated = "OE4+ SimpleMAPI is activated|";
    const std::string notActivated = "OE4 or OE4 SimpleMAPI is not activated|";
    const struct
    {
        const char* client;
        const char* path;
        std::map<std::string, std::string> more;
        bool usable;
        std::string trace; // behind what was found
    } cases[] = {
        {"Outlook Express", "x.dll", {{express + "|SMapi", std::string("\1\0\0\0", 4)}}, true, activated},
        {"Outlook Express", "x.dll", {{express + "|SMapi", std::string("\0\1\0\0", 4)}}, true, activated},
        {"Outlook Express",
         "x.dll",
         {{express + "|SMapi", std::string(4, '\0')}, {version, "6,0"}},
         false,
         notActivated},
        {"Outlook Express", "x.dll", {{version, "5,50,4133"}}, true, activated},
        {"Outlook Express", "x.dll", {{version, "4,72"}}, false, notActivated},
        {"Outlook Express", "x.dll", {}, false, notActivated},
        {"Microsoft Outlook", "x.dll", {{version, "10"}}, true, "Outlook SimpleMAPI is activated|"},
        {"Microsoft Outlook", "x.dll", {}, false, "Outlook or Outlook SimpleMAPI is not activated|"},
        {"Netscape Messenger", "x.dll", {{netscape, "1"}}, true, "Netscape4 SimpleMAPI is activated|"},
        {"Netscape Messenger", "x.dll", {}, false, "Netscape4 or Netscape4 SimpleMAPI is not activated|"},
        {"Pegasus Mail", "x.dll", {}, false, "SimpleMAPI should be active|"},
        {"Pegasus Mail", "", {}, true, "Pegasus Mail SimpleMAPI should be active|"},
        {"Microsoft Outlook", "", {}, true, "Microsoft Outlook SimpleMAPI should be active|"},
        {"Other", "", {}, false, ""}};
    for (const auto& row : cases) {
        for (const bool old : {true, false}) {
            m_client.system = {!old, 4, 0};
            m_client.logons = {0};
            m_client.registry = row.more;
            m_client.registry[mail + "|"] = row.client;
            m_client.registry[mail + "\\" + row.client] = "";
            m_client.registry[mail + "\\" + row.client + "|DLLPath"] = row.path;
            std::string wanted = std::string("Found StandardEmailHandler in Registry: ") + row.client + "|";
            wanted += *row.path == '\0' ? "" : "Found StandardEmailHandlerDLLPath in Registry: x.dll|";
            wanted += row.trace;
            wanted += row.usable ? "Mapi init"
                                 : "Win95 Kein g\xFCltiger Mailclient erkannt -> Annahme: Internet Mail|";
            std::unique_ptr<CMapiMailService> service;
            const std::string trace = Traced([&] { service = MakeService(); });
            EXPECT_EQ(trace.substr(0, old ? wanted.size() : 9), old ? wanted : "Mapi init");
            EXPECT_EQ(service->GetState(),
                      row.usable || !old ? MapiState::LoggedOn : MapiState::NotAvailable);
            EXPECT_EQ(TakeError(), 0);
        }
    }
    for (const char* const name : {"", "Gone"}) { // no name, and a name without its key
        m_client.system = {false, 4, 0};
        m_client.registry = {{mail + "|", name}};
        EXPECT_EQ(Traced([&] { EXPECT_EQ(MakeService()->GetState(), MapiState::NotAvailable); }),
                  "Win95 Kein g\xFCltiger Mailclient erkannt -> Annahme: Internet Mail|");
    }
    m_client.system = {false, 4, 10}; // its successor
    m_client.logons = {0};
    EXPECT_EQ(MakeService()->GetState(), MapiState::LoggedOn);
}

TEST_F(Mapi, HandsOverTheWholeMailAndKeepsTheProcessAsItWas)
{
    EXPECT_TRUE(std::setlocale(LC_NUMERIC, "C.UTF-8") != nullptr || std::setlocale(LC_NUMERIC, "German"));
    std::fesetround(FE_DOWNWARD);
    m_client.hostState = HostState();
    m_client.book = {{"Ada", {"Ada Lovelace", "SMTP:ada@x.y"}},
                     {"Bob", {"ambiguous", ""}},
                     {"Nil", {"nothing", ""}},
                     {"Eve", {"Eve E", ""}},
                     {"Me", {"Me Myself", "SMTP:me@x.y"}},
                     {"a@b.c", {"must not be asked", ""}}};
    std::ofstream("relative.txt") << "content";
    const std::string root = fs::current_path().root_path().string();
    const std::string longText = std::string(1500, 'x') + "\nb";
    for (const bool resolve : {true, false}) {
        m_client.logons = {0};
        m_client.seen.clear();
        m_client.paths.clear();
        const auto service = MakeService(false, resolve);
        Mail mail(longText);
        mail.Sender().SetFullName("Me");
        Mail::Add(mail.To(), "bob@x.y", "Bob");
        Mail::Add(mail.Bcc(), "carl@x.y", "Carl");
        Mail::Add(mail.Cc(), "", "Ada");
        Mail::Add(mail.Cc(), "eve@x.y", "Eve");
        Mail::Add(mail.Cc(), "", "Nil");
        mail.Attach("relative.txt");
        mail.Attach(root + std::string(300, 'p'));
        const std::string trace = Traced([&] { EXPECT_TRUE(service->Send(mail)); });
        const std::string found = resolve
                                      ? "0 Me Myself SMTP:me@x.y|1 a@b.c a@b.c|1 Bob bob@x.y|"
                                        "2 Ada Lovelace SMTP:ada@x.y|2 Eve E eve@x.y|2 Nil -|"
                                      : "0 Me -|1 a@b.c a@b.c|1 Bob bob@x.y|2 Ada -|2 Eve eve@x.y|2 Nil -|";
        EXPECT_EQ(m_client.seen, (resolve ? "0free|free|0|Hello|" : "00|Hello|") + std::string(1500, 'x') +
                                     "\r\nb|" + found + "3 Carl carl@x.y|relative.txt=content|" +
                                     std::string(259 - root.size(), 'p') + "=|");
        EXPECT_EQ(m_client.paths[0], (fs::current_path() / "relative.txt").string());
        EXPECT_EQ(trace,
                  std::string("SendMail: no Dialog|Mail: Attached Files 2|") +
                      (resolve
                           ? "ResolveName: Me Myself SMTP:me@x.y|Not ResolveName: a@b.c|Not ResolveName: Bob|"
                             "ResolveName: Ada Lovelace SMTP:ada@x.y|ResolveName: Eve E (null)|"
                           : "Fullname of sender could not be resolved (property 'MailSenderFullName'): Me|"
                             "Not ResolveName: a@b.c|Not ResolveName: Bob|Not ResolveName: Ada|"
                             "Not ResolveName: Eve|") +
                      "Not ResolveName: Nil|Not ResolveName: Carl|SendMail Flags 0|SendMail returns 0|");
    }
    EXPECT_EQ(TakeError(), 0);
}

TEST_F(Mapi, TurnsTheResultOfASendIntoAnError)
{
    const auto service = MakeService();
    for (MapiResult result :
         {0U,  1U,  2U,  3U,  4U,  5U,  6U,  7U,  8U,  9U,  10U, 11U, 12U,  13U,        14U,
          15U, 16U, 17U, 18U, 19U, 20U, 21U, 22U, 23U, 24U, 25U, 26U, 999U, 0xFFFFFF6AU}) {
        m_client.sendResult = result;
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
    std::ofstream("shrinks.txt") << "longer";
    const std::tuple<const char*, int, const char*> cases[] = {
        {"subject", 651, "0|-|Hi\r\n|-|1 a@b.c a@b.c|"},
        {"recipients", 650, "8|Hello|Hi\r\n|-|"},
        {"html", 0, "8|Hello|Hi\r\n|-|1 a@b.c a@b.c|"},
        {"text", 695, ""},
        {"attachment", 163, ""}};
    for (const auto& [what, error, seen] : cases) {
        for (const bool dialog : {false, true}) {
            m_client.logons = {0};
            const auto service = MakeService();
            CMailConnectionInfo info;
            info.showDialog = dialog;
            EXPECT_TRUE(service->Connect(info));
            m_client.seen.clear();
            CMail mail;
            Mail other;
            const std::string name(what);
            mail.SetSubject(name == "subject" ? "" : "Hello");
            mail.Text().SetMemory(other.Text().GetMemory());
            if (name != "recipients") {
                Mail::Add(mail.To(), "a@b.c", "");
            }
            if (name == "text") {
                mail.Text().SetMemory("");
                mail.Text().SetFileName("shrinks.txt");
                EXPECT_TRUE(mail.Text().CheckFile());
                std::ofstream("shrinks.txt") << "short";
            }
            if (name == "attachment") {
                mail.Attachments().Add(std::make_unique<CMailAttachment>())->SetMemory("7");
            }
            mail.Text().SetContentType(name == "html" ? "Text/HTML; charset=x" : "text/htmlx");
            const bool good = error == 0 || (dialog && (error == 650 || error == 651));
            const std::string trace = Traced([&] { EXPECT_EQ(service->Send(mail), good) << name; });
            EXPECT_EQ(TakeError(), good ? 0 : error) << what;
            EXPECT_EQ(m_client.seen.substr(std::min<std::size_t>(m_client.seen.size(), 1)),
                      good ? std::string(seen).substr(1) : "")
                << what;
            EXPECT_EQ(trace.find(dialog ? "SendMail: show Dialog|" : "SendMail: no Dialog|"), 0U);
            EXPECT_EQ(trace.find("Warning: ") != std::string::npos, name == "html") << trace;
            EXPECT_EQ(trace.find("SendMail Flags 8|") != std::string::npos, dialog && good);
            std::ofstream("shrinks.txt") << "longer";
        }
    }
}

TEST_F(Mapi, HandsOverMemoryInPrivateFilesUntilTheClientIsDone)
{
    const std::string bytes("a\0b\r\n", 5);
    for (const MapiResult result : {0U, 1U, 2U}) {
        for (const bool disconnects : {true, false}) {
            m_client.logons = {0};
            m_client.sendResult = result;
            m_client.paths.clear();
            m_client.seen.clear();
            auto service = MakeService();
            Mail mail;
            mail.Attach("", "..\\..\\evil.txt", bytes);
            mail.Attach("", "evil.txt", "2nd");
            EXPECT_EQ(service->Send(mail), result <= 1);
            EXPECT_EQ(m_client.seen, "00|Hello|Hi\r\n|-|1 a@b.c a@b.c|evil.txt=" + bytes + "|evil.txt=2nd|");
            for (const std::string& path : m_client.paths) {
                EXPECT_EQ(fs::exists(path), result == 0) << "kept for a client that reads it later";
                EXPECT_EQ(fs::path(path).parent_path().parent_path() / "", fs::temp_directory_path() / "");
            }
            EXPECT_TRUE(disconnects ? service->Disconnect() : (service.reset(), true));
            for (const std::string& path : m_client.paths) {
                EXPECT_FALSE(fs::exists(fs::path(path).parent_path()));
            }
            TakeError();
        }
    }
    m_client.logons = {0};
    m_client.sendResult = 0;
    m_client.paths.clear();
    m_client.addsFile = true;
    const auto service = MakeService();
    Mail mail;
    mail.Attach("", "x", "1");
    EXPECT_TRUE(service->Send(mail));
    const fs::path folder = fs::path(m_client.paths[0]).parent_path();
    EXPECT_NE(Traced([&] { service->Disconnect(); }).find("Warning: Cannot remove the temporary folder"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(folder / "x"));
    fs::remove(folder / "late"); // the client is done
    CPrivateFile::RemoveLeftovers();
    EXPECT_FALSE(fs::exists(folder));
    m_client.addsFile = false;
    EXPECT_TRUE(service->Send(mail));
    CPrivateFile::RemoveAll(); // the process ends before the service
    EXPECT_FALSE(fs::exists(fs::path(m_client.paths.back()).parent_path()));
    EXPECT_EQ(Traced([&] { service->Disconnect(); }), "");
    EXPECT_EQ(TakeError(), 0);
}

TEST(PrivateFiles, HaveNamesThatStayInTheirFolder)
{
    const std::string cut(30, 'n');
    const std::tuple<std::string, std::size_t, std::string> cases[] = {
        {"Offer 1.pdf", 99, "Offer 1.pdf"},
        {"", 99, "attachment"},
        {"..", 99, "attachment"},
        {". . ", 99, "attachment"},
        {"a/b\\", 99, "attachment"},
        {"/etc/passwd", 99, "passwd"},
        {"C:\\x\\..\\y.txt", 99, "y.txt"},
        {"C:y.txt", 99, "C_y.txt"},
        {"y.txt:stream", 99, "y.txt_stream"},
        {"<a>\"b|c?d*\x01\x1F", 99, "_a__b_c_d___"},
        {"y.txt. .", 99, "y.txt"},
        {"CON", 99, "_CON"},
        {"nul.txt", 99, "_nul.txt"},
        {"Aux .tar.gz", 99, "_Aux .tar.gz"},
        {"com1", 99, "_com1"},
        {"lpt\xB2.x", 99, "_lpt\xB2.x"},
        {"COM\xC2\xB3", 99, "_COM\xC2\xB3"},
        {"conin$", 99, "_conin$"},
        {"COM10", 99, "COM10"},
        {"CONSOLE.txt", 99, "CONSOLE.txt"},
        {cut + ".html", 20, cut.substr(0, 15) + ".html"},
        {cut.substr(0, 20), 20, cut.substr(0, 20)},
        {cut, 20, cut.substr(0, 20)},
        {"a." + cut, 20, "a." + cut.substr(0, 18)},
        {"." + std::string(30, ' ') + "x", 20, "attachment"},
        {"n.n" + cut.substr(0, 15) + ". .x" + cut, 20, "n.n" + cut.substr(0, 15)},
        {"conx.y12345678901234", 19, "_on.y12345678901234"}};
    for (const auto& [name, longest, wanted] : cases) {
        EXPECT_EQ(SafeFileName(name, longest).View(), wanted) << testing::PrintToString(name);
        EXPECT_LE(wanted.size(), longest);
    }
}

} // namespace
