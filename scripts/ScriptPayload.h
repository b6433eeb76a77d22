// What is stored of a script's items.

#pragma once

#include "ozf/sync/AutoDereference.h"
#include "scripts/ScriptOutput.h"

#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::Scripts
{

// The payload: a document of discovered items (docs/payload.md). explorer is the
// authority's name; an item without a name gets the subject's.
std::string itemsDocument(std::string const& explorer, std::string const& subject,
                          std::vector<ScriptItem> const& items);

// What can be asked for: the facts that are described, as they are, and then those
// that were seen besides. A fact whose values are of several kinds is a text.
AutoDereference<OzfQuery> describeItems(std::vector<OzfQuery::Attribute> const& described,
                                        std::vector<ScriptItem> const& items);

// Whether every value reads as what its fact is described as; else mistake names the
// first that does not.
bool obeysDescription(std::vector<OzfQuery::Attribute> const& described,
                      std::vector<ScriptItem> const& items, std::string& mistake);

} // namespace Quillon::Tessarine::Ozf::Scripts
