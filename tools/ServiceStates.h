// What services tell of themselves, read from the discoveries that they make of it.

#pragma once

#include "tools/Collections.h"

#include <cstddef>
#include <string>
#include <vector>

namespace tqdiscoctl
{

class Connection;

struct ServiceState
{
  Record record;
  Item service;
  std::vector<Item> explorers;
  std::vector<Item> limits; // that peers met
  std::vector<Item> clones; // names under which several machines report
  std::size_t bytes = 0;    // that all these take
  bool complete = false;
};

// That of one record of SERVICE_AUTHORITY, up to so many bytes; not complete when it could
// not be read to its end. Blocks as readCollection does.
ServiceState readState(Record const& record, std::size_t mostBytes = std::size_t(16) << 20);

// Those of the hosts that match, in the order of their names; what could not be read any
// more, for want of time or room, is not complete. An exit code, as queryRecords has
// them; EXIT_PARTLY after telling the user. Blocks as that and readCollection do.
int readStates(Connection const& connection, std::string const& subject,
               std::vector<ServiceState>& states);

// The fact as it may be shown, "-" when there is none.
std::string fact(Item const& item, char const* name);

// Zero when there is none, or no time.
Quillon::Tessarine::Ozf::OzfObjTime timeOf(Item const& item, char const* name);

// Whether what came of an explorer's last run is not in order.
bool hasFailed(Item const& explorer);
std::size_t countFailed(ServiceState const& state);

} // namespace tqdiscoctl
