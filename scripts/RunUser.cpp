#include "scripts/RunUser.h"

#include "ozf/base/SystemError.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf::Scripts
{

bool findRunUser(std::string const& name, RunUser& user, std::string& reason)
{
  user = {};
  if (name.empty())
    return true;
  std::vector<char> space(16384);
  passwd entry{};
  passwd* found = nullptr;
  int const error = getpwnam_r(name.c_str(), &entry, space.data(), space.size(), &found);
  if (found == nullptr)
  {
    reason = "its user \"" + name + "\" cannot be found" +
             (error == 0 ? std::string() : ": " + errorText(error));
    return false;
  }
  if (entry.pw_uid == geteuid())
    return true;
  if (geteuid() != 0)
  {
    reason = "it is to run as \"" + name + "\", which only root can have it do";
    return false;
  }
  user.changes = true;
  user.id = entry.pw_uid;
  user.group = entry.pw_gid;
  int count = 0;
  getgrouplist(name.c_str(), user.group, nullptr, &count);
  user.groups.resize(static_cast<std::size_t>(count));
  if (getgrouplist(name.c_str(), user.group, user.groups.data(), &count) < 0)
  {
    reason = "the groups of its user \"" + name + "\" cannot be found";
    return false;
  }
  user.groups.resize(static_cast<std::size_t>(count));
  return true;
}

} // namespace Quillon::Tessarine::Ozf::Scripts
