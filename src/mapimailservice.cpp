#include "src/mapimailservice.h"

#include "src-baselib/report.h"

namespace {
constexpr int kLibraryNotLoaded = 60;
constexpr int kMailNotAvailable = 701;
} // namespace

CMapiMailService::CMapiMailService(bool /*tryLogonDialog*/, bool /*resolveNames*/)
{
    Logon();
}

bool CMapiMailService::BindLibrary()
{
    RaiseError(kLibraryNotLoaded);
    Trace(TraceLevel::Normal, "Mapi dll not found");
    return false;
}

bool CMapiMailService::Logon()
{
    if (!BindLibrary()) {
        m_state = MapiState::NotAvailable;
        return false;
    }
    return true;
}

bool CMapiMailService::Connect(const CMailConnectionInfo& /*info*/)
{
    return true;
}

bool CMapiMailService::Send(CMail& /*mail*/)
{
    static constexpr const char* kText = "Mapi Mail not available / inactive.";
    Trace(TraceLevel::Error, "Error: %s", kText);
    RaiseError(kMailNotAvailable, kText);
    return false;
}
