// The files of the page.

#pragma once

#include "web/Answer.h"

#include <map>
#include <string>

namespace Web
{

// Read once, so that nothing that is asked for can lead to another file. Immutable then.
class StaticFiles
{
public:
  // All regular files below the folder, 16 MiB at most; hidden ones and links are left out.
  // False, with the reason, when something cannot be read.
  bool read(std::string const& folder, std::string& error);

  // By its path below the folder; of one that ends in '/', and of none, index.html there. Null
  // when there is none.
  Answer const* find(std::string const& path) const;

  std::size_t count() const noexcept { return m_files.size(); }

private:
  std::map<std::string, Answer> m_files;
};

} // namespace Web
