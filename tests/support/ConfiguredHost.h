// A host with a product root and a configuration of its own.

#pragma once

#include "ozf/config/Configuration.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <cstdlib>
#include <filesystem>

class ConfiguredHost : public testing::Test
{
protected:
  ConfiguredHost()
  {
    std::filesystem::create_directories(m_root / "etc");
    setenv("TESSARINE_ROOT", m_root.path().c_str(), 1);
  }
  ~ConfiguredHost() override
  {
    unsetenv("TESSARINE_ROOT");
    LogCapture const quiet;
    Quillon::Tessarine::Ozf::reloadConfiguration();
  }

  std::string file() const { return m_root / "etc/tq.conf"; }

  void configure(std::string const& text)
  {
    writeText(file(), text);
    ASSERT_TRUE(Quillon::Tessarine::Ozf::reloadConfiguration());
  }

  TempDir m_root;
};
