// The system's text types: CEString, a byte string that owns its zero-terminated buffer, CEStringArray, an
// owning list of them, and CBString, a raw growable buffer. A null buffer and a length of 0 are both the
// empty string. Memory exhaustion throws std::bad_alloc and leaves the object as it was.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "src-baselib/pointerarray.h"

class CEString
{
public:
    // Results of Format are cut at this many characters.
    static constexpr std::size_t kFormatLimit = 2047;

    CEString() = default;
    CEString(const char* text) { Assign(text); } // implicit: texts are given as literals
    explicit CEString(std::string_view text) { Assign(text); }
    CEString(const CEString& other) { Assign(other.View()); }
    CEString(CEString&& other) noexcept;
    CEString& operator=(const CEString& other);
    CEString& operator=(CEString&& other) noexcept;
    CEString& operator=(const char* text);

    virtual ~CEString() = default;
    // Empties the string and frees its buffer.
    virtual void Clear();

    // A null or empty text empties the string but keeps the buffer.
    void Assign(const char* text) { Assign(text == nullptr ? std::string_view() : std::string_view(text)); }
    void Assign(std::string_view text);
    // A null or empty text changes nothing; the string's own buffer may be given.
    void Append(const char* text) { Append(text == nullptr ? std::string_view() : std::string_view(text)); }
    void Append(std::string_view text);

    // printf-style; an empty result frees the buffer.
    [[gnu::format(printf, 2, 3)]] void Format(const char* format, ...);

    // The first `count` characters; all of them when there are not more, none for a negative count.
    [[nodiscard]] CEString Left(std::int64_t count) const;
    // `count` characters from `start`, as many as there are.
    [[nodiscard]] CEString Mid(std::int64_t start, std::int64_t count) const;
    // Makes room for `count` characters (negative: 16 more than there is room for now). False when there is
    // no memory; the string is then unchanged.
    [[nodiscard]] bool Reserve(std::int64_t count);

    // Base64 text of `length` bytes without line breaks; a negative length takes a zero-terminated text.
    static void EncodeBase64(const void* data, std::int64_t length, CEString& result);

    [[nodiscard]] bool IsEmpty() const { return m_length == 0; }
    [[nodiscard]] std::size_t GetLength() const { return static_cast<std::size_t>(m_length); }
    [[nodiscard]] std::size_t GetCapacity() const { return static_cast<std::size_t>(m_capacity); }
    // Never null.
    [[nodiscard]] const char* CStr() const { return m_buffer ? m_buffer.get() : m_short; }
    [[nodiscard]] std::string_view View() const { return {CStr(), GetLength()}; }

    friend bool operator==(const CEString& left, const CEString& right)
    {
        return left.View() == right.View();
    }
    friend bool operator==(const CEString& left, const char* right) { return left.View() == right; }

private:
    static constexpr std::size_t kShort = 35;

    void ReserveOrThrow(std::size_t count);
    [[nodiscard]] char* Data() { return m_buffer ? m_buffer.get() : m_short; }

    std::unique_ptr<char[]> m_buffer; // null: the text stands in m_short
    char m_short[kShort + 1] = "";    // most texts are addresses, names and numbers
    std::uint64_t m_capacity = 0;     // characters usable without the terminator
    std::uint64_t m_length = 0;
};

class CEStringArray : public COwnedArray<CEString>
{
public:
    using Compare = int (*)(const CEString& left, const CEString& right);

    // Deletes every element.
    virtual void RemoveAll() { DeleteElements(); }
    // Bytes compared as unsigned, an empty text before any other.
    [[nodiscard]] virtual Compare GetCompareFunction() const;

    void Add(const CEString& text) { COwnedArray::Add(std::make_unique<CEString>(text)); }
    void RemoveAt(std::int32_t index) { Take(index).reset(); }
    // The text at `index`; an empty one for an index out of range.
    [[nodiscard]] const CEString& GetAt(std::int32_t index) const;
    void Sort();
};

// A raw buffer with length and capacity; the bytes of an owned text-cache chunk.
class CBString
{
public:
    // Makes room for exactly `capacity` bytes or more; what is stored is kept.
    void Reserve(std::size_t capacity);
    void SetLength(std::size_t length) { m_length = length; }
    [[nodiscard]] char* Data() const { return m_data.get(); }
    [[nodiscard]] std::size_t GetLength() const { return m_length; }
    [[nodiscard]] std::size_t GetCapacity() const { return m_capacity; }

private:
    std::unique_ptr<char[]> m_data;
    std::size_t m_length = 0;
    std::size_t m_capacity = 0;
};
