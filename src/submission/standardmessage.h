// Composes messages as today's standards have them, in ASCII throughout: header fields with encoded words,
// the text as 7bit or quoted-printable, attachments in base64. Only what is on its way is held, whatever the
// size of a mail, and its header; a text from a file is read twice.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "src-baselib/report.h"
#include "src/iofilter.h"
#include "src/mail.h"
#include "src/messagesource.h"
#include "src/submission/contenttype.h"
#include "src/submission/headertext.h"
#include "src/submission/textencoding.h"

class CStandardComposer : public CMessageSource
{
public:
    // What is the same for all messages of a send; the job must live as long as they are composed. The id is
    // without "<" and ">". False when the job cannot be composed, with the error raised and in the job's
    // protocol: 100 for a charset, header line or content type that is none, 662 for an address that cannot
    // stand in a header field, 695 when the text cannot be read.
    bool Prepare(CMail& job, std::string_view messageId);
    // Which To recipient the next messages are for, with a Message-ID of its own; -1: all.
    void SetOnlyRecipient(std::int32_t index) { m_only = index; }
    // Bytes that the next message has at most; -1 when an attachment's size is not known beforehand.
    [[nodiscard]] std::int64_t EstimateSize();

    // The job is the prepared one.
    void Begin(CMail& job) override;
    Pulled Next(char* room, std::int32_t size) override;

private:
    static constexpr std::int32_t kTextChunk = 1000;

    enum class Step : std::uint8_t
    {
        Header,
        Text,
        AttachmentHeader,
        Attachment,
        Complete
    };
    bool PrepareText();
    [[nodiscard]] bool CheckAttachments() const;
    [[nodiscard]] bool CheckAddresses() const;

    // Raises the error. Always false.
    bool Refuse(int code, const char* what, std::string_view given = "",
                const SourcePlace& where = SourcePlace::Here()) const;

    // The message's header and, with attachments, that of its text.
    [[nodiscard]] std::string Header() const;
    void AppendAddress(const CMailAddress& address, bool last, CHeaderFolder& fields) const;
    void AppendAddresses(const char* name, const CMail::Addresses& list, std::int32_t first, std::int32_t end,
                         CHeaderFolder& fields) const;
    [[nodiscard]] std::string AttachmentHeader(const CMailAttachment& attachment) const;
    [[nodiscard]] ContentType TypeOf(const CMailAttachment& attachment) const;

    // Put what comes next into m_pending and move on.
    bool Compose();
    bool ComposeText();
    bool BeginAttachment();
    bool EndAttachment();

    CMail* m_job = nullptr; // not owned
    Charset m_charset = Charset::Detect;
    std::string m_messageId;
    std::string m_additional;
    ContentType m_textType;
    bool m_plainText = true;
    std::int64_t m_textSize = 0;
    std::int32_t m_only = -1;

    PullState m_state = PullState::Failed; // until the first message begins
    Step m_step = Step::Header;
    std::string m_boundary;
    std::string m_header;  // of the message that has begun, if it was made already
    std::string m_pending; // goes out first, from m_sent on
    std::size_t m_sent = 0;
    IOElement* m_stream = nullptr; // the text's or the current attachment's; the job's
    CTextEncoder m_textEncoder;
    std::int32_t m_attachment = 0;
    CBase64FilterIo m_lines; // over the current attachment
    char m_text[kTextChunk + 1] = "";
};
