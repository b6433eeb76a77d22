// What is in a discovery, read through the research API.

#pragma once

#include "discovery/ItemFacts.h"
#include "ozf/xml/OzfQuery.h"
#include "tools/FactTypes.h"
#include "tools/Records.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tqdiscoctl
{

struct Item
{
  struct Status
  {
    unsigned code;
    unsigned severity;
    std::string text;
  };
  using Facts = Quillon::Tessarine::Ozf::DiscoverySvc::ItemFacts;

  std::string name;
  std::optional<Status> status;
  std::string policy; // its name, empty when there is none
  Facts facts;        // in document order; of nested elements "Outer.Inner"
  // What the explorer wrote, when it is not made of elements, or when its facts
  // would take more than 16 MiB.
  std::string text;

  // Null when there is none of that name; letter case does not count.
  std::string const* find(std::string_view fact) const;
};

// The memory that it takes, in bytes.
std::size_t sizeOf(Item const& item);

struct Collection
{
  bool complete = false; // else it could not be read, or not to its end
  std::size_t count = 0; // of the items that answer the query
  std::vector<Item> items;
  std::set<std::string> factNames; // with a query: also of items that do not answer it
  std::vector<Quillon::Tessarine::Ozf::OzfQuery::Attribute> attributes; // of filter data
};

// Where items go as they are read.
using ItemSink = std::function<void(Item)>;

// Reads the collection; query (may be empty) is sent along, and is applied
// here to what was stored without regard to it. The text of the query has
// been checked. Blocks as long as the hosts concerned take.
Collection readCollection(Record const& record, Quillon::Tessarine::Ozf::OzfQuery const& query);

// The same with the items passed on one by one instead of kept.
Collection readCollection(Record const& record, Quillon::Tessarine::Ozf::OzfQuery const& query,
                          ItemSink const& take);

// Of bytes that were fetched. They must outlive the call.
Collection readCollection(Record const& record, std::string const& bytes, ItemSink const& take);

// What the service on that host has of the record's names by itself.
Collection readOwnCollection(Record const& record, Announcement const& place);

// The bytes of the collection; false when they cannot be had.
bool readBytes(Record const& record, std::string const& query, std::string& bytes);

// Whether they can be had to their end; none is kept.
bool hasReadableBytes(Record const& record);

// How the facts of an explorer are to be shown and what can be asked for: its
// description, as far as it stored one under the record's names, or beside a
// collection on demand under the authority's name with FILTER_DATA_SUFFIX.
// Without attributes when it stored none.
Quillon::Tessarine::Ozf::AutoDereference<Quillon::Tessarine::Ozf::OzfQuery>
describe(Record const& record);

} // namespace tqdiscoctl
