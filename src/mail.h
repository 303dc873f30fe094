// One mail job as it is handed to a delivery service: addresses, text, attachments. Built by the send
// pipeline, it lives for one send and owns all it holds; nothing in it refers to a property.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "src-baselib/cestring.h"
#include "src-baselib/iofile.h"
#include "src-baselib/iomem.h"
#include "src-baselib/pointerarray.h"
#include "src/deliveryreport.h"
#include "src/iofilter.h"
#include "src/mailaddress.h"
#include "src/sendprogress.h"

// A file that delivers what a check saw of it: never more, and it knows when there was less.
class CCheckedFile : public IOFile
{
public:
    // Begins a pass from the start. False, and reported, when the file cannot be opened.
    bool Begin();
    bool Read(void* buffer, std::int32_t& length) override;
    [[nodiscard]] const char* Lend(std::int32_t& length, std::int32_t unit) override;
    // Whether the pass read without failure all that the check saw.
    [[nodiscard]] bool IsDelivered() const { return !m_failed && m_rest <= 0; }
    // -1: there was no check, or no size to be seen; the file's end is its end.
    [[nodiscard]] std::int64_t GetCheckedSize() const { return m_checkedSize; }
    void SetCheckedSize(std::int64_t size) { m_checkedSize = size; }

private:
    std::int64_t m_checkedSize = -1;
    std::int64_t m_rest = -1; // bytes still to deliver in this pass
    bool m_failed = false;
};

// Tells the host what is read through it.
class CCountedStream : public IOFilter, public IOLender
{
public:
    CCountedStream() : IOFilter(static_cast<IOLender&>(*this)) {}

    bool Read(void* buffer, std::int32_t& length) override;
    [[nodiscard]] const char* Lend(std::int32_t& length, std::int32_t unit) override;
    void SetProgress(const CSendProgress& progress) { m_progress = progress; }
    [[nodiscard]] bool IsWanted() const { return m_progress.IsSet(); }

private:
    CSendProgress m_progress;
};

// Where the content of a text or an attachment comes from: a file, or blocks of the host's memory.
class CMailDocument
{
public:
    CMailDocument() = default;
    CMailDocument(const CMailDocument&) = delete;
    CMailDocument& operator=(const CMailDocument&) = delete;

    virtual ~CMailDocument() = default;
    // The stream of the content, at its start, for a fresh pass; owned by the document. Null when it cannot
    // be opened, which has then been reported.
    virtual IOElement* OpenStream() = 0;

    void SetFileName(const CEString& name) { m_fileName = name; }
    [[nodiscard]] const CEString& GetFileName() const { return m_fileName; }
    // A list of memory blocks; when it is not empty it takes precedence over the file.
    void SetMemory(const CEString& blocks) { m_memory = blocks; }
    [[nodiscard]] const CEString& GetMemory() const { return m_memory; }

    // Whether the file can be read; its size is what will be delivered. Raises nothing: the system's reason
    // goes to the trace. A folder, a device or a pipe is not a file.
    [[nodiscard]] bool CheckFile();
    // Whether the last pass read all that CheckFile saw; always true for memory.
    [[nodiscard]] bool IsDelivered() const { return !m_memory.IsEmpty() || m_file.IsDelivered(); }
    // The bytes of a whole pass; -1 when they are not known beforehand.
    [[nodiscard]] std::int64_t GetContentSize() const;
    // What the passes from now on read is told there.
    void CountReads(const CSendProgress& progress) { m_counted.SetProgress(progress); }

protected:
    IOElement* OpenChosenStream();

private:
    IOElement* OpenSource();

    CEString m_fileName;
    CEString m_memory;
    CCheckedFile m_file;
    std::unique_ptr<IOMemory> m_memoryStream; // made by the first use
    CCountedStream m_counted;                 // over one of them
};

// The mail text: its stream delivers CR LF line ends.
class CMailTextBody : public CMailDocument
{
public:
    // Never null: without a source the filter's reads fail.
    CrLfFilterIo* OpenStream() override;

    void SetContentType(const CEString& type) { m_contentType = type; }
    [[nodiscard]] const CEString& GetContentType() const { return m_contentType; }

private:
    CEString m_contentType;
    CrLfFilterIo m_textFilter;
};

// An attachment: its stream delivers the bytes as they are.
class CMailAttachment : public CMailDocument
{
public:
    IOElement* OpenStream() override { return OpenChosenStream(); }

    void SetMimeType(const CEString& type) { m_mimeType = type; }
    [[nodiscard]] const CEString& GetMimeType() const { return m_mimeType; }
    // The name under which it is sent.
    void SetName(const CEString& name) { m_name = name; }
    [[nodiscard]] const CEString& GetName() const { return m_name; }

private:
    CEString m_mimeType;
    CEString m_name;
};

class CTraceFile;

class CMail
{
public:
    using Addresses = COwnedArray<CMailAddress>;

    CMail() = default;
    CMail(const CMail&) = delete;
    CMail& operator=(const CMail&) = delete;
    virtual ~CMail() = default;

    COwnedArray<CMailAttachment>& Attachments() { return m_attachments; }
    Addresses& To() { return m_to; }
    Addresses& Cc() { return m_cc; }
    Addresses& Bcc() { return m_bcc; }
    CMailAddress& Sender() { return m_sender; }
    CMailAddress& ReplyTo() { return m_replyTo; }
    CMailTextBody& Text() { return m_text; }
    [[nodiscard]] const COwnedArray<CMailAttachment>& Attachments() const { return m_attachments; }
    [[nodiscard]] const Addresses& To() const { return m_to; }
    [[nodiscard]] const Addresses& Cc() const { return m_cc; }
    [[nodiscard]] const Addresses& Bcc() const { return m_bcc; }
    [[nodiscard]] const CMailAddress& Sender() const { return m_sender; }
    [[nodiscard]] const CMailAddress& ReplyTo() const { return m_replyTo; }
    [[nodiscard]] const CMailTextBody& Text() const { return m_text; }

    void SetSubject(const CEString& subject) { m_subject = subject; }
    [[nodiscard]] const CEString& GetSubject() const { return m_subject; }
    void SetAdditionalHeader(const CEString& header) { m_additionalHeader = header; }
    [[nodiscard]] const CEString& GetAdditionalHeader() const { return m_additionalHeader; }
    // Of the texts given by the host; empty: it is told from their bytes.
    void SetCharset(const CEString& charset) { m_charset = charset; }
    [[nodiscard]] const CEString& GetCharset() const { return m_charset; }
    // Exactly 1: a message of its own for each To recipient; any other value: one message for all.
    void SetMessagePerRecipient(std::int32_t flag) { m_messagePerRecipient = flag; }
    [[nodiscard]] bool IsMessagePerRecipient() const { return m_messagePerRecipient == 1; }
    [[nodiscard]] std::int32_t GetMessageCount() const
    {
        return IsMessagePerRecipient() ? m_to.GetCount() : 1;
    }
    // The recipients of one of these messages: To, Cc, Bcc.
    [[nodiscard]] std::vector<const CMailAddress*> GetRecipients(std::int32_t message) const;

    // The job protocol, which the user reads: what becomes of the mail is told there too. Not owned; null for
    // none.
    void SetProtocol(CTraceFile* protocol) { m_protocol = protocol; }
    [[nodiscard]] CTraceFile* GetProtocol() const { return m_protocol; }
    CDeliveryReport& Report() { return m_report; }

    // The host's view of the send.
    CSendProgress& Progress() { return m_progress; }
    // The bytes of text and attachments in all messages, as far as they are known beforehand.
    [[nodiscard]] std::uint64_t GetContentSize() const;
    // What is read of them from now on is for the messages.
    void CountReads();

private:
    CTraceFile* m_protocol = nullptr;
    CDeliveryReport m_report;
    CSendProgress m_progress;
    COwnedArray<CMailAttachment> m_attachments;
    CEString m_subject;
    CMailAddress m_sender;
    Addresses m_to;
    Addresses m_cc;
    Addresses m_bcc;
    CMailAddress m_replyTo;
    std::int32_t m_messagePerRecipient = 1;
    CEString m_additionalHeader;
    CEString m_charset;
    CMailTextBody m_text;
};
