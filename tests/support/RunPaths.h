// Where the programs and libraries of a tree look for libraries before the
// system's own places.

#pragma once

#include "tests/support/LiveService.h"

#include <elf.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace tqtest
{

// Whether it is something that the dynamic linker loads.
inline bool isLoadable(std::filesystem::path const& path)
{
  Elf64_Ehdr header = {};
  std::ifstream in(path, std::ios::binary);
  in.read(reinterpret_cast<char*>(&header), sizeof header);
  return in && std::equal(header.e_ident, header.e_ident + SELFMAG, ELFMAG) &&
         (header.e_type == ET_EXEC || header.e_type == ET_DYN);
}

// The run path's entries, an empty one included. None when there is no run path.
inline std::vector<std::string> runPathOf(std::string const& file)
{
  Outcome const outcome = runProgram("/usr/bin/readelf", {"-dW", file}, {{"LC_ALL", "C"}});
  EXPECT_EQ(outcome.exitCode, 0) << file << ":\n" << outcome.errors;
  std::vector<std::string> entries;
  std::istringstream lines(outcome.output);
  for (std::string line; std::getline(lines, line);)
  {
    if (line.find("(RUNPATH)") == std::string::npos && line.find("(RPATH)") == std::string::npos)
      continue;
    std::size_t const begin = line.find('[') + 1;
    std::string text = line.substr(begin, line.rfind(']') - begin) + ":";
    for (std::size_t end; (end = text.find(':')) != std::string::npos; text.erase(0, end + 1))
      entries.push_back(text.substr(0, end));
  }
  return entries;
}

// What is wrong with the run paths of all that is loadable below a folder, a
// line each: an entry that is empty, or that does not lead from the file's own
// folder to another below this one. files: how many there are.
inline std::string flawsOfRunPaths(std::filesystem::path const& folder, std::size_t& files)
{
  namespace fs = std::filesystem;
  std::string const origin = "$ORIGIN";
  std::string flaws;
  for (auto const& entry : fs::recursive_directory_iterator(folder))
  {
    if (!entry.is_regular_file() || entry.is_symlink() || !isLoadable(entry.path()))
      continue;
    ++files;
    for (std::string const& place : runPathOf(entry.path()))
    {
      bool const moves = place == origin || place.starts_with(origin + "/");
      std::string const target =
          (entry.path().parent_path() / ("." + place.substr(moves ? origin.size() : 0)))
              .lexically_normal();
      if (!moves || !(target + "/").starts_with(folder.string() + "/"))
        flaws += entry.path().string() + ": \"" + place + "\"\n";
    }
  }
  return flaws;
}

} // namespace tqtest
