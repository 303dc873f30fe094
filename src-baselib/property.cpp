#include "src-baselib/property.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "src-baselib/errorcodes.h"
#include "src-baselib/report.h"

namespace {
constexpr std::size_t kLongestTraced = 450;
constexpr char kSeparator = ';';

char UpperAscii(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::int32_t ToLong(const char* text)
{
    constexpr long kLowest = std::numeric_limits<std::int32_t>::min();
    constexpr long kHighest = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::clamp(std::strtol(text, nullptr, 10), kLowest, kHighest));
}
} // namespace

std::int32_t atoi_vel(const char* text)
{
    if (text == nullptr) {
        ::Trace(TraceLevel::Normal, "atoi_vel called with NULL");
        return 0;
    }
    return ToLong(text);
}

void SplitList(std::string_view text, CEStringArray& parts)
{
    parts.RemoveAll();
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(kSeparator), text.size());
        parts.Add(CEString(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

bool CProperty::SetValue(const char* /*text*/)
{
    return false;
}

void CProperty::SetRaw(const char* /*text*/) {}

void CProperty::ReservedSetA() {}

void CProperty::SetLong(std::int32_t /*value*/) {}

void CProperty::ReservedSetB() {}

void CProperty::SetBool(std::int32_t /*value*/) {}

bool CProperty::CheckReadable() const
{
    if (!IsReadable()) {
        RaiseError(codes::kCannotBeRead);
    }
    return IsReadable();
}

bool CProperty::CheckWritable() const
{
    if (!IsWritable()) {
        RaiseError(codes::kNotWritable);
    }
    return IsWritable();
}

CStringProperty::CStringProperty(const char* name, CPropertySet& owner, const char* value)
    : CProperty(name, owner), m_value(value)
{
}

void CStringProperty::Trace() const
{
    const auto orNull = [](const CEString& text) { return text.IsEmpty() ? "(null)" : text.CStr(); };
    if (!IsReadable()) {
        ::Trace(TraceLevel::Normal, "Protected Property = No Access");
    } else if (m_value.GetLength() >= kLongestTraced) {
        ::Trace(TraceLevel::Normal, "Property %s = %s...", orNull(GetName()),
                m_value.Left(kLongestTraced).CStr());
    } else {
        ::Trace(TraceLevel::Normal, "Property %s = %s", orNull(GetName()), orNull(m_value));
    }
}

void CStringProperty::FormatNameValue(CEString& out) const
{
    out = GetName();
    out.Append(" ");
    out.Append(m_value.View());
}

void CStringProperty::FormatValue(CEString& out) const
{
    out = m_value;
}

bool CStringProperty::GetValue(void* buffer, std::int32_t size)
{
    if (!CheckReadable()) {
        return false;
    }
    auto* const out = static_cast<char*>(buffer);
    if (size == 0 && out != nullptr) {
        CEString needed;
        needed.Format("%u", static_cast<unsigned>(m_value.GetLength() + 1));
        std::memcpy(out, needed.CStr(), needed.GetLength() + 1);
        ::Trace(TraceLevel::Normal,
                "deprecated Feature used: Stringproperties with GetProperty and length 0");
        return true;
    }
    if (size < 0 || static_cast<std::size_t>(size) < m_value.GetLength() + 1) {
        RaiseError(codes::kBufferTooSmall);
        return false;
    }
    if (out == nullptr) {
        RaiseError(codes::kInvalidArgument);
        return false;
    }
    std::memcpy(out, m_value.CStr(), m_value.GetLength() + 1);
    out[size - 1] = '\0';
    return true;
}

bool CStringProperty::SetString(const void* value)
{
    if (!CheckWritable()) {
        return false;
    }
    SetRaw(static_cast<const char*>(value));
    return true;
}

CProperty* CStringProperty::Clone(CPropertySet& newOwner) const
{
    return std::make_unique<CStringProperty>(GetName().CStr(), newOwner, m_value.CStr()).release();
}

std::int32_t CStringProperty::GetLong() const
{
    return ToLong(m_value.CStr());
}

std::int32_t CStringProperty::GetBool() const
{
    CEString upper;
    for (const char c : m_value.View()) {
        const char letter[] = {UpperAscii(c), '\0'};
        upper.Append(letter);
    }
    const char first = *upper.CStr();
    if ((first >= '1' && first <= '9') || first == 'J' || first == 'Y' || upper == "TRUE") {
        return 1;
    }
    if (first == '\0' || first == 'N' || first == '0' || upper == "FALSE") {
        return 0;
    }
    ::Trace(TraceLevel::Warning, "Property '%s' with invalid boolean value '%s'!", GetName().CStr(),
            m_value.CStr());
    return GetLong() != 0 ? 1 : 0;
}

void CStringProperty::SetLong(std::int32_t value)
{
    CEString text;
    text.Format("%ld", static_cast<long>(value));
    SetRaw(text.CStr());
}

bool CStringProperty::SetInt64(std::int64_t value)
{
    if (!CheckWritable()) {
        return false;
    }
    CEString text;
    text.Format("%" PRId64, value);
    SetRaw(text.CStr());
    return true;
}

std::int64_t CStringProperty::GetInt64() const
{
    return std::strtoll(m_value.CStr(), nullptr, 10);
}

CSeparatedStringProperty::CSeparatedStringProperty(const char* name, CPropertySet& owner, const char* value)
    : CStringProperty(name, owner, value)
{
    SplitList(GetString().View(), m_parts);
}

CProperty* CSeparatedStringProperty::Clone(CPropertySet& newOwner) const
{
    return std::make_unique<CSeparatedStringProperty>(GetName().CStr(), newOwner, GetString().CStr())
        .release();
}

void CSeparatedStringProperty::SetRaw(const char* text)
{
    CEStringArray parts; // what may fail comes before the value changes
    SplitList(text == nullptr ? "" : text, parts);
    CStringProperty::SetRaw(text);
    m_parts.Swap(parts);
}

std::int32_t CSeparatedStringProperty::GetPartLong(std::int32_t index) const
{
    return ToLong(GetPart(index).CStr());
}

std::int64_t CSeparatedStringProperty::GetPartInt64(std::int32_t index) const
{
    return std::strtoll(GetPart(index).CStr(), nullptr, 10);
}

CBoolProperty::CBoolProperty(const char* name, CPropertySet& owner, std::int32_t value)
    : CProperty(name, owner), m_value(value)
{
}

void CBoolProperty::Trace() const
{
    ::Trace(TraceLevel::Normal, "Property %s = %s", GetName().CStr(), m_value != 0 ? "TRUE" : "FALSE");
}

void CBoolProperty::FormatNameValue(CEString& out) const
{
    out.Format("%s %d", GetName().CStr(), m_value);
}

void CBoolProperty::FormatValue(CEString& out) const
{
    out.Format("%d", m_value);
}

bool CBoolProperty::GetValue(void* buffer, std::int32_t size)
{
    if (!CheckReadable()) {
        return false;
    }
    if (size < static_cast<std::int32_t>(sizeof m_value)) {
        RaiseError(codes::kBufferTooSmall);
        return false;
    }
    if (buffer == nullptr) {
        RaiseError(codes::kInvalidArgument);
        return false;
    }
    std::memcpy(buffer, &m_value, sizeof m_value);
    return true;
}

bool CBoolProperty::SetValue(const char* text)
{
    const std::int32_t value = atoi_vel(text);
    return SetFromPointer(&value);
}

bool CBoolProperty::SetFromPointer(const std::int32_t* value)
{
    if (!CheckWritable()) {
        return false;
    }
    m_value = value == nullptr ? 0 : *value;
    return true;
}

CProperty* CBoolProperty::Clone(CPropertySet& newOwner) const
{
    return std::make_unique<CBoolProperty>(GetName().CStr(), newOwner, m_value).release();
}
