#include "tools/ServiceStates.h"

#include "tools/Connection.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Hosts.h"
#include "tools/Output.h"

#include "ozf/base/MetadataConverter.h"

#include <algorithm>
#include <iterator>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char SERVICE_KIND[] = "service";
constexpr char LIMIT_KIND[] = "limit";
constexpr char CLONE_KIND[] = "clone";

// What services tell is kept until all is known: up to so many bytes.
constexpr std::size_t MOST_HELD = std::size_t(64) << 20;

// The results of explorers that are in order.
constexpr char const* WELL[] = {"-", "success", "none found", "data of higher priority exists",
                                "not run"};

void sortIn(ServiceState& state, Item item)
{
  std::string const kind = fact(item, "Kind");
  if (kind == SERVICE_KIND)
    state.service = std::move(item);
  else
    (kind == LIMIT_KIND   ? state.limits
     : kind == CLONE_KIND ? state.clones
                          : state.explorers)
        .push_back(std::move(item));
}

} // namespace

std::string fact(Item const& item, char const* name)
{
  std::string const* const value = item.find(name);
  return value == nullptr ? "-" : shown(*value);
}

OzfObjTime timeOf(Item const& item, char const* name)
{
  OzfObjTime time;
  if (std::string const* const value = item.find(name))
    MetadataConverter::convert(*value, time, false);
  return time;
}

bool hasFailed(Item const& explorer)
{
  std::string const result = fact(explorer, "LastResult");
  return std::find(std::begin(WELL), std::end(WELL), result) == std::end(WELL);
}

std::size_t countFailed(ServiceState const& state)
{
  std::size_t count = 0;
  for (Item const& explorer : state.explorers)
    count += hasFailed(explorer) ? 1 : 0;
  return count;
}

ServiceState readState(Record const& record, std::size_t mostBytes)
{
  ServiceState state;
  state.record = record;
  state.complete = readCollection(record, OzfQuery(),
                                  [&](Item item)
                                  {
                                    state.bytes += sizeOf(item);
                                    if (state.bytes <= mostBytes)
                                      sortIn(state, std::move(item));
                                  })
                       .complete &&
                   state.bytes <= mostBytes;
  return state;
}

int readStates(Connection const& connection, std::string const& subject,
               std::vector<ServiceState>& states)
{
  Selection selection;
  selection.subject = subject;
  selection.authority = SERVICE_AUTHORITY;
  selection.typeName = formatType(AT_TQUCLIENT);
  std::vector<Record> records;
  int const result = queryRecords(connection, selection, records);
  if (!isListed(result))
    return result;
  Progress progress("Reading what the services tell");
  std::size_t held = 0;
  for (Record const& record : records)
  {
    bool const full = held >= MOST_HELD;
    if (full || connection.clock().nearlyOver())
    {
      progress.clear();
      complain((full ? "this is more than one status takes: what " : "out of time: what ") +
               counted(records.size() - states.size(), "service tells", "services tell") +
               " was not read" + (full ? "" : "; --timeout allows more"));
      for (std::size_t i = states.size(); i < records.size(); ++i)
        states.emplace_back().record = records[i];
      return EXIT_PARTLY;
    }
    if (connection.isMissing(record))
    {
      states.emplace_back().record = record;
      continue;
    }
    progress.update(std::to_string(states.size()) + " of " + std::to_string(records.size()));
    states.push_back(readState(record, MOST_HELD - held));
    held += states.back().bytes;
    if (connection.several() && !states.back().complete)
      connection.answers(record); // or else those to come would have to be waited for
  }
  return result;
}

} // namespace tqdiscoctl
