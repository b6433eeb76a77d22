// Many discoveries for a database, without what the library does for each.

#pragma once

#include "tests/support/Records.h"

#include <filesystem>
#include <string>
#include <utility>

namespace records
{

// Puts both files of a discovery where they belong, and there over others: without flushing them,
// which takes its time where there are many, and whoever holds locks on what is there.
inline void place(std::string const& directory, std::string const& authority,
                  std::string const& subject, std::string const& payload)
{
  auto const discovery = make(directory, authority, subject, 1);
  std::string const base = std::to_string(static_cast<int>(AT_TQUCLIENT)) + ' ' +
                           discovery->getAuthority()->getFileKey().str() + ' ' +
                           discovery->getSubject()->getFileKey().str();
  std::string const aside = directory + "/../" + base;
  for (auto const& [ending, text] :
       {std::pair<char const*, std::string>{".dat", payload}, {".xml", xmlOf(*discovery)}})
  {
    writeText(aside, text);
    std::filesystem::rename(aside, directory + '/' + base + ending);
  }
}

} // namespace records
