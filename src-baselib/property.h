// Typed named values: what the host sets and reads as text. A property registers itself in its set when it is
// built and is owned by the object that also holds the set. The order of the virtual operations is part of
// the interface that sibling components share.
#pragma once

#include <cstdint>

#include "src-baselib/cestring.h"

class CPropertySet;

// Decimal conversion by atol rules; a null pointer is traced and gives 0.
[[nodiscard]] std::int32_t atoi_vel(const char* text);

class CProperty
{
public:
    // Registers the new property in `owner`, which must outlive it.
    CProperty(const char* name, CPropertySet& owner);
    CProperty(const CProperty&) = delete;
    CProperty& operator=(const CProperty&) = delete;

    virtual ~CProperty() = default;
    virtual void Trace() const = 0;
    virtual void FormatNameValue(CEString& out) const = 0;
    virtual void FormatValue(CEString& out) const = 0;
    [[nodiscard]] virtual bool IsEmpty() const = 0;
    // The host's read. Errors 2 (not readable), 47 (buffer too small), 29 (null buffer).
    virtual bool GetValue(void* buffer, std::int32_t size) = 0;
    // The host's write, by text for every kind of property. Error 3 (not writable).
    virtual bool SetValue(const char* text);
    // `value` is the text of a text property, or points to the 32-bit int of a boolean one; null empties it.
    virtual bool SetString(const void* value) = 0;
    virtual void Assign(const CProperty& other) = 0;
    // A property of the same kind, name and value, registered in `newOwner`. The caller owns it.
    [[nodiscard]] virtual CProperty* Clone(CPropertySet& newOwner) const = 0;
    [[nodiscard]] virtual const CEString& GetString() const { return m_name; }
    [[nodiscard]] virtual std::int32_t ReservedQuery() const { return 0; }
    [[nodiscard]] virtual std::int32_t GetLong() const { return 0; }
    [[nodiscard]] virtual double GetDouble() const { return 0.0; }
    [[nodiscard]] virtual std::int32_t GetBool() const { return 0; }
    // The setters below test no access.
    virtual void SetRaw(const char* text);
    virtual void ReservedSetA();
    virtual void SetLong(std::int32_t value);
    virtual void ReservedSetB();
    virtual void SetBool(std::int32_t value);
    [[nodiscard]] virtual std::int32_t ReservedCheck() const { return 1; }
    [[nodiscard]] virtual CEString GetAuxString() const { return {}; }

    [[nodiscard]] const CEString& GetName() const { return m_name; }
    // False: the dump leaves it out, and does not count it.
    [[nodiscard]] bool IsShown() const
    {
        return m_dumped == Dumped::Always || (m_dumped == Dumped::WhenSet && !IsEmpty());
    }

protected:
    // What reads the dump may not know those that came later: they stand there while they have a value, or
    // not at all.
    enum class Dumped : std::uint8_t
    {
        Always,
        WhenSet,
        Never
    };
    void SetDumped(Dumped dumped) { m_dumped = dumped; }
    [[nodiscard]] bool IsReadable() const { return (m_access & kReadable) != 0; }
    [[nodiscard]] bool IsWritable() const { return (m_access & kWritable) != 0; }
    // Each raises its error and returns false when the access is missing.
    [[nodiscard]] bool CheckReadable() const;
    [[nodiscard]] bool CheckWritable() const;
    void SetAccess(std::int32_t access) { m_access = access; }

private:
    static constexpr std::int32_t kReadable = 1;
    static constexpr std::int32_t kWritable = 2;

    CEString m_name;
    std::int32_t m_access = kReadable | kWritable;
    Dumped m_dumped = Dumped::Always;
};

class CStringProperty : public CProperty
{
public:
    CStringProperty(const char* name, CPropertySet& owner, const char* value = nullptr);

    void Trace() const override;
    void FormatNameValue(CEString& out) const override;
    void FormatValue(CEString& out) const override;
    [[nodiscard]] bool IsEmpty() const override { return m_value.IsEmpty(); }
    // Size 0 with a buffer writes the needed size as decimal text instead: kept for old hosts.
    bool GetValue(void* buffer, std::int32_t size) override;
    bool SetValue(const char* text) override { return SetString(text); }
    bool SetString(const void* value) override;
    void Assign(const CProperty& other) override { SetRaw(other.GetString().CStr()); }
    [[nodiscard]] CProperty* Clone(CPropertySet& newOwner) const override;
    [[nodiscard]] const CEString& GetString() const override { return m_value; }
    [[nodiscard]] std::int32_t GetLong() const override;
    // Yes, ja, true, 7x are true; no, nein, false, 0 and nothing are false; the rest is traced and false
    // unless it begins with a number.
    [[nodiscard]] std::int32_t GetBool() const override;
    void SetRaw(const char* text) override { m_value = text; }
    void SetLong(std::int32_t value) override;
    void SetBool(std::int32_t value) override { SetLong(value); }

    virtual bool SetInt64(std::int64_t value);
    [[nodiscard]] virtual std::int64_t GetInt64() const;
    [[nodiscard]] virtual const char* GetCString() const { return GetString().CStr(); }
    [[nodiscard]] virtual bool IsTrue() const { return GetBool() == 1; }
    [[nodiscard]] virtual std::int32_t GetInt() const { return GetLong(); }
    [[nodiscard]] virtual std::uint32_t GetUInt() const { return static_cast<std::uint32_t>(GetLong()); }

private:
    CEString m_value;
};

// A text that is also kept split at ";". Nothing is trimmed; an empty part between two separators counts, one
// after the last does not.
class CSeparatedStringProperty : public CStringProperty
{
public:
    CSeparatedStringProperty(const char* name, CPropertySet& owner, const char* value = nullptr);

    [[nodiscard]] CProperty* Clone(CPropertySet& newOwner) const override;
    void SetRaw(const char* text) override;

    // An index out of range gives an empty text, and 0 for the numbers.
    [[nodiscard]] virtual const CEString& GetPart(std::int32_t index) const { return m_parts.GetAt(index); }
    [[nodiscard]] virtual std::int32_t GetPartLong(std::int32_t index) const;
    [[nodiscard]] virtual std::int64_t GetPartInt64(std::int32_t index) const;
    [[nodiscard]] virtual std::int32_t GetPartCount() const { return m_parts.GetCount(); }

private:
    CEStringArray m_parts;
};

// An integer truth value. Any number the host sets is kept and reported; any other text is 0, "TRUE"
// included.
class CBoolProperty : public CProperty
{
public:
    CBoolProperty(const char* name, CPropertySet& owner, std::int32_t value = 0);

    void Trace() const override;
    void FormatNameValue(CEString& out) const override;
    void FormatValue(CEString& out) const override;
    [[nodiscard]] bool IsEmpty() const override { return m_value == 0; }
    // Writes the 32-bit integer in machine byte order.
    bool GetValue(void* buffer, std::int32_t size) override;
    bool SetValue(const char* text) override;
    bool SetString(const void* value) override
    {
        return SetFromPointer(static_cast<const std::int32_t*>(value));
    }
    void Assign(const CProperty& other) override { SetBool(other.GetBool()); }
    [[nodiscard]] CProperty* Clone(CPropertySet& newOwner) const override;
    [[nodiscard]] std::int32_t GetBool() const override { return m_value; }
    void SetBool(std::int32_t value) override { m_value = value; }

    bool SetFromPointer(const std::int32_t* value);

private:
    std::int32_t m_value;
};

// Splits `text` at ";" by the rules of the list properties.
void SplitList(std::string_view text, CEStringArray& parts);
