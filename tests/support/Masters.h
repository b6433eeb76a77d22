// Two masters on one port, and tqdiscoctl on a host that is neither.

#pragma once

#include "tests/support/LiveService.h"

#include <nlohmann/json.hpp>

namespace tqtest
{

class TwoMasters
{
public:
  using Words = LiveService::Words;

  static constexpr char const* FIRST = "m1";
  static constexpr char const* SECOND = "m2";
  static constexpr char const* BOTH = "m1,m2";

  explicit TwoMasters(LiveService::Explorers explorers = LiveService::WITHOUT_EXPLORERS)
      : m_first(explorers, FIRST, "127.0.0.1"),
        m_second(explorers, SECOND, "127.0.0.2", m_first.port())
  {
    std::filesystem::create_directories(m_tools / "etc");
    configureTools();
  }

  // Of the host with tqdiscoctl, beside what leads to the masters.
  void configureTools(std::string const& more = "")
  {
    writeText(m_tools / "etc/tq.conf",
              "CLIENT_NAME = desk\nORB_PORT.DiscoveryService = " + std::to_string(m_first.port()) +
                  '\n' + addresses() + more);
  }

  // Lines that every host of theirs needs.
  static std::string addresses()
  {
    return "HOST_ADDRESS.m1 = 127.0.0.1\nHOST_ADDRESS.m2 = 127.0.0.2\n";
  }

  // Side by side.
  bool start()
  {
    m_first.launch();
    m_second.launch();
    return m_first.process().awaitError("main: Started, version") &&
           m_second.process().awaitError("main: Started, version");
  }

  LiveService& first() { return m_first; }
  LiveService& second() { return m_second; }
  std::string tools() const { return m_tools.path(); }

  Outcome run(Words const& words) const
  {
    return runProgram(TQ_BIN_DIR "/tqdiscoctl", words, {{"TESSARINE_ROOT", m_tools.path()}});
  }

  // Of both masters.
  Outcome runOnBoth(Words words) const
  {
    words.insert(words.begin(), {"--master", BOTH});
    return run(words);
  }

  nlohmann::json jsonOfBoth(Words words, int exitCode = 0) const
  {
    words.push_back("--json");
    Outcome const outcome = runOnBoth(words);
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome.errors << outcome.output;
    return nlohmann::json::parse(outcome.output, nullptr, false);
  }

  // Puts the payload on that master.
  void store(std::string const& master, std::string const& subject, std::string const& authority,
             std::string const& payload, Words const& more = {}) const
  {
    writeText(m_tools / "payload", payload);
    Words words{"--master", master, "put", subject, authority, m_tools / "payload"};
    words.insert(words.end(), more.begin(), more.end());
    Outcome const outcome = run(words);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  }

private:
  LiveService m_first;
  LiveService m_second;
  TempDir m_tools;
};

} // namespace tqtest
