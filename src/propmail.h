// The mail properties: the host's configuration of a job, in two sets with the same names. The live set is
// what the host reads and writes; the default set is copied into it by a reset. They differ where the system
// always did: in types, and in the defaults of MailServerPort and MailDialog.
#pragma once

#include "src-baselib/property.h"
#include "src-baselib/propertyset.h"

// What a host asks for and never sets.
class CAnswerProperty : public CStringProperty
{
public:
    using CStringProperty::CStringProperty;
    // Changes nothing and returns false; error 3 only when the property is not writable.
    bool SetString(const void* value) override;
};

// MailAvailable: the state of the system's mail client, found out at each read. Its stored text stays empty.
class CMailProperty : public CAnswerProperty
{
public:
    CMailProperty(const char* name, CPropertySet& owner, const CBoolProperty& logonDialog)
        : CAnswerProperty(name, owner), m_logonDialog(logonDialog)
    {
    }

    // Error 47 for a size below 15; a longer text is cut to the size and terminated.
    bool GetValue(void* buffer, std::int32_t size) override;

private:
    const CBoolProperty& m_logonDialog;
};

// MailDeliveryReport: what the last send came to. Each send has one, so the dump, which shows the settings,
// leaves it out.
class CReportProperty : public CAnswerProperty
{
public:
    CReportProperty(const char* name, CPropertySet& owner) : CAnswerProperty(name, owner)
    {
        SetDumped(Dumped::Never);
    }
};

// A setting that came later than the others: shown only where a host uses it.
class CLaterProperty : public CStringProperty
{
public:
    CLaterProperty(const char* name, CPropertySet& owner) : CStringProperty(name, owner)
    {
        SetDumped(Dumped::WhenSet);
    }
};

// The password: its value is not traced when the delivery path is the one that uses it.
class CPasswordProperty : public CStringProperty
{
public:
    CPasswordProperty(const char* name, CPropertySet& owner, const CStringProperty& protocol)
        : CStringProperty(name, owner), m_protocol(protocol)
    {
    }

    void Trace() const override;

private:
    const CStringProperty& m_protocol;
};

// `List` is the type of the four properties that are lists in the live set only.
template<class List>
struct CMailProperties : CPropertySet
{
    CMailProperties(const char* serverPort, std::int32_t dialog)
        : mailServerPort("MailServerPort", *this, serverPort), mailDialog("MailDialog", *this, dialog)
    {
    }

    List mailAttachmentFilename{"MailAttachmentFilename", *this};
    CStringProperty mailAttachmentMemoryAddress{"MailAttachmentMemoryAddress", *this};
    List mailAttachmentMimeType{"MailAttachmentMimeType", *this};
    CStringProperty mailTextFilename{"MailTextFilename", *this};
    CStringProperty mailTextMemoryAddress{"MailTextMemoryAddress", *this};
    CStringProperty mailTextContentType{"MailTextContentType", *this};
    CStringProperty mailSenderMailBox{"MailSenderMailBox", *this};
    CStringProperty mailSenderFullName{"MailSenderFullName", *this};
    CStringProperty mailTraceFilename{"MailTraceFilename", *this};
    List mailRecipientsMailBox{"MailRecipientsMailBox", *this};
    List mailRecipientsFullName{"MailRecipientsFullName", *this};
    CSeparatedStringProperty mailCCRecipientsMailBox{"MailCCRecipientsMailBox", *this};
    CSeparatedStringProperty mailCCRecipientsFullName{"MailCCRecipientsFullName", *this};
    CSeparatedStringProperty mailBCCRecipientsMailBox{"MailBCCRecipientsMailBox", *this};
    CSeparatedStringProperty mailBCCRecipientsFullName{"MailBCCRecipientsFullName", *this};
    CStringProperty mailReplyToMailBox{"MailReplyToMailBox", *this};
    CStringProperty mailReplyToFullName{"MailReplyToFullName", *this};
    CStringProperty mailSubject{"MailSubject", *this};
    CStringProperty mailAdditionalSMTPHeader{"MailAdditionalSMTPHeader", *this};
    CStringProperty mailAuthLogin{"MailAuthLogin", *this};
    CPasswordProperty mailAuthPassword{"MailAuthPassword", *this, mailProtocol};
    CStringProperty mailProtocol{"MailProtocol", *this};
    CStringProperty mailServer{"MailServer", *this};
    CStringProperty mailServerPort;
    CStringProperty mailWorkSpace{"MailWorkSpace", *this};
    CBoolProperty useBulkMail{"UseBulkMail", *this};
    CBoolProperty mailDialog;
    CBoolProperty mailLogonDialog{"MailLogonDialog", *this};
    CBoolProperty mailResolveName{"MailResolveName", *this};
    CMailProperty mailAvailable{"MailAvailable", *this, mailLogonDialog};
    CStringProperty mailRecipientCheck{"MailRecipientCheck", *this, "1"};
    CLaterProperty mailSecurity{"MailSecurity", *this};
    CLaterProperty mailSecurityCAFile{"MailSecurityCAFile", *this};
    CLaterProperty mailAuthMechanism{"MailAuthMechanism", *this};
    CLaterProperty mailCharset{"MailCharset", *this};
    CReportProperty mailDeliveryReport{"MailDeliveryReport", *this};
    CLaterProperty mailProgressMemoryAddress{"MailProgressMemoryAddress", *this};
    CLaterProperty mailTimeout{"MailTimeout", *this};
};

struct CLiveMailProperties : CMailProperties<CSeparatedStringProperty>
{
    CLiveMailProperties() : CMailProperties(nullptr, 0) {}
};

struct CDefaultMailProperties : CMailProperties<CStringProperty>
{
    CDefaultMailProperties() : CMailProperties("25", 1) {}
};
