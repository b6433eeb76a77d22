// A product root with library folders of its own, and resolvers for what the
// fixture libraries hold.

#pragma once

#include "ozf/plugin/SymbolResolver.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <sys/stat.h>

class PluginRoot : public testing::Test
{
protected:
  PluginRoot()
  {
    std::filesystem::create_directories(plugins());
    for (auto const& folder : {m_root / "lib", plugins()})
      chmod(folder.c_str(), 0755);
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
  }
  ~PluginRoot() override { unsetenv("TESSARINE_ROOT"); }

  std::string plugins() const { return m_root / "lib/plugins"; }

  // Copies the fixture library lib<fixture>.so to path.
  static void copyFixture(std::string const& fixture, std::string const& path)
  {
    std::filesystem::copy_file(std::string(TQ_FIXTURE_DIR) + "/lib" + fixture + ".so", path);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }

  // The library at path, as a plug-in of the root, of the fixture's own name.
  std::string addPlugin(std::string const& fixture) const
  {
    std::string const path = plugins() + "/lib" + fixture + ".so";
    copyFixture(fixture, path);
    return path;
  }

  static bool isLoaded(std::string const& path)
  {
    // The system's loader would wait for a pipe's writer.
    if (!std::filesystem::is_regular_file(path))
      return false;
    void* const handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr)
      dlclose(handle);
    return handle != nullptr;
  }

  TempDir m_root;
};

class FixtureResolver : public Quillon::Tessarine::Ozf::SymbolResolver
{
public:
  explicit FixtureResolver(std::string const& symbol = "FixtureEntry", bool required = true)
  {
    m_definitions.push_back({symbol, required});
  }
  void add(std::string const& symbol, bool required)
  {
    m_definitions.push_back({symbol, required});
  }
  void* address(std::size_t index = 0) const
  {
    return std::next(definitions().begin(), static_cast<std::ptrdiff_t>(index))->address;
  }
  int call() const { return reinterpret_cast<int (*)()>(address())(); }
};
