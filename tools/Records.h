// Which discoveries the service knows.

#pragma once

#include "discovery/DiscData.h"

#include <DiscoveryServiceC.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace tqdiscoctl
{

class Connection;

// What is asked for. Names are patterns.
struct Selection
{
  std::string subject = "*";
  std::string authority = "*";
  std::string typeName; // as the user wrote it, empty for all
  bool filterData = false;
  bool anyType = false; // of filter data, too, when no type is named
  std::string master;   // the host whose service is asked, empty for the configuration's master
};

// --subject, --authority, --type and --filter-data.
void addSelectionOptions(CLI::App& command, Selection& selection);

// Makes the type of its name, false after telling the user that there is no
// such type. Filter data without a type is looked for where explorers store it,
// unless it may be of any.
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
  // Who has it, as the service said; the records of one host share it. What a master that
  // the selection names says of places is its own name for itself, which need not be one that
  // can be reached from here: such records are read from where they were listed.
  struct Source
  {
    std::string host;
    std::string service;
    std::string master;       // that listed it, as Selection has it
    std::string ownName = {}; // as that one calls itself
  };
  std::shared_ptr<Source const> source;
  // As the service sent them: a request for the collection sends them back.
  Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryQuery queryType{};
  Quillon::Tessarine::Ozf::DiscoverySvc::Remote::CollAttributes attributes{};
  // Stored with the master, which was told so by another host that has the
  // explorer: the announcement itself, listed under type remotepull alone.
  bool announcement = false;

  // Nothing is kept open for a record: there may be a hundred thousand.
  Quillon::Tessarine::Ozf::AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>
  open() const;

  bool onDemand() const noexcept { return discovered.isZero() && !announcement; }

  // On demand, and known to the master from an announcement that it read at its
  // start. Under the type that the record then has the master gives out the
  // announcement, not the collection.
  bool restored() const noexcept;
};

// By subject, authority and type. A type takes in what was announced under it
// and restored. An exit code: EXIT_DONE also when nothing matched; EXIT_PARTLY,
// with the records that there are, when others may be missing; that one and any
// other after telling the user. quiet: without telling. At most 64 MiB of records
// are taken, some 300,000 with names of the usual length: a service that lists
// more is a failure. Nothing is read ahead, a page is held besides. why gets what
// the user is told, or would be, of EXIT_FAILED.
int queryRecords(Selection const& selection, std::vector<Record>& records, bool quiet = false,
                 std::string* why = nullptr);

// Where records go as they come; false when no more of them are taken, which is
// a failure then.
using RecordSink = std::function<bool(Record)>;

// As queryRecords, without keeping any: they are passed on one by one, in no
// order.
int visitRecords(Selection const& selection, RecordSink const& take, bool quiet = false,
                 std::string* why = nullptr);

// The same over a connection, which may be one to several masters: those are asked side by
// side, each for as long as one of them may take, and each record carries the name of its
// master. Of the same names and type the one that was found last comes first. A master that does
// not give its list is told, is missing from then on (Masters.h), and makes it EXIT_PARTLY;
// records of it that visitRecords has passed on by then stay passed on. take is called by one
// thread at a time.
int queryRecords(Connection const& connection, Selection const& selection,
                 std::vector<Record>& records, bool quiet = false, std::string* why = nullptr);
int visitRecords(Connection const& connection, Selection const& selection, RecordSink const& take,
                 bool quiet = false);

// Whether a comes before b in a list of several masters.
bool isListedBefore(Record const& a, Record const& b);

// The master that listed the record; empty where only one is asked.
std::string const& masterOf(Record const& record);

// The subject, with that master behind it: "web7 (backup1)".
std::string nameWithMaster(Record const& record);

// Tells the user that discoveries may be missing.
void complainIncomplete();

// Why queryRecords failed when nothing more is known.
inline constexpr char NOT_QUERIED[] = "the service could not be queried; --verbose shows why";

// Whether a query that ended so has records to show, if any match.
bool isListed(int queryResult);

// The exit code of a command that came to that one with the records of a query
// that ended so.
int withMissing(int queryResult, int exitCode);

// Opens the connection and queries over it, as commands begin that list what
// the service knows.
int openAndQuery(Connection& connection, Selection const& selection, std::vector<Record>& records);

// What the host of an explorer told the master about it.
struct Announcement
{
  std::string host;
  std::string service;
  Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type;
};

// The announcement behind a collection on demand; nothing when there is none,
// as of the master's own explorers, or when it cannot be read.
std::optional<Announcement> announcementOf(Record const& record);

// The record's collection as the service on that host has it under that type.
Quillon::Tessarine::Ozf::AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>
elsewhere(Record const& record, Announcement const& place);

// The collection on demand of the record's names that the service on that host has
// itself, which it gives out whatever else is registered there. Not every version
// of the service has a way to ask for it.
Quillon::Tessarine::Ozf::AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery>
ownCollection(Record const& record, Announcement const& place);

// The service that listed the record, for elsewhere.
Announcement masterAs(Record const& record,
                      Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType type);

// Whether the service answers for a collection on demand when this one is
// asked for: it looks at names alone, and of two matches it gives neither. So
// what is stored beside a collection on demand cannot be read. The records are in
// the order of queryRecords.
bool isShadowed(Record const& record, std::vector<Record> const& records);

// "2m 5s", "on demand".
std::string formatAgeOf(Record const& record, Quillon::Tessarine::Ozf::OzfObjTime const& now);
std::string formatExpiryOf(Record const& record, Quillon::Tessarine::Ozf::OzfObjTime const& now);

// With the master where the selection named one.
nlohmann::json toJson(Record const& record);

// "nothing matches ...", with what to try next.
void complainNothing(Selection const& selection);

} // namespace tqdiscoctl
