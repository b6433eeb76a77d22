// Which discoveries the service knows.

#pragma once

#include "discovery/DiscData.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

// What is asked for. Names are patterns.
struct Selection
{
  std::string subject = "*";
  std::string authority = "*";
  std::string typeName; // as the user wrote it, empty for all
  bool filterData = false;
};

// --subject, --authority, --type and --filter-data.
void addSelectionOptions(CLI::App& command, Selection& selection);

// Makes the type of its name, false after telling the user that there is no
// such type. Filter data without a type is looked for where explorers store it.
bool selectedType(Selection const& selection,
                  Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType& type);

struct Record
{
  std::string subject;
  std::string authority;
  Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type{};
  // Both are zero when the collection is produced only when it is asked for.
  Quillon::Tessarine::Ozf::OzfObjTime discovered;
  Quillon::Tessarine::Ozf::OzfObjTime expires;
  Quillon::Tessarine::Ozf::AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>
      discovery;

  bool onDemand() const noexcept { return discovered.isZero(); }
};

// By subject, authority and type. An exit code: EXIT_DONE also when nothing
// matched; any other after telling the user. quiet: without telling.
int queryRecords(Selection const& selection, std::vector<Record>& records, bool quiet = false);

// The same explorer's collection, asked of the host that announced it to the
// master; null when none did, or when its announcement cannot be read.
Quillon::Tessarine::Ozf::AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>
atOwningHost(Record const& record);

// Whether the service answers for a collection on demand when this one is
// asked for: it looks at names alone, and of two matches it gives neither. So
// what is stored beside a collection on demand cannot be read.
bool isShadowed(Record const& record, std::vector<Record> const& records);

// "2m 5s", "on demand".
std::string formatAgeOf(Record const& record, Quillon::Tessarine::Ozf::OzfObjTime const& now);
std::string formatExpiryOf(Record const& record, Quillon::Tessarine::Ozf::OzfObjTime const& now);

nlohmann::json toJson(Record const& record);

// "nothing matches ...", with what to try next.
void complainNothing(Selection const& selection);

} // namespace tqdiscoctl
