// Scripts of a test's own.

#pragma once

#include "tests/support/TempDir.h"

#include <filesystem>
#include <string>

namespace tqtest
{

// Writes an executable file there, which only its owner may write to; returns its path.
inline std::string writeScript(std::string const& path, std::string const& text)
{
  writeText(path, text);
  std::filesystem::permissions(path, std::filesystem::perms(0755));
  return path;
}

// The same for the shell.
inline std::string writeShellScript(std::string const& path, std::string const& commands)
{
  return writeScript(path, "#!/bin/sh\n" + commands + "\n");
}

} // namespace tqtest
