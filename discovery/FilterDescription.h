// What can be asked about a subject.

#pragma once

#include "discovery/Export.h"
#include "ozf/sync/AutoDereference.h"
#include "ozf/xml/OzfQuery.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The most that the attributes of merged descriptions take, in bytes. An
// explorer describes a few dozen, in some kilobytes.
inline constexpr std::size_t MOST_DESCRIBED = std::size_t(16) << 20;

// Whether these can be merged into the description, whose attributes take that
// size, and stay within it; if so, size grows by what they will add.
TQ_EXPORT bool fitsDescription(OzfQuery const& description, std::size_t& size,
                               std::vector<OzfQuery::Attribute> const& attributes);

// The descriptions of all filter items that explorers stored as filter data,
// merged. Empty when there are none, or when they cannot be had. What is beyond
// MOST_DESCRIBED is left out, with a log line.
class TQ_EXPORT FilterDescription : public OzfQuery
{
public:
  // Both are name patterns ('*' is the wildcard), empty for all. Reads every
  // discovery that matches: blocks as getAuthSubIterator and its iterator do.
  FilterDescription(std::string const& authority, std::string const& subject);
  ~FilterDescription() override;

  // Whether descriptions may be missing: not every discovery could be listed, or
  // there were too many descriptions.
  bool isIncomplete() const noexcept { return m_incomplete; }

private:
  bool m_incomplete = false;
};

// Descriptions by authority, so that each is asked for once. Where they take more than
// MOST_DESCRIBED together, those before the last are forgotten. One thread at a time.
class TQ_EXPORT KnownDescriptions
{
public:
  // Null when it is not known. Good until the next keep.
  OzfQuery* find(std::string const& authority) const;

  // The description, which has kept to MOST_DESCRIBED by itself.
  void keep(std::string const& authority, AutoDereference<OzfQuery> description);

private:
  std::map<std::string, AutoDereference<OzfQuery>> m_known;
  std::size_t m_size = 0; // bytes, of all that are known
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
