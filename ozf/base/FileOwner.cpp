#include "ozf/base/FileOwner.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Quillon::Tessarine::Ozf
{

bool isOnlyOurs(std::string const& path, struct stat const& status, std::string& reason)
{
  if (status.st_uid != 0 && status.st_uid != geteuid())
    reason = path + " belongs to user " + std::to_string(status.st_uid) +
             ", not to root or the running user";
  else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    reason = path + " may be written to by others than its owner";
  else
    return true;
  return false;
}

} // namespace Quillon::Tessarine::Ozf
