// A chained hash table from property names to properties. It owns its nodes and key copies, never the
// properties: they are members of the object that holds the set and register themselves. One thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "src-baselib/cestring.h"

class CProperty;

class CPropertySet
{
public:
    CPropertySet();
    CPropertySet(const CPropertySet&) = delete;
    CPropertySet& operator=(const CPropertySet&) = delete;
    ~CPropertySet();

    // Inserts the property, or replaces the one under the same name. A null name is stored as an empty one.
    void Add(const char* name, CProperty* property);
    [[nodiscard]] bool Contains(const char* name) const { return FindNode(Key(name)) != nullptr; }
    // The property under the name, or null.
    [[nodiscard]] CProperty* Find(const char* name) const;
    // Assigns every value of `source` to the property of the same name here, where there is one.
    void CopyValuesFrom(const CPropertySet& source);
    // Appends all names and sorts them by their bytes.
    void GetNames(CEStringArray& out) const;
    // Writes the whole set to the trace, in the order of names.
    void Dump() const;

    [[nodiscard]] std::uint32_t GetBucketCount() const { return m_bucketCount; }
    [[nodiscard]] std::uint32_t GetEntryCount() const { return m_entryCount; }

private:
    struct Node
    {
        Node* next = nullptr;
        std::uint32_t bucket = 0;
        CEString key;
        CProperty* value = nullptr; // not owned
    };
    struct Block;

    static std::string_view Key(const char* name) { return name == nullptr ? std::string_view() : name; }
    static std::uint32_t Hash(std::string_view name);
    [[nodiscard]] Node* FindNode(std::string_view name) const;
    Node* TakeFreeNode();
    void MakeBuckets(std::uint32_t count);
    void Grow();

    std::unique_ptr<Node*[]> m_buckets;
    std::uint32_t m_bucketCount;
    std::uint32_t m_entryCount = 0;
    Node* m_freeNodes = nullptr; // owned by their blocks
    std::unique_ptr<Block> m_blocks;
    std::int32_t m_blockSize;
    std::uint32_t m_loadPercent;
    bool m_autoGrow;
};
