// The user that a script runs as.

#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace Quillon::Tessarine::Ozf::Scripts
{

struct RunUser
{
  bool changes = false; // else all below is of no use: the process's own
  uid_t id = 0;
  gid_t group = 0;
  std::vector<gid_t> groups;
};

// The user of that name, with all groups; this process's own for an empty name. False
// with the reason when there is none, or when this process cannot become that one.
// Blocks for as long as the system's user database takes.
bool findRunUser(std::string const& name, RunUser& user, std::string& reason);

} // namespace Quillon::Tessarine::Ozf::Scripts
