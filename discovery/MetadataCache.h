// What metadata documents say, kept so that no text is parsed twice.

#pragma once

#include "discovery/DiscData.h"

#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What a document says depends on its text alone, so it is looked up by the whole
// text: whoever read a file under its lock can be told nothing that is out of
// date. What is handed out are copies, which their holders may change.
//
// Only documents whose every reading is like the first are kept: not those that
// cost a log line or that leave their expiry to the moment of reading, nor
// those with status messages. When it is full, whichever entry chance picks makes
// room: a walk over more records than there is room for finds a part of them,
// where the least recently used one would always be the next to be needed.
//
// Any thread.
class TQ_EXPORT MetadataCache
{
public:
  // Takes no more than that many bytes of the process's memory; 0 keeps nothing.
  explicit MetadataCache(std::size_t most);
  ~MetadataCache();
  MetadataCache(MetadataCache const&) = delete;
  MetadataCache& operator=(MetadataCache const&) = delete;

  // From now on; what is held beyond it goes at once.
  void limit(std::size_t most);

  // Gives the discovery, which has no parts, those that the text says. False,
  // and nothing is done, when the text is not known.
  bool find(std::string_view text, Discovery& discovery);

  // Remembers what a discovery without other parts has just read from the text,
  // if that is such a document and there is memory.
  void keep(std::string_view text, Discovery const& discovery) noexcept;

  std::size_t held() const; // bytes

private:
  struct Entry;
  struct Shard;

  Shard& shardOf(std::size_t hash) const;

  std::unique_ptr<Shard[]> m_shards;
};

// The process's one, of the default size at first.
TQ_EXPORT MetadataCache& getMetadataCache();

// Gives it METADATA_CACHE bytes, for a service that starts.
TQ_EXPORT void configureMetadataCache();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
