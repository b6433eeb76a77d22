// How many questions of peers about hosts reach the resolver.

#include "ozf/config/HostAnswers.h"

#include "tests/support/OtherProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>

using namespace Quillon::Tessarine::Ozf;
using testing::Each;
using testing::ElementsAre;
using testing::ResultOf;

namespace
{

using Outcomes = std::vector<std::future<std::string>>;

IpAddress address(std::string const& text) { return *IpAddress::fromText(text); }

class HostAnswersTest : public testing::Test
{
protected:
  static LookUpLimits few()
  {
    LookUpLimits limits;
    limits.atOnce = 3;
    limits.atOnceOfPeer = 2;
    limits.callers = 5;
    limits.callersOfPeer = 4;
    limits.patience = std::chrono::minutes(1);
    limits.hosts = 2;
    return limits;
  }

  ~HostAnswersTest() override { go(); }

  // What has begun ends, and what begins from now on at once.
  void go()
  {
    m_going = true;
    m_going.notify_all();
  }

  // A question in a thread of its own; in the end "yes", "no", or why not.
  void ask(HostAnswers& answers, std::string const& host, std::string const& peer)
  {
    m_outcomes.push_back(std::async(std::launch::async,
                                    [&answers, host, peer]() -> std::string
                                    {
                                      try
                                      {
                                        return answers.has(host, address(peer)) ? "yes" : "no";
                                      }
                                      catch (TooManyLookUps const& reason)
                                      {
                                        return reason.what();
                                      }
                                    }));
  }
  // What becomes of all of them, in any order.
  std::vector<std::string> outcomes()
  {
    std::vector<std::string> all;
    for (auto& outcome : m_outcomes)
      all.push_back(outcome.get());
    m_outcomes.clear();
    return all;
  }
  // What becomes of the one that is over before the others.
  std::string first()
  {
    auto found = m_outcomes.end();
    EXPECT_TRUE(eventually(
        [&]
        {
          found = std::find_if(m_outcomes.begin(), m_outcomes.end(), isOver);
          return found != m_outcomes.end();
        }));
    if (found == m_outcomes.end())
      return "none is over";
    std::string const outcome = found->get();
    m_outcomes.erase(found);
    return outcome;
  }
  static bool isOver(std::future<std::string> const& outcome)
  {
    return outcome.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }
  // Waits for so many look-ups to have begun.
  bool haveBegun(int count)
  {
    return eventually([&] { return m_begun == count; });
  }

  HostAnswers::Resolver slowResolver()
  {
    return [this](std::string const& host)
    {
      ++m_begun;
      m_going.wait(false);
      return host == "empty" ? HostAnswers::Addresses()
                             : HostAnswers::Addresses{address("192.0.2.1")};
    };
  }

  std::atomic<int> m_begun{0};
  std::atomic<bool> m_going{false};
  HostAnswers m_answers{slowResolver(), few()};
  Outcomes m_outcomes; // ends first
};

} // namespace

TEST_F(HostAnswersTest, aHostIsLookedUpOnceHoweverManyAsk)
{
  ask(m_answers, "web1", "192.0.2.1");
  EXPECT_TRUE(haveBegun(1));
  ask(m_answers, "WEB1", "192.0.2.1");
  ask(m_answers, "web1", "192.0.2.2");
  go();
  EXPECT_THAT(outcomes(), ElementsAre("yes", "yes", "no"));
  EXPECT_FALSE(m_answers.has("empty", address("192.0.2.1")));
  EXPECT_FALSE(m_answers.has("empty", address("192.0.2.1"))) << "this is remembered too";
  EXPECT_EQ(m_begun, 2);
}

TEST_F(HostAnswersTest, aPeerHasSoManyLookUpsInProgressAndSoManyCallsThatWait)
{
  for (char const* host : {"a", "b", "c", "d", "e"})
    ask(m_answers, host, "192.0.2.1");
  EXPECT_EQ(first(), "4 of its calls wait for the resolver already");
  EXPECT_TRUE(haveBegun(2));
  ask(m_answers, "f", "192.0.2.2");
  EXPECT_TRUE(haveBegun(3)) << "that of another peer";
  EXPECT_THAT(m_outcomes, Each(ResultOf(isOver, false)));
  go();
  EXPECT_THAT(outcomes(), ElementsAre("yes", "yes", "yes", "yes", "no"));
}

TEST_F(HostAnswersTest, allPeersTogetherHaveSoMany)
{
  for (int peer = 1; peer <= 6; ++peer)
    ask(m_answers, std::to_string(peer), "192.0.2." + std::to_string(peer));
  EXPECT_EQ(first(), "5 calls wait for the resolver already");
  EXPECT_TRUE(haveBegun(3));
  EXPECT_THAT(m_outcomes, Each(ResultOf(isOver, false)));
}

TEST_F(HostAnswersTest, whoWaitsTooLongIsRefused)
{
  LookUpLimits limits = few();
  limits.patience = std::chrono::milliseconds(1);
  HostAnswers answers(slowResolver(), limits);
  ask(answers, "a", "192.0.2.1");
  EXPECT_TRUE(haveBegun(1));
  EXPECT_THROW(answers.has("a", address("192.0.2.2")), TooManyLookUps);
  go();
  EXPECT_THAT(outcomes(), ElementsAre("yes"));
}

TEST_F(HostAnswersTest, ofTooManyHostsTheOneLookedUpLongestAgoIsForgotten)
{
  go();
  for (char const* host : {"a", "b", "c"})
    EXPECT_TRUE(m_answers.has(host, address("192.0.2.1")));
  EXPECT_EQ(m_begun, 3);
  for (char const* host : {"b", "c"})
    EXPECT_TRUE(m_answers.has(host, address("192.0.2.1")));
  EXPECT_EQ(m_begun, 3) << "the others are known";
  EXPECT_TRUE(m_answers.has("a", address("192.0.2.1")));
  EXPECT_EQ(m_begun, 4);
}

TEST_F(HostAnswersTest, aResolverThatThrowsLeavesItsPlace)
{
  int asked = 0;
  HostAnswers answers(
      [&](std::string const&) -> HostAnswers::Addresses
      {
        ++asked;
        throw std::bad_alloc();
      },
      few());
  for (int i = 0; i < 10; ++i)
    EXPECT_THROW(answers.has("a", address("192.0.2.1")), std::bad_alloc);
  EXPECT_EQ(asked, 10);
}
