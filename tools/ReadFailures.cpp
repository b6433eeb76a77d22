#include "tools/ReadFailures.h"

#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <CLI/CLI.hpp>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

void addWhere(CLI::App& command, std::string& where)
{
  command
      .add_option("-w,--where", where,
                  "Only items that answer the query; \"tqdiscoctl filters\" tells what can be "
                  "asked for")
      ->type_name("QUERY");
}

bool parseWhere(std::string const& text, OzfQuery& query)
{
  if (query.setQuery(text) == OzfQuery::QUERY_OK)
    return true;
  complain(
      "the query cannot be understood: " + query.lastError(),
      {"  " + text, "A query looks like this: size > 10G and (type = ext4 or type like \"nfs*\")"});
  return false;
}

std::string titleOf(Record const& record)
{
  std::string const& master = masterOf(record);
  return "subject \"" + record.subject + "\", authority \"" + record.authority + "\" (" +
         formatType(record.type) + ")" + (master.empty() ? "" : " of master " + master);
}

void complainUnread(Record const& record, bool something)
{
  Selection selection;
  selection.subject = record.subject;
  selection.authority = record.authority;
  selection.master = masterOf(record);
  std::vector<Record> records;
  if (!something && isListed(queryRecords(selection, records, true)) && isShadowed(record, records))
  {
    complain("the collection of " + titleOf(record) +
             " cannot be read: the service gives the one on demand of the same names; "
             "\"tqdiscoctl db show\" reads it on the master itself");
    return;
  }
  complain(std::string(something ? "only a part of" : "nothing of") + " the collection of " +
           titleOf(record) + " could be read; --verbose shows why" +
           (record.onDemand() ? ". It is produced on demand by the host itself: is tqdisco "
                                "running there?"
                              : ""));
}

int complainNoItems(std::string const& where, QueryAnswer const& answer, bool quiet)
{
  if (where.find_first_not_of(" \t\r\n") != std::string::npos)
    return answer.complainNone(where, quiet);
  if (!quiet)
    complain("there are no items in what matches; \"tqdiscoctl show\" with --raw prints a payload "
             "as it is");
  return EXIT_NOTHING;
}

bool ReadFailures::add(Record const& record, bool something)
{
  Kind const kind = something           ? Kind::A_PART
                    : record.onDemand() ? Kind::NOTHING_ON_DEMAND
                                        : Kind::NOTHING_STORED;
  if (kind != m_kind)
    endRow();
  m_kind = kind;
  ++m_count;
  ++m_inRow;
  if (m_inRow <= TOLD_IN_FULL)
    complainUnread(record, something);
  if (m_inRow < MOST_IN_A_ROW)
    return true;
  endRow();
  complain("giving up after " + std::to_string(MOST_IN_A_ROW) +
           " such failures in a row; the rest was not tried");
  return false;
}

void ReadFailures::endRow()
{
  if (m_inRow > TOLD_IN_FULL)
    complain(counted(m_inRow - TOLD_IN_FULL, "more collection", "more collections") +
             " could not be read in the same way");
  m_inRow = 0;
}

} // namespace tqdiscoctl
