// Sends with libcurl: a MIME upload with its own base64 encoder, or an upload of the mail as it is composed
// and encoded already, mapped into memory; everything else at its defaults. Within one connection libcurl
// keeps its TCP connection too; the other libraries open one for each send.
#include "harness.h"

#include <cstdio>
#include <optional>
#include <string_view>

#include <curl/curl.h>

#include "mappedfile.h"

namespace {

class CurlPeer : public Peer
{
public:
    explicit CurlPeer(const Mail& mail) : m_mail(mail), m_url(mail.tls.empty() ? "smtp://" : "smtps://")
    {
        if (!mail.protocol.empty()) {
            m_composed.emplace(mail.composedFile);
        }
        m_url.append(kServer).append(":").append(mail.port);
        if (mail.textInMemory) {
            m_text = ReadWholeFile(mail.textFile);
        }
    }

    bool Connect() override
    {
        m_easy = curl_easy_init();
        return m_easy != nullptr;
    }

    bool Send() override
    {
        curl_mime* const mime = m_composed ? nullptr : MakeMime();
        curl_slist* const header = m_composed ? nullptr : MakeHeader();
        curl_slist* recipients = nullptr;
        for (const std::string& address : Recipients(m_mail)) {
            recipients = curl_slist_append(recipients, address.c_str());
        }
        curl_easy_setopt(m_easy, CURLOPT_URL, m_url.c_str());
        curl_easy_setopt(m_easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(m_easy, CURLOPT_MAIL_FROM, kSender);
        curl_easy_setopt(m_easy, CURLOPT_MAIL_RCPT, recipients);
        if (m_composed) {
            m_rest = m_composed->View();
            curl_easy_setopt(m_easy, CURLOPT_READFUNCTION, &CurlPeer::Read);
            curl_easy_setopt(m_easy, CURLOPT_READDATA, this);
        } else {
            curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, header);
            curl_easy_setopt(m_easy, CURLOPT_MIMEPOST, mime);
        }
        if (!m_mail.tls.empty()) {
            curl_easy_setopt(m_easy, CURLOPT_CAINFO, m_mail.tls.c_str());
        }
        curl_easy_setopt(m_easy, CURLOPT_UPLOAD, 1L);
        const CURLcode result = curl_easy_perform(m_easy);
        if (!m_composed) {
            curl_easy_setopt(m_easy, CURLOPT_MIMEPOST, nullptr);
        }
        curl_slist_free_all(recipients);
        curl_slist_free_all(header);
        curl_mime_free(mime);
        if (result != CURLE_OK) {
            std::fprintf(stderr, "curl_easy_perform: %s\n", curl_easy_strerror(result));
        }
        return result == CURLE_OK;
    }

    bool Disconnect() override
    {
        curl_easy_cleanup(m_easy);
        return true;
    }

private:
    static std::size_t Read(char* room, std::size_t size, std::size_t count, void* self)
    {
        std::string_view& rest = static_cast<CurlPeer*>(self)->m_rest;
        const std::size_t taken = rest.copy(room, size * count);
        rest.remove_prefix(taken);
        return taken;
    }

    static curl_slist* MakeHeader()
    {
        curl_slist* header = nullptr;
        for (const std::string& line :
             {std::string("From: ") + kSender, std::string("To: ") + kRecipient,
              std::string("Subject: ") + kSubject, std::string("X-User-Agent: ") + kUserAgent,
              "Message-Id: <" + MakeMessageId() + ">"}) {
            header = curl_slist_append(header, line.c_str());
        }
        return header;
    }

    curl_mime* MakeMime()
    {
        curl_mime* const mime = curl_mime_init(m_easy);
        curl_mimepart* const text = curl_mime_addpart(mime);
        if (m_mail.textInMemory) {
            curl_mime_data(text, m_text.data(), m_text.size());
        } else {
            curl_mime_filedata(text, m_mail.textFile.c_str());
            curl_mime_filename(text, nullptr);
        }
        curl_mime_type(text, "text/plain; charset=ISO-8859-1");
        if (!m_mail.attachmentFile.empty()) {
            curl_mimepart* const attachment = curl_mime_addpart(mime);
            curl_mime_filedata(attachment, m_mail.attachmentFile.c_str());
            curl_mime_type(attachment, "application/octet-stream");
            curl_mime_encoder(attachment, "base64");
        }
        return mime;
    }

    Mail m_mail;
    std::string m_text;
    std::string m_url;
    std::optional<MappedFile> m_composed;
    std::string_view m_rest; // of it, not yet uploaded
    CURL* m_easy = nullptr;
};

} // namespace

std::unique_ptr<Peer> MakePeer(const Mail& mail)
{
    static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
    return initialized == CURLE_OK ? std::make_unique<CurlPeer>(mail) : nullptr;
}
