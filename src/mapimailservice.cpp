#include "src/mapimailservice.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <utility>

#include "src-baselib/filesystem.h"
#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src/errortexts.h"
#include "src/mapi/mapicall.h"
#include "src/mapi/mapidefaultclient.h"

namespace {

constexpr std::uint64_t kLargestCount = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kNoPosition = 0xFFFFFFFF; // an attachment beside the text

// A result that no error code can hold counts as a failure without a reason.
int ErrorOf(MapiResult result)
{
    constexpr MapiResult kLargest = std::numeric_limits<std::int32_t>::max() - codes::kFirstMapiResult;
    return codes::kFirstMapiResult + static_cast<int>(result > kLargest ? kMapiFailure : result);
}

// Always false.
bool Fail(int code, const char* text = nullptr, const SourcePlace& where = SourcePlace::Here())
{
    RaiseError(code, text, where);
    return false;
}

void* Address(CMapiPlatform::Function function)
{
    return reinterpret_cast<void*>(function);
}

bool IsHtml(std::string_view type)
{
    static constexpr std::string_view kHtml = "text/html";
    return type.size() >= kHtml.size() &&
           std::equal(kHtml.begin(), kHtml.end(), type.begin(),
                      [](char l, char r) { return l == std::tolower(static_cast<unsigned char>(r)); }) &&
           (type.size() == kHtml.size() || type[kHtml.size()] == ';' || type[kHtml.size()] == ' ');
}

// The client's one result stands for each recipient.
void Report(CMail& mail, MapiResult result) noexcept
{
    try {
        const char* const text = FindErrorText(kEnglishTexts, ErrorOf(result));
        for (const CMailAddress* const recipient : mail.GetRecipients(0)) {
            mail.Report().Add(recipient->GetMailbox().View(), result == kMapiSuccess ? 250 : 0,
                              text == nullptr ? "MAPI result without a text" : text);
        }
    } catch (const std::bad_alloc&) {
        mail.Report().Lose(); // what became of the mail is known: it must not turn into a failure
    }
}

const char* OrNull(const char* text)
{
    return text == nullptr ? "(null)" : text;
}

} // namespace

CMapiMailService::CMapiMailService(bool tryLogonDialog, bool resolveNames,
                                   std::unique_ptr<CMapiPlatform> platform)
    : m_platform(std::move(platform)), m_tryLogonDialog(tryLogonDialog), m_resolveNames(resolveNames)
{
    Logon();
}

template<class Function>
bool CMapiMailService::Find(const char* name, Function*& function)
{
    function = reinterpret_cast<Function*>(m_platform->FindFunction(m_library, name));
    return function != nullptr;
}

bool CMapiMailService::BindLibrary()
{
    constexpr std::uintptr_t kLargestFailure = 31;
    if (m_functions.resolveName != nullptr) {
        return true; // bound already
    }
    {
        const CMapiCall call; // the library runs code of its own when it is loaded
        m_library = m_platform->OpenLibrary("MAPI32.DLL");
    }
    if (m_library <= kLargestFailure) {
        RaiseError(codes::kMapiNotLoaded);
        Trace(TraceLevel::Normal, "Mapi dll not found");
        return false;
    }
    m_functions.initialize = m_platform->FindFunction(m_library, "MAPIInitialize");
    m_functions.uninitialize = m_platform->FindFunction(m_library, "MAPIUninitialize");
    Trace(TraceLevel::Normal, "Mapi init %p uninit %p vorhanden?", Address(m_functions.initialize),
          Address(m_functions.uninitialize));
    m_functions.logonEx = m_platform->FindFunction(m_library, "MAPILogonEx");

    void* const missing = nullptr;
    if (!Find("MAPILogon", m_functions.logon)) {
        RaiseError(codes::kMapiFunctionMissing);
        Trace(TraceLevel::Normal, "Mapi function logon not found %p", missing);
        return false;
    }
    m_functions.logoff = m_platform->FindFunction(m_library, "MAPILogoff");
    if (m_functions.logoff == nullptr) {
        Trace(TraceLevel::Normal, "Mapi function logoff not found %p", missing);
        return Fail(codes::kMapiFunctionMissing);
    }
    if (!Find("MAPISendMail", m_functions.sendMail)) {
        Trace(TraceLevel::Normal, "Mapi function sendmail not found %p", missing);
        return Fail(codes::kMapiFunctionMissing);
    }
    if (!Find("MAPIResolveName", m_functions.resolveName)) {
        Trace(TraceLevel::Normal, "Mapi function resolvename not found %p", missing);
        return Fail(codes::kMapiFunctionMissing);
    }
    Find("MAPIFreeBuffer", m_functions.freeBuffer);
    return true;
}

bool CMapiMailService::Logon()
{
    struct Attempt
    {
        std::uint32_t flags;
        const char* name;
    };
    static constexpr Attempt kAttempts[] = {
        {0, "1.Versuch"},
        {kMapiNewSession, "2.Versuch mit Session ohne Dialog"},
        {kMapiLogonUi, "3.Versuch ohne Session mit Dialog"},
        {kMapiLogonUi | kMapiNewSession, "4.Versuch mit Session mit Dialog"},
    };
    if (m_platform->GetOsVersion().IsWindows95() && !HasUsableDefaultClient(*m_platform)) {
        Trace(TraceLevel::Normal,
              "Win95 Kein g\xFCltiger Mailclient erkannt -> Annahme: Internet Mail"); // a Windows-1252 byte
        m_state = MapiState::NotAvailable;
        return false;
    }
    if (!BindLibrary()) {
        m_state = MapiState::NotAvailable;
        return false;
    }
    Trace(TraceLevel::Normal, "Logon:  Handle: %d ", static_cast<int>(m_window));
    MapiResult result = kMapiSuccess;
    for (const Attempt& attempt : kAttempts) {
        m_session = 0;
        result = CallMailClient(m_functions.logon, m_window, static_cast<char*>(nullptr),
                                static_cast<char*>(nullptr), attempt.flags, 0U, &m_session);
        if (result == kMapiSuccess) {
            Trace(TraceLevel::Normal, "%s: MapiLogon erfolgreich mit %d", attempt.name,
                  static_cast<int>(result));
            m_state = MapiState::LoggedOn;
            return true;
        }
        Trace(TraceLevel::Normal, "%s: MapiLogon failed %d", attempt.name, static_cast<int>(result));
        if (m_state == MapiState::NotTried) {
            m_state = MapiState::LogonFailed;
            Trace(TraceLevel::Normal, "TryMailLogonDialog ist %d", m_tryLogonDialog ? 1 : 0);
        }
        if (result != kMapiLoginFailure || !m_tryLogonDialog) {
            break;
        }
    }
    RaiseError(ErrorOf(result));
    Trace(TraceLevel::Normal, "Mail Logon fails");
    return false;
}

bool CMapiMailService::Connect(const CMailConnectionInfo& info)
{
    m_showDialog = info.showDialog;
    return true;
}

bool CMapiMailService::Disconnect()
{
    m_handedOver.clear();
    return true;
}

// The message points into what stands beside it here; all of it is a copy that the client may do with as it
// likes.
struct CMapiMailService::Outgoing
{
    using Path = std::array<char, kLongestPath + 1>;

    [[nodiscard]] bool ShowsDialog() const { return (flags & kMapiDialog) != 0; }
    // A copy of `text` that lasts as long as the mail; null for an empty one.
    char* Keep(const CEString& text)
    {
        return text.IsEmpty() ? nullptr
                              : texts.emplace_back(std::make_unique<std::string>(text.View()))->data();
    }

    MapiMessage message = {};
    std::uint32_t flags = 0;
    std::string noteText;
    std::vector<std::unique_ptr<std::string>> texts;
    MapiRecipDesc originator = {};
    std::vector<MapiRecipDesc> recipients; // one more than the mail has, which stays zero
    std::vector<Path> paths;
    std::vector<MapiFileDesc> files;
    std::vector<std::unique_ptr<CPrivateFile>> privateFiles;
};

bool CMapiMailService::Send(CMail& mail)
{
    if (m_state != MapiState::LoggedOn) {
        static constexpr const char* kText = "Mapi Mail not available / inactive.";
        Trace(TraceLevel::Error, "Error: %s", kText);
        return Fail(codes::kMapiNotAvailable, kText);
    }
    Outgoing outgoing;
    mail.CountReads();
    if (!Compose(mail, outgoing)) {
        return false;
    }
    if (mail.Progress().IsCancelled()) {
        return Fail(codes::kCancelled, kCancelledText);
    }
    // Room for them before the mail is gone: nothing may fail for memory after that.
    m_handedOver.reserve(m_handedOver.size() + outgoing.privateFiles.size());
    Trace(TraceLevel::Normal, "SendMail Flags %d", static_cast<int>(outgoing.flags));
    const MapiResult result =
        CallMailClient(m_functions.sendMail, m_session, m_window, &outgoing.message, outgoing.flags, 0U);
    Trace(TraceLevel::Normal, "SendMail returns %d", static_cast<int>(result));
    Report(mail, result);
    switch (result) {
    case kMapiSuccess:
        std::move(outgoing.privateFiles.begin(), outgoing.privateFiles.end(),
                  std::back_inserter(m_handedOver));
        return true;
    case kMapiUserAbort:
        Trace(TraceLevel::Normal, "SendMail durch Benutzer abgebrochen");
        return true;
    case kMapiAttachmentNotFound:
        return Fail(codes::kAttachmentFailure, "At least one attachment file not found.");
    case kMapiAttachmentOpenFailure:
        return Fail(codes::kAttachmentFailure, "At least one attachment file could not be opened.");
    default:
        return Fail(ErrorOf(result));
    }
}

bool CMapiMailService::Compose(CMail& mail, Outgoing& outgoing)
{
    outgoing.flags = m_showDialog ? kMapiDialog : 0;
    Trace(TraceLevel::Normal, m_showDialog ? "SendMail: show Dialog" : "SendMail: no Dialog");
    if (!AddAttachments(mail, outgoing) || !AddText(mail, outgoing)) {
        return false;
    }
    if (mail.GetSubject().IsEmpty() && !outgoing.ShowsDialog()) { // the user may type it there
        return Fail(codes::kNoSubject);
    }
    outgoing.message.lpszSubject = outgoing.Keep(mail.GetSubject());
    AddSender(mail, outgoing);
    return AddRecipients(mail, outgoing);
}

// Finds the path of a file for the client: the attachment's own, or that of a private copy of its memory.
bool CMapiMailService::ChoosePath(CMailAttachment& attachment, Outgoing& outgoing, CEString& path)
{
    if (!attachment.GetMemory().IsEmpty()) {
        IOElement* const content = attachment.OpenStream();
        CPrivateFile& file = *outgoing.privateFiles.emplace_back(std::make_unique<CPrivateFile>());
        if (content == nullptr || !file.Create(attachment.GetName(), *content)) {
            return false;
        }
        path = file.GetPath();
        Trace(TraceLevel::Normal, "Mail: Attachment '%s' in memory is handed over as file '%s'",
              attachment.GetName().CStr(), path.CStr());
        return true;
    }
    int error = 0;
    path = platform::AbsolutePath(attachment.GetFileName(), error); // the client looks elsewhere
    if (path.IsEmpty()) {
        Trace(TraceLevel::Warning, "Warning: Cannot tell the whole path of '%s': %s",
              attachment.GetFileName().CStr(), platform::SystemErrorText(error).CStr());
        path = attachment.GetFileName();
    }
    return true;
}

bool CMapiMailService::AddAttachments(CMail& mail, Outgoing& outgoing)
{
    const std::int32_t count = mail.Attachments().GetCount();
    if (count == 0) {
        return true;
    }
    Trace(TraceLevel::Normal, "Mail: Attached Files %d", static_cast<int>(count));
    outgoing.paths.resize(static_cast<std::size_t>(count));
    outgoing.files.resize(static_cast<std::size_t>(count));
    for (std::int32_t i = 0; i < count; ++i) {
        CEString path;
        CMailAttachment& attachment = *mail.Attachments().At(i);
        if (!ChoosePath(attachment, outgoing, path)) {
            return Fail(ErrorOf(kMapiAttachmentWriteFailure));
        }
        if (attachment.GetMemory().IsEmpty()) { // the client reads it
            mail.Progress().AddRead(attachment.GetContentSize());
        }
        auto& kept = outgoing.paths[static_cast<std::size_t>(i)];
        *std::copy_n(path.CStr(), std::min(path.GetLength(), kLongestPath), kept.begin()) = '\0';
        MapiFileDesc& entry = outgoing.files[static_cast<std::size_t>(i)];
        entry.nPosition = kNoPosition;
        entry.lpszPathName = kept.data();
    }
    outgoing.message.nFileCount = static_cast<std::uint32_t>(count);
    outgoing.message.lpFiles = outgoing.files.data();
    return true;
}

bool CMapiMailService::AddText(CMail& mail, Outgoing& outgoing)
{
    static constexpr const char* kCannotRead = "ERROR while reading mail text.";
    constexpr std::int32_t kBufferSize = 1000;
    char buffer[kBufferSize];
    if (IsHtml(mail.Text().GetContentType().View())) {
        Trace(TraceLevel::Warning, "Warning: The mail client is not told that the mail text is '%s'.",
              mail.Text().GetContentType().CStr());
    }
    IOElement* const stream = mail.Text().OpenStream();
    std::int32_t count = 0;
    do {
        count = kBufferSize - 1;
        if (!stream->Read(buffer, count)) {
            return Fail(codes::kMailText, kCannotRead);
        }
        if (outgoing.noteText.size() + static_cast<std::size_t>(count) > kLargestCount) {
            return Fail(ErrorOf(kMapiTextTooLarge));
        }
        outgoing.noteText.append(buffer, static_cast<std::size_t>(count));
    } while (count > 0);
    if (!mail.Text().IsDelivered()) {
        return Fail(codes::kMailText, kCannotRead);
    }
    if (outgoing.noteText.find('\0') != std::string::npos) {
        Trace(TraceLevel::Warning, "Warning: The mail text ends at its first zero byte for the mail client.");
    }
    outgoing.message.lpszNoteText = outgoing.noteText.data();
    return true;
}

MapiRecipDesc* CMapiMailService::Resolve(const char* name)
{
    if (!m_resolveNames) {
        return nullptr;
    }
    std::string asked(name);
    MapiRecipDesc* entry = nullptr;
    const MapiResult result =
        CallMailClient(m_functions.resolveName, m_session, m_window, asked.data(), 0U, 0U, &entry);
    if (result != kMapiSuccess || entry == nullptr) {
        return nullptr;
    }
    Trace(TraceLevel::Normal, "ResolveName: %s %s", OrNull(entry->lpszName), OrNull(entry->lpszAddress));
    return entry;
}

// The client is handed the address of the variable that holds its entry, not the entry: it frees nothing of
// its own then. A client that looks in front of what it is given, for what it keeps there, finds zeros.
void CMapiMailService::Free(MapiRecipDesc* entry)
{
    struct
    {
        std::array<std::uintptr_t, 8> before = {};
        MapiRecipDesc* entry = nullptr;
        std::array<std::uintptr_t, 8> after = {};
    } variable;
    variable.entry = entry;
    if (m_functions.freeBuffer != nullptr) {
        CallMailClient(m_functions.freeBuffer, static_cast<void*>(&variable.entry));
    }
}

void CMapiMailService::AddSender(const CMail& mail, Outgoing& outgoing)
{
    const CEString& name = mail.Sender().GetFullName();
    if (name.IsEmpty()) {
        return;
    }
    outgoing.message.lpOriginator = &outgoing.originator;
    if (const MapiRecipDesc* const entry = Resolve(name.CStr())) {
        outgoing.originator = *entry; // what it points to stays: it is never given back
        outgoing.originator.ulRecipClass = kMapiOriginator;
        return;
    }
    outgoing.originator.lpszName = outgoing.Keep(name);
    Trace(TraceLevel::Normal, "Fullname of sender could not be resolved (property 'MailSenderFullName'): %s",
          name.CStr());
}

bool CMapiMailService::AddRecipients(const CMail& mail, Outgoing& outgoing)
{
    const std::pair<const CMail::Addresses&, std::uint32_t> lists[] = {
        {mail.To(), kMapiTo}, {mail.Cc(), kMapiCc}, {mail.Bcc(), kMapiBcc}};
    std::uint64_t count = 0;
    for (const auto& [addresses, kind] : lists) {
        count += static_cast<std::uint64_t>(addresses.GetCount());
    }
    if (count > kLargestCount) {
        return Fail(ErrorOf(kMapiTooManyRecipients));
    }
    outgoing.recipients.resize(count + 1);
    std::memset(outgoing.recipients.data(), 0, outgoing.recipients.size() * sizeof(MapiRecipDesc));
    MapiRecipDesc* recipient = outgoing.recipients.data();
    for (const auto& [addresses, kind] : lists) {
        for (std::int32_t i = 0; i < addresses.GetCount(); ++i) {
            recipient->ulRecipClass = kind;
            FillRecipient(*addresses.At(i), *recipient++, outgoing);
        }
    }
    if (count == 0 && !outgoing.ShowsDialog()) { // the user may choose them there
        return Fail(codes::kNoRecipient);
    }
    outgoing.message.nRecipCount = static_cast<std::uint32_t>(count);
    outgoing.message.lpRecips = outgoing.recipients.data();
    return true;
}

void CMapiMailService::FillRecipient(const CMailAddress& address, MapiRecipDesc& recipient,
                                     Outgoing& outgoing)
{
    const bool hasName = !address.GetFullName().IsEmpty();
    CEString name = hasName ? address.GetFullName() : address.GetMailbox();
    CEString mailbox = address.GetMailbox();
    if (MapiRecipDesc* const entry = hasName ? Resolve(name.CStr()) : nullptr) {
        name = entry->lpszName == nullptr ? name : CEString(entry->lpszName);
        mailbox = entry->lpszAddress == nullptr ? mailbox : CEString(entry->lpszAddress);
        Free(entry);
    } else {
        Trace(TraceLevel::Normal, "Not ResolveName: %s", name.CStr());
    }
    recipient.lpszName = outgoing.Keep(name);
    recipient.lpszAddress = outgoing.Keep(mailbox);
}
