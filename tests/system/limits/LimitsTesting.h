// A service with limits, a peer that goes beyond them, and others.

#pragma once

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"
#include "tests/system/limits/SourceAddress.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <chrono>

namespace tqtest
{

class LimitsTest : public testing::Test
{
protected:
  // Who goes beyond the limits. The command calls from 127.0.0.1.
  static constexpr char GREEDY[] = "127.0.7.1";

  LimitsTest() : m_service(LiveService::WITH_EXPLORERS) {}

  void start(std::string const& keys)
  {
    m_service.configure(
        "EXPLORER.filesystem = off\nEXPLORER.host = off\nEXPLORER.volume = off\n"
        "EXPLORER_INTERVAL.service = 1s\nEXPLORER_EXPIRY.service = 1h\nAUDIT_FILE = " +
        (m_service / "audit.log") + "\n" + keys);
    ASSERT_TRUE(m_service.start()) << m_service.log();
  }

  // Other keys, from now on.
  void reload(std::string const& keys)
  {
    m_service.configure("EXPLORER_INTERVAL.service = 1s\nEXPLORER_EXPIRY.service = 1h\n" + keys);
    m_service.process().sendSignal(SIGHUP);
    ASSERT_TRUE(m_service.process().awaitError("Set the log up anew")) << m_service.log();
  }

  void connect()
  {
    m_client = std::make_unique<client::Client>(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(m_client->connected()) << m_service.log();
  }

  void expectOthersAreServed()
  {
    Outcome const put = m_service.tqdiscoctl({"put", "other", "rack", "Row=7"});
    EXPECT_EQ(put.exitCode, 0) << put.errors << m_service.log();
    Outcome const shown = m_service.tqdiscoctl({"show", "other", "rack"});
    EXPECT_EQ(shown.exitCode, 0) << shown.errors << m_service.log();
  }

  // A refusal of the greedy peer in the audit log.
  void expectAudited(std::string const& operation, std::string const& why)
  {
    std::istringstream lines(readText(m_service / "audit.log"));
    for (std::string line; std::getline(lines, line);)
    {
      auto const record = nlohmann::json::parse(line, nullptr, false);
      if (record.is_object() && record.value("peer", "") == GREEDY &&
          record.value("operation", "") == operation && line.find(why) != std::string::npos)
        return;
    }
    ADD_FAILURE() << operation << ", " << why << " is not in " << lines.str();
  }

  // Whether the status tells that the limit was met, by the greedy peer last.
  void expectInStatus(std::string const& key, long setTo, std::uint64_t times)
  {
    nlohmann::json facts;
    EXPECT_TRUE(eventually(
        [&]
        {
          facts = factsOf(key);
          return facts.is_object() && facts["TimesMet"] >= times && facts["Value"] == setTo;
        }))
        << key << ": " << facts << m_service.log();
    if (!facts.is_object())
      return;
    EXPECT_EQ(facts["LastPeer"], GREEDY) << key;
    EXPECT_EQ(facts["Value"], setTo) << key;
    EXPECT_TRUE(facts["LastMet"].is_string()) << key;
  }

  nlohmann::json factsOf(std::string const& key) const
  {
    nlohmann::json const status =
        nlohmann::json::parse(m_service.tqdiscoctl({"status", "--json"}).output, nullptr, false);
    if (!status.is_object())
      return {};
    for (auto const& service : status["services"])
      for (auto const& limit : service["limits"])
        if (limit["name"] == key)
          return limit["facts"];
    return {};
  }

  void expectStops()
  {
    m_client.reset();
    EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  }

  LiveService m_service;
  SourceAddress const m_source{GREEDY};
  std::unique_ptr<client::Client> m_client;
};

} // namespace tqtest
