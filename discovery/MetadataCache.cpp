#include "discovery/MetadataCache.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"

#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <new>
#include <string>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr std::size_t SHARDS = 32;
constexpr std::size_t FIRST_BUCKETS = 16;

// What the C library adds to a piece of memory.
constexpr std::size_t ALLOCATION_OVERHEAD = sizeof(std::size_t);

char* append(char* to, std::string_view text) { return std::copy(text.begin(), text.end(), to); }

} // namespace

// One document and what it says, in one piece of memory: 100,000 records fit into
// the default size. Behind it come the text, the names, and the file keys unless
// they are the names.
struct MetadataCache::Entry
{
  Entry* next;
  std::size_t hash;
  OzfObjTime discoveryTime;
  OzfObjTime expiresTime;
  std::uint32_t textSize;
  std::uint32_t authoritySize;
  std::uint32_t authorityKeySize; // 0: the key is the name
  std::uint32_t subjectSize;
  std::uint32_t subjectKeySize; // likewise
  std::uint32_t signatureSize;
  std::uint8_t authorityType;
  std::uint8_t collectionType;
  std::uint8_t storage;
  bool hasAttributes;

  static Entry* make(std::size_t hash, std::string_view text, Discovery const& discovery);
  void destroy() noexcept { ::operator delete(this); }

  bool isOf(std::size_t otherHash, std::string_view other) const
  {
    return hash == otherHash && text() == other;
  }
  std::size_t memory() { return ::malloc_usable_size(this) + ALLOCATION_OVERHEAD; }
  void give(Discovery& discovery) const;

private:
  char const* characters() const { return reinterpret_cast<char const*>(this + 1); }
  std::string_view text() const { return {characters(), textSize}; }
};

MetadataCache::Entry* MetadataCache::Entry::make(std::size_t hash, std::string_view text,
                                                 Discovery const& discovery)
{
  auto const size32 = [](std::string_view part) { return static_cast<std::uint32_t>(part.size()); };
  // The key that has to be kept beside the name.
  auto const ownKey = [](OzfString const& name, OzfString const& key)
  { return name == key ? std::string_view() : std::string_view(key.str()); };
  Authority const& authority = *discovery.getAuthority();
  Subject const& subject = *discovery.getSubject();
  CollectionAttributes const* const attributes = discovery.getAttributes();
  std::string_view const authorityName = authority.getName().str();
  std::string_view const authorityKey = ownKey(authority.getName(), authority.getFileKey());
  std::string_view const subjectName = subject.getName().str();
  std::string_view const subjectKey = ownKey(subject.getName(), subject.getFileKey());
  std::string_view const signature =
      attributes != nullptr ? std::string_view(attributes->getSignature().str()) : "";

  void* const memory =
      ::operator new(sizeof(Entry) + text.size() + authorityName.size() + authorityKey.size() +
                         subjectName.size() + subjectKey.size() + signature.size(),
                     std::nothrow);
  if (memory == nullptr)
    return nullptr;
  auto* const entry = new (memory) Entry{};
  entry->hash = hash;
  entry->textSize = size32(text);
  entry->authoritySize = size32(authorityName);
  entry->authorityKeySize = size32(authorityKey);
  entry->subjectSize = size32(subjectName);
  entry->subjectKeySize = size32(subjectKey);
  entry->signatureSize = size32(signature);
  entry->authorityType = static_cast<std::uint8_t>(authority.getType());
  entry->hasAttributes = attributes != nullptr;
  if (attributes != nullptr)
  {
    entry->collectionType = static_cast<std::uint8_t>(attributes->getType());
    entry->storage = static_cast<std::uint8_t>(attributes->getStorage());
    entry->discoveryTime = attributes->getDiscoveryTime();
    entry->expiresTime = attributes->getExpiresTime();
  }
  char* to = reinterpret_cast<char*>(entry + 1);
  for (std::string_view const part :
       {text, authorityName, authorityKey, subjectName, subjectKey, signature})
    to = append(to, part);
  return entry;
}

void MetadataCache::Entry::give(Discovery& discovery) const
{
  char const* from = characters() + textSize;
  auto const take = [&from](std::size_t size)
  {
    std::string_view const part(from, size);
    from += size;
    return part;
  };
  auto const takeName = [&take](std::size_t size, std::size_t keySize)
  {
    std::string_view const name = take(size);
    return EncodedName{name, keySize == 0 ? name : take(keySize)};
  };
  discovery.setAuthority(new Authority(takeName(authoritySize, authorityKeySize),
                                       static_cast<AuthorityType>(authorityType)));
  discovery.setSubject(new Subject(takeName(subjectSize, subjectKeySize)));
  if (!hasAttributes)
    return;
  auto attributes = std::make_unique<CollectionAttributes>(
      static_cast<CollectionType>(collectionType), static_cast<CollectionStorage>(storage),
      discoveryTime, OzfObjTime(), 0);
  attributes->setExpiresTime(expiresTime);
  if (signatureSize != 0)
    attributes->setSignature(OzfString(std::string(take(signatureSize))));
  discovery.setAttributes(attributes.release());
}

struct MetadataCache::Shard
{
  std::mutex mutex;
  std::vector<Entry*> buckets; // as many as a power of two, or none
  std::size_t entries = 0;
  std::size_t held = 0; // bytes, the buckets' among them
  std::size_t most = 0;
  std::uint64_t chance = 88172645463325252; // never 0

  ~Shard() { shrinkTo(0); }

  void shrinkTo(std::size_t bytes)
  {
    while (entries > 0 && held > bytes)
      dropOne();
    if (held <= bytes)
      return;
    held = 0;
    buckets = {};
  }

  Entry*& bucketOf(std::size_t hash)
  {
    // The low bits chose the shard.
    return buckets[hash / SHARDS & (buckets.size() - 1)];
  }

  Entry* find(std::size_t hash, std::string_view text)
  {
    if (buckets.empty())
      return nullptr;
    Entry* entry = bucketOf(hash);
    while (entry != nullptr && !entry->isOf(hash, text))
      entry = entry->next;
    return entry;
  }

  void grow()
  {
    std::vector<Entry*> const old = std::exchange(
        buckets, std::vector<Entry*>(buckets.empty() ? FIRST_BUCKETS : 2 * buckets.size()));
    held += (buckets.size() - old.size()) * sizeof(void*);
    for (Entry* first : old)
      while (first != nullptr)
        link(std::exchange(first, first->next));
  }

  void link(Entry* entry) { entry->next = std::exchange(bucketOf(entry->hash), entry); }

  void dropOne()
  {
    chance ^= chance << 13;
    chance ^= chance >> 7;
    chance ^= chance << 17;
    std::size_t at = chance & (buckets.size() - 1);
    while (buckets[at] == nullptr)
      at = (at + 1) & (buckets.size() - 1);
    Entry* const entry = std::exchange(buckets[at], buckets[at]->next);
    held -= entry->memory();
    --entries;
    entry->destroy();
  }
};

MetadataCache::MetadataCache(std::size_t most) : m_shards(new Shard[SHARDS]) { limit(most); }

MetadataCache::~MetadataCache() = default;

MetadataCache::Shard& MetadataCache::shardOf(std::size_t hash) const
{
  return m_shards[hash % SHARDS];
}

void MetadataCache::limit(std::size_t most)
{
  for (std::size_t i = 0; i < SHARDS; ++i)
  {
    std::lock_guard const lock(m_shards[i].mutex);
    m_shards[i].most = most / SHARDS;
    m_shards[i].shrinkTo(m_shards[i].most);
  }
}

bool MetadataCache::find(std::string_view text, Discovery& discovery)
{
  std::size_t const hash = std::hash<std::string_view>{}(text);
  Shard& shard = shardOf(hash);
  std::lock_guard const lock(shard.mutex);
  if (shard.most == 0)
    return false;
  Entry const* const entry = shard.find(hash, text);
  if (entry != nullptr)
    entry->give(discovery);
  return entry != nullptr;
}

void MetadataCache::keep(std::string_view text, Discovery const& discovery) noexcept
{
  if (!discovery.readsAlike() || discovery.getAuthority()->getStatusMsg() != nullptr ||
      discovery.getSubject()->getStatusMsg() != nullptr)
    return;
  std::size_t const hash = std::hash<std::string_view>{}(text);
  Shard& shard = shardOf(hash);
  std::lock_guard const lock(shard.mutex);
  if (shard.most <= text.size() + sizeof(Entry) || shard.find(hash, text) != nullptr)
    return;
  try
  {
    if (shard.entries >= shard.buckets.size())
      shard.grow();
  }
  catch (std::bad_alloc const&)
  {
    return; // the next reader parses it once more
  }
  Entry* const entry = Entry::make(hash, text, discovery);
  if (entry == nullptr)
    return;
  std::size_t const memory = entry->memory();
  while (shard.entries > 0 && shard.held + memory > shard.most)
    shard.dropOne();
  if (shard.held + memory > shard.most)
  {
    entry->destroy();
    return;
  }
  shard.link(entry);
  ++shard.entries;
  shard.held += memory;
}

std::size_t MetadataCache::held() const
{
  std::size_t bytes = 0;
  for (std::size_t i = 0; i < SHARDS; ++i)
  {
    std::lock_guard const lock(m_shards[i].mutex);
    bytes += m_shards[i].held;
  }
  return bytes;
}

MetadataCache& getMetadataCache()
{
  // Never destroyed: records may outlive every static object.
  static auto& cache =
      *new MetadataCache(static_cast<std::size_t>(configKey("METADATA_CACHE").number));
  return cache;
}

void configureMetadataCache()
{
  long const most = getConfiguration()->number(configKey("METADATA_CACHE"));
  getMetadataCache().limit(static_cast<std::size_t>(most));
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
