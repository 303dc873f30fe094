#include "src-baselib/propertyset.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

#include "src-baselib/property.h"
#include "src-baselib/report.h"

namespace {
constexpr std::uint32_t kBuckets = 127;
constexpr std::int32_t kNodesPerBlock = 10;
constexpr std::uint32_t kLoadPercent = 75;
constexpr std::uint32_t kPrimes[] = {17,   37,    79,    163,   331,   673,    1361,   2729,
                                     5471, 10949, 21911, 43853, 87719, 175447, 350899, 701819};
} // namespace

// Stands here, so that properties know nothing of what the set is.
CProperty::CProperty(const char* name, CPropertySet& owner) : m_name(name)
{
    owner.Add(name, this);
}

struct CPropertySet::Block
{
    std::unique_ptr<Block> next;
    std::unique_ptr<Node[]> nodes;
};

CPropertySet::CPropertySet()
    : m_bucketCount(kPrimes[0]), m_blockSize(kNodesPerBlock), m_loadPercent(kLoadPercent), m_autoGrow(true)
{
    MakeBuckets(kBuckets);
}

CPropertySet::~CPropertySet()
{
    while (m_blocks) { // one by one: a long list must not be destroyed by recursion
        m_blocks = std::move(m_blocks->next);
    }
}

void CPropertySet::MakeBuckets(std::uint32_t count)
{
    m_buckets = std::make_unique<Node*[]>(count);
    m_bucketCount = count;
}

std::uint32_t CPropertySet::Hash(std::string_view name)
{
    std::uint32_t hash = 0;
    for (const char c : name) {
        hash =
            hash * 33 + static_cast<std::uint32_t>(static_cast<signed char>(c)); // bytes above 127 subtract
    }
    return hash;
}

CPropertySet::Node* CPropertySet::FindNode(std::string_view name) const
{
    if (!m_buckets) {
        return nullptr;
    }
    Node* node = m_buckets[Hash(name) % m_bucketCount];
    while (node != nullptr && node->key.View() != name) {
        node = node->next;
    }
    return node;
}

CPropertySet::Node* CPropertySet::TakeFreeNode()
{
    if (m_freeNodes == nullptr) {
        auto block = std::make_unique<Block>();
        block->nodes = std::make_unique<Node[]>(static_cast<std::size_t>(m_blockSize));
        for (std::int32_t i = m_blockSize; i > 0;
             --i) { // the last one first, so that the first comes out first
            Node& node = block->nodes[static_cast<std::size_t>(i - 1)];
            node.next = std::exchange(m_freeNodes, &node);
        }
        block->next = std::move(m_blocks);
        m_blocks = std::move(block);
    }
    return std::exchange(m_freeNodes, m_freeNodes->next);
}

void CPropertySet::Grow()
{
    const std::uint64_t target = std::uint64_t{m_entryCount} * 100 / m_loadPercent + 1;
    const auto* const prime = std::find_if(std::begin(kPrimes), std::end(kPrimes),
                                           [target](std::uint32_t p) { return p > target; });
    const std::uint32_t count = prime == std::end(kPrimes) ? kPrimes[std::size(kPrimes) - 1] : *prime;

    std::unique_ptr<Node*[]> buckets(new (std::nothrow) Node*[count]());
    if (!buckets) {
        return; // the chains get longer; the next entry tries again
    }
    const std::unique_ptr<Node*[]> old = std::exchange(m_buckets, std::move(buckets));
    const std::uint32_t oldCount = std::exchange(m_bucketCount, count);
    for (std::uint32_t i = 0; i < oldCount; ++i) {
        for (Node* node = old[i]; node != nullptr;) {
            Node* const next = node->next;
            node->bucket = Hash(node->key.View()) % count;
            node->next = std::exchange(m_buckets[node->bucket], node);
            node = next;
        }
    }
}

void CPropertySet::Add(const char* name, CProperty* property)
{
    const std::string_view key = Key(name);
    if (!m_buckets) {
        MakeBuckets(m_bucketCount);
    }
    if (Node* const found = FindNode(key)) {
        found->value = property;
        return;
    }
    CEString ownedKey(key); // what may fail comes before the table changes
    Node* const node = TakeFreeNode();
    ++m_entryCount;
    node->key = std::move(ownedKey);
    node->value = property;
    node->bucket = Hash(key) % m_bucketCount;
    node->next = std::exchange(m_buckets[node->bucket], node);
    if (m_autoGrow && m_entryCount > m_loadPercent * m_bucketCount / 100) {
        Grow();
    }
}

CProperty* CPropertySet::Find(const char* name) const
{
    const Node* const node = FindNode(Key(name));
    return node == nullptr ? nullptr : node->value;
}

void CPropertySet::CopyValuesFrom(const CPropertySet& source)
{
    for (std::uint32_t i = 0; i < source.m_bucketCount; ++i) {
        for (const Node* node = source.m_buckets[i]; node != nullptr; node = node->next) {
            if (const Node* const own = FindNode(node->key.View())) {
                own->value->Assign(*node->value);
            }
        }
    }
}

void CPropertySet::GetNames(CEStringArray& out) const
{
    for (std::uint32_t i = 0; i < m_bucketCount; ++i) {
        for (const Node* node = m_buckets[i]; node != nullptr; node = node->next) {
            out.Add(node->key);
        }
    }
    out.Sort();
}

void CPropertySet::Dump() const
{
    if (!IsTraceActive()) {
        return;
    }
    CEStringArray names;
    GetNames(names);
    std::vector<const CProperty*> shown;
    for (std::int32_t i = 0; i < names.GetCount(); ++i) {
        const CProperty* const property = Find(names.GetAt(i).CStr());
        if (property->IsShown()) {
            shown.push_back(property);
        }
    }
    ::Trace(TraceLevel::Normal, "propertyset hashtablesize %d hashtableentries %d",
            static_cast<int>(m_bucketCount), static_cast<int>(shown.size()));
    for (const CProperty* const property : shown) {
        property->Trace();
    }
    ::Trace(TraceLevel::Normal, "End of propertyset %p", static_cast<const void*>(this));
}
