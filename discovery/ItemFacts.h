// The facts of an item, as its explorer wrote them.

#pragma once

#include "discovery/ResearcherItems.h"

#include <string>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Names and values in document order; of nested elements the name is "Outer.Inner". A
// name may be there several times.
using ItemFacts = std::vector<std::pair<std::string, std::string>>;

// An item that makes more of them is refused: each has the names of all elements
// around it.
inline constexpr std::size_t MOST_OF_FACTS = std::size_t(16) << 20; // bytes

// The memory that one takes, in bytes.
TQ_EXPORT std::size_t sizeOfFact(std::string const& name, std::string const& value);

// The elements of the item's explorer data that hold only text, as facts. What is not made
// of elements, or of too many, is in text as it was captured, and then there are no facts.
TQ_EXPORT void readItemFacts(DiscoveredItem const& item, ItemFacts& facts, std::string& text);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
