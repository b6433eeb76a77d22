// What has been, and how long it is kept.

#pragma once

#include "publish/Database.h"
#include "publish/Stop.h"

#include <iosfwd>
#include <string>
#include <vector>

namespace Publish
{

// Removes history, and discoveries that are gone, of more than so many days ago, and payloads that
// nothing names any more; in small transactions, until nothing is left or the stop is requested.
void removeOld(Database& database, long days, Stop const& stop);

// Marks the masters stale that are not of these.
void markUnfollowed(Database& database, std::vector<std::string> const& masters);

// For people: what the database has, and what it takes for each 10,000 hosts and a day, by what
// has come within the last day.
void printUsage(Database& database, long days, std::ostream& os);

} // namespace Publish
