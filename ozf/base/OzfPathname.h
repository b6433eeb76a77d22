// File names: joining, splitting, making directories.

#pragma once

#include "ozf/base/Export.h"

#include <string>
#include <sys/types.h>

namespace Quillon::Tessarine::Ozf
{

// A path name. Plain text; nothing is looked up in the file system.
class OZF_EXPORT OzfPathname
{
public:
  OzfPathname() = default;
  explicit OzfPathname(std::string path) : m_path(std::move(path)) {}

  // directory and last component joined by exactly one '/'. An empty name
  // gives the directory itself; an empty directory gives the name.
  static OzfPathname makeFilename(std::string const& directory, std::string const& name);

  std::string const& str() const noexcept { return m_path; }
  char const* c_str() const noexcept { return m_path.c_str(); }
  bool empty() const noexcept { return m_path.empty(); }

  // Everything before the last '/' ("." when there is none, "/" for the root).
  std::string directory() const;

  // Everything after the last '/'.
  std::string filename() const;

  bool operator==(OzfPathname const&) const = default;

private:
  std::string m_path;
};

// Creates path and all missing parents with the permissions mode (as limited
// by the umask), and flushes the folders in which it made some, so that a power
// cut leaves what was made. Returns 0 when path is a directory afterwards, else
// the errno value of what failed: ENOTDIR when a part is something else. A flush
// that fails is told when all is made.
OZF_EXPORT int mkdirpath(std::string const& path, mode_t mode);

} // namespace Quillon::Tessarine::Ozf
