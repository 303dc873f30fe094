#include "src/propmail.h"

#include <algorithm>
#include <string_view>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"
#include "src/mapimailservice.h"

namespace {
constexpr std::int32_t kSmallestBuffer = 15;

std::string_view StateText(MapiState state)
{
    switch (state) {
    case MapiState::NotAvailable:
        return "MailNone";
    case MapiState::LoggedOn:
        return "MailActive";
    default:
        return "MailDeactivated";
    }
}
} // namespace

bool CMailProperty::GetValue(void* buffer, std::int32_t size)
{
    if (size < kSmallestBuffer) {
        RaiseError(codes::kBufferTooSmall);
        return false;
    }
    if (buffer == nullptr) {
        RaiseError(codes::kInvalidArgument);
        return false;
    }
    const auto answer = [=](MapiState state) {
        const std::string_view text = StateText(state).substr(0, static_cast<std::size_t>(size - 1));
        *std::copy(text.begin(), text.end(), static_cast<char*>(buffer)) = '\0';
    };
    answer(MapiState::NotTried); // as long as the client has not answered, and without memory to ask it
    const CMapiMailService service(m_logonDialog.GetBool() != 0, false);
    answer(service.GetState());
    return true;
}

void CPasswordProperty::Trace() const
{
    if (m_protocol.GetString() == "SUBMISSION" && !IsEmpty()) {
        ::Trace(TraceLevel::Normal, "Property %s = (set)", GetName().CStr());
    } else {
        CStringProperty::Trace();
    }
}

bool CAnswerProperty::SetString(const void* /*value*/)
{
    if (!CheckWritable()) {
        return false;
    }
    return false; // found out, never set
}
