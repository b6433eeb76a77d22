// tqdiscoctl beside a live service, which each test starts for itself.

#pragma once

#include "tests/support/LiveService.h"

#include <nlohmann/json.hpp>

#include <string>
#include <sys/resource.h>
#include <vector>

namespace tqtest
{

using Words = std::vector<std::string>;

// The most that a child which has ended ever had in memory, in MiB.
inline long largestChild()
{
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return usage.ru_maxrss / 1024;
}

class CommandTest : public testing::Test
{
protected:
  explicit CommandTest(LiveService::Explorers explorers = LiveService::WITHOUT_EXPLORERS)
      : m_service(explorers)
  {
  }

  void SetUp() override { ASSERT_TRUE(m_service.start()) << m_service.log(); }
  void TearDown() override { EXPECT_EQ(m_service.stop(), 0) << m_service.log(); }

  Outcome run(Words const& words) const { return m_service.tqdiscoctl(words); }

  nlohmann::json runJson(Words words, int exitCode = 0) const
  {
    words.push_back("--json");
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome.errors;
    return nlohmann::json::parse(outcome.output, nullptr, false);
  }

  // With put; more are further options.
  void store(std::string const& subject, std::string const& authority, std::string const& payload,
             Words const& more = {}) const
  {
    writeText(m_service / "payload", payload);
    Words words{"put", subject, authority, m_service / "payload"};
    words.insert(words.end(), more.begin(), more.end());
    Outcome const outcome = run(words);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  }

  LiveService m_service;
};

// A payload of these items.
inline std::string itemsDocument(std::string const& items)
{
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveredItems>" + items +
         "</DiscoveredItems>";
}

// Of records as JSON, in their order.
inline std::vector<std::string> subjectsOf(nlohmann::json const& records)
{
  std::vector<std::string> subjects;
  for (auto const& record : records)
    subjects.push_back(record["subject"]);
  return subjects;
}

} // namespace tqtest
