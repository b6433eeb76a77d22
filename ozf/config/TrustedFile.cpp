#include "ozf/config/TrustedFile.h"

#include "ozf/base/FileOwner.h"
#include "ozf/config/ProductRoot.h"

#include <sys/stat.h>

#include <filesystem>

namespace Quillon::Tessarine::Ozf
{

bool othersMayChange(std::string const& path, std::string& reason)
{
  std::error_code error;
  auto const given = std::filesystem::absolute(path, error);
  auto const real = std::filesystem::canonical(given, error);
  if (error)
    return false;
  struct stat service = {};
  bool const isServiceKnown = stat((getProductRoot() + "/db").c_str(), &service) == 0;
  // The slash has a folder that is a link followed.
  for (auto const& one : {given, real, given.parent_path() / "", real.parent_path() / ""})
  {
    struct stat status = {};
    if (lstat(one.c_str(), &status) != 0)
      continue;
    if (isServiceKnown && status.st_uid == service.st_uid)
      status.st_uid = 0;
    // A link's own mode says nothing.
    if (S_ISLNK(status.st_mode) || (S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0))
      status.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
    if (!isOnlyOurs(one.string(), status, reason))
      return true;
  }
  return false;
}

} // namespace Quillon::Tessarine::Ozf
