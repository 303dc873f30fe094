#include "src-baselib/ioelement.h"

#include "src-baselib/neverdestroyed.h"

namespace {
constinit CNeverDestroyed<CEString> g_noName;
} // namespace

void IOElement::SetNoCopy(bool /*noCopy*/) {}

void IOElement::SetAppend(bool /*append*/) {}

void IOElement::SetName(const char* /*name*/) {}

const CEString& IOElement::GetName() const
{
    return g_noName.Get();
}

bool IOElement::IsAvailable()
{
    return m_inner != nullptr && m_inner->IsAvailable();
}

void* IOElement::GetDirectPointer(std::int64_t /*offset*/, std::int32_t /*length*/)
{
    return nullptr;
}

bool IOElement::IsAtEnd()
{
    return m_inner != nullptr && m_inner->IsAtEnd();
}

bool IOElement::IsMarkAtEnd()
{
    return m_inner != nullptr && m_inner->IsMarkAtEnd();
}

bool IOElement::SeekBegin(std::int64_t /*offset*/)
{
    return false;
}

bool IOElement::SeekEnd(std::int64_t /*offset*/)
{
    return false;
}

bool IOElement::SeekCurrent(std::int64_t /*delta*/)
{
    return false;
}

std::int64_t IOElement::Tell()
{
    return 0;
}

bool IOElement::Close()
{
    return m_inner != nullptr && m_inner->Close();
}
