// Collections as JSON, item by item.

#pragma once

#include "discovery/FilterDescription.h"
#include "tools/Collections.h"

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

namespace tqdiscoctl
{

// The descriptions of facts, asked for once for each authority, and again where
// they are too many (KnownDescriptions).
class Descriptions
{
public:
  // Good until the next call.
  Quillon::Tessarine::Ozf::OzfQuery const& of(Record const& record);

private:
  Quillon::Tessarine::Ozf::DiscoverySvc::KnownDescriptions m_known;
};

// By name, values as valueToJson has them; of a name that repeats an array.
nlohmann::json factsObject(Item::Facts const& facts,
                           Quillon::Tessarine::Ozf::OzfQuery const& description);

// asList: objects with "name" and "value", both strings, in the item's order.
nlohmann::json toJson(Item const& item, Quillon::Tessarine::Ozf::OzfQuery const& description,
                      bool asList);

// Prints collections, each as soon as its items come, so that none has to be
// in memory. A collection is begun by its first item, or by its end.
class CollectionPrinter
{
public:
  // array: in one document; else each would be a document of its own. os must outlive it.
  CollectionPrinter(std::ostream& os, bool array, bool asList)
      : m_os(os), m_array(array), m_asList(asList)
  {
  }

  void item(Record const& record, Item const& item);

  // Prints the rest of the collection, and what it has if it was not begun.
  void end(Record const& record, Collection const& collection);

  // After the last collection.
  void finish();

  bool begun() const noexcept { return m_items != 0; }

private:
  void begin(Record const& record);
  void member(char const* name, nlohmann::json const& value, char const* behind = "");

  std::ostream& m_os;
  bool const m_array;
  bool const m_asList;
  Descriptions m_descriptions;
  std::set<std::string> m_facts; // of this collection
  std::size_t m_collections = 0;
  std::size_t m_items = 0; // of this collection
  bool m_open = false;
};

} // namespace tqdiscoctl
