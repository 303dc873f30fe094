#include "src/mailservice.h"

#include "src-baselib/report.h"

void CMailService::SetTextContentType(const CEString& fileName, CMail& mail)
{
    if (fileName.IsEmpty()) {
        return;
    }
    const std::size_t dot = fileName.View().rfind('.');
    if (dot == std::string_view::npos) {
        mail.Text().SetContentType("text/plain");
        Trace(TraceLevel::Normal,
              "Property m_MailtextContentType value set \"text/plain\" no extension found at filename %s",
              fileName.CStr());
        return;
    }
    constexpr std::size_t kComparedExtension = 4; // so .html counts as .htm
    const bool html = fileName.View().substr(dot, kComparedExtension) == ".htm";
    const char* const type = html ? "text/html" : "text/plain";
    mail.Text().SetContentType(type);
    Trace(TraceLevel::Normal, "Property m_MailtextContentType value set \"%s\" at filename %s", type,
          fileName.CStr());
}
