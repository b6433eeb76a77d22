// What is kept of lists, what is told of their changes, and what is answered from them.

#include "tests/support/ListedRecords.h"
#include "tools/Metrics.h"
#include "web/KeptList.h"
#include "web/ListAnswers.h"
#include "web/MetricsAnswers.h"

#include <gmock/gmock.h>

using namespace Web;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using Quillon::Tessarine::Ozf::OzfObjTime;
using testing::HasSubstr;

namespace
{

class KeptListTest : public testing::Test
{
protected:
  static tqdiscoctl::Record record(std::string const& subject, std::string const& authority,
                                   std::int64_t discovered, AuthorityType type = AT_TQUCLIENT)
  {
    constexpr std::int64_t LIFETIME = 3600;
    auto result = tqtest::listedRecord(subject, authority, tqtest::LISTED_AT - discovered, type,
                                       discovered - tqtest::LISTED_AT + LIFETIME);
    result.source = std::make_shared<tqdiscoctl::Record::Source const>(
        tqdiscoctl::Record::Source{"m1", "DiscoveryService", "m1"});
    return result;
  }

  std::string nextEvent()
  {
    auto const event = m_events.next(m_position);
    return event ? *event : std::string();
  }

  static Answer ask(ListAnswers& answers, char const* target)
  {
    Mistake mistake;
    Plan const plan = answers.discoveries(*RequestTarget::fromText(target, mistake));
    return plan.answer ? *plan.answer : plan.read();
  }

  EventLog m_events{"e"};
  KeptList m_list{{"m1", "m2"}, m_events};
  std::uint64_t m_position = m_events.begin(nullptr);
};

} // namespace

TEST_F(KeptListTest, WhatComesChangesAndGoesIsTold)
{
  m_list.update(0, {record("b", "host", 10), record("a", "host", 10)}, "m1", true, 0.1);
  EXPECT_THAT(nextEvent(), HasSubstr("event: reset\n"));
  EXPECT_THAT(nextEvent(), HasSubstr("event: state\n"));
  m_list.update(0, {record("a", "host", 20), record("c", "host", 20)}, "m1", true, 0.1);
  EXPECT_THAT(nextEvent(), testing::AllOf(HasSubstr("event: changed\n"), HasSubstr("\"a\"")));
  EXPECT_THAT(nextEvent(), testing::AllOf(HasSubstr("event: gone\n"), HasSubstr("\"b\"")));
  EXPECT_THAT(nextEvent(), testing::AllOf(HasSubstr("event: added\n"), HasSubstr("\"c\"")));
  EXPECT_EQ(nextEvent(), "");
  m_list.fail(0, "nobody is there");
  EXPECT_THAT(nextEvent(), testing::AllOf(HasSubstr("event: state\n"), HasSubstr("\"away\""),
                                          HasSubstr("nobody is there")));
  EXPECT_EQ(m_list.look()->masters[0].records->size(), 2U);
  m_list.fail(0, "still not");
  EXPECT_EQ(nextEvent(), "");
}

TEST_F(KeptListTest, AListThatSaysTheSameIsNotNew)
{
  m_list.update(0, {record("a", "host", 10)}, "m1", true, 0.1);
  auto const before = m_list.look()->generation;
  auto same = record("a", "host", 10);
  same.expires = OzfObjTime(same.expires.seconds() + 1);
  m_list.update(0, {same}, "m1", true, 0.1);
  EXPECT_EQ(m_list.look()->generation, before);
  same.expires = OzfObjTime(same.expires.seconds() + 60);
  m_list.update(0, {same}, "m1", true, 0.1);
  EXPECT_GT(m_list.look()->generation, before);
}

TEST_F(KeptListTest, WhatAnIncompleteListLacksStays)
{
  m_list.update(0, {record("a", "host", 10), record("b", "host", 10)}, "m1", true, 0.1);
  m_list.update(0, {record("b", "host", 20)}, "m1", false, 0.1);
  auto const look = m_list.look();
  ASSERT_EQ(look->masters[0].records->size(), 2U);
  EXPECT_EQ((*look->masters[0].records)[1].discovered, OzfObjTime(20));
  EXPECT_FALSE(look->masters[0].complete);
}

TEST_F(KeptListTest, MoreChangesThanAreRememberedAreAReset)
{
  m_list.update(0, {}, "m1", true, 0.1);
  while (!nextEvent().empty())
    ;
  Records many;
  for (std::size_t i = 0; i < EventLog::MOST_EVENTS + 2; ++i)
    many.push_back(record("h" + std::to_string(i), "host", 10));
  m_list.update(0, many, "m1", true, 0.1);
  EXPECT_THAT(nextEvent(), HasSubstr("event: reset\n"));
  EXPECT_EQ(nextEvent(), "");
}

TEST_F(KeptListTest, PagesGoFromMasterToMaster)
{
  m_list.update(0, {record("a", "host", 10), record("b", "host", 10)}, "m1", true, 0.1);
  m_list.update(1, {record("a", "host", 10)}, "m2", true, 0.1);
  ListAnswers answers(m_list, 1 << 20);
  auto const first = nlohmann::json::parse(*ask(answers, "/x?limit=2").body);
  EXPECT_EQ(first["discoveries"].size(), 2U);
  ASSERT_TRUE(first["next"].is_string());
  auto const rest = nlohmann::json::parse(
      *ask(answers, ("/x?limit=2&cursor=" + encoded(first["next"].get<std::string>())).c_str())
           .body);
  EXPECT_EQ(rest["discoveries"].size(), 1U);
  EXPECT_TRUE(rest["next"].is_null());
}

TEST_F(KeptListTest, TheStatusIsThatOfEachMasterAndOfAll)
{
  m_list.update(0, {record("a", "service", 20), record("b", "host", 7)}, "m1", true, 0.1);
  m_list.update(1, {record("c", "host", 5), record("d", "service", 20)}, "m2", true, 2.5);
  ListAnswers const answers(m_list, 1 << 20);
  Mistake mistake;
  auto const status =
      nlohmann::json::parse(*answers.status(*RequestTarget::fromText("/x", mistake)).body);
  EXPECT_EQ(status["hosts"], 4);
  EXPECT_EQ(status["silentHosts"], 2);
  EXPECT_EQ(status["discoveries"], 4);
  EXPECT_EQ(status["oldestTime"], "1970-01-01T00:00:05Z");
  EXPECT_EQ(status["masters"][0]["oldestTime"], "1970-01-01T00:00:07Z");
  EXPECT_EQ(status["masters"][0]["silentHosts"], 1);
  EXPECT_EQ(status["masters"][0]["listMilliseconds"], 100);
  EXPECT_EQ(status["masters"][1]["listMilliseconds"], 2500);
}

TEST_F(KeptListTest, EachHostSaysWhetherItFellSilent)
{
  m_list.update(0, {record("a", "service", 20), record("b", "host", 7)}, "m1", true, 0.1);
  ListAnswers answers(m_list, 1 << 20);
  Mistake mistake;
  auto const hosts = nlohmann::json::parse(
      *answers.hosts(*RequestTarget::fromText("/x", mistake)).read().body)["hosts"];
  ASSERT_EQ(hosts.size(), 2U);
  EXPECT_EQ(hosts[0]["silent"], false);
  EXPECT_EQ(hosts[1]["silent"], true);
  EXPECT_EQ(hosts[1]["master"], "m1");
  auto const one = nlohmann::json::parse(
      *answers.host(*RequestTarget::fromText("/x", mistake), "b").read().body);
  EXPECT_EQ(one["summaries"], nlohmann::json::array({hosts[1]}));
}

TEST_F(KeptListTest, OfAMasterThatIsAwayTheMetricsTellTheListAlone)
{
  m_list.update(0, {record("a", "service", 20)}, "m1", true, 0.1);
  tqdiscoctl::ServiceFigures service;
  service.version = "9.9";
  m_list.setService(0, std::make_shared<tqdiscoctl::ServiceFigures const>(service));
  MetricsAnswers const metrics(m_list);
  Mistake mistake;
  Request const request{*RequestTarget::fromText("/metrics", mistake), ""};
  EXPECT_THAT(*metrics.metrics(request).body,
              HasSubstr("tqdisco_build_info{master=\"m1\",version=\"9.9\"} 1\n"));
  m_list.fail(0, "nobody is there");
  std::string const text = *metrics.metrics(request).body;
  EXPECT_THAT(text, testing::Not(HasSubstr("tqdisco_build_info{")));
  EXPECT_THAT(text, HasSubstr("tqdisco_up{master=\"m1\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("tqdisco_hosts{master=\"m1\"} 1\n"));
}

TEST_F(KeptListTest, OfHalfAListThereAreNoFigures)
{
  m_list.update(0, {record("a", "host", 10)}, "m1", true, 0.1);
  EXPECT_NE(m_list.look()->masters[0].figures, nullptr);
  m_list.update(0, {record("a", "host", 20)}, "m1", false, 0.1);
  EXPECT_EQ(m_list.look()->masters[0].figures, nullptr);
}

TEST_F(KeptListTest, AMasterThatIsBackSaysSoWithoutAReason)
{
  m_list.update(0, {}, "m1", true, 0.1);
  OzfObjTime const first = m_list.look()->masters[0].since;
  m_list.update(0, {}, "m1", true, 0.1);
  EXPECT_EQ(m_list.look()->masters[0].since, first) << "the state began with the first list";
  m_list.fail(0, "nobody is there");
  m_list.update(0, {}, "m1", true, 0.1);
  EXPECT_EQ(m_list.look()->masters[0].state, MasterList::UP);
  EXPECT_EQ(m_list.look()->masters[0].reason, "");
  EXPECT_NE(m_list.look()->masters[0].since, first);
}

TEST_F(KeptListTest, ACursorKeepsWhatIsStoredFromWhatIsOnDemand)
{
  auto onDemand = record("a", "host", 10);
  onDemand.discovered = {};
  onDemand.expires = {};
  m_list.update(0, {onDemand, record("a", "host", 10), record("b", "host", 10)}, "m1", true, 0.1);
  ListAnswers answers(m_list, 1 << 20);
  std::vector<std::string> seen;
  std::string cursor;
  do
  {
    auto const page = nlohmann::json::parse(*ask(answers, ("/x?limit=1" + cursor).c_str()).body);
    for (auto const& each : page["discoveries"])
      seen.push_back(each["subject"].get<std::string>() + (each["onDemand"] ? " d" : " s"));
    cursor.clear();
    if (page["next"].is_string())
      cursor = "&cursor=" + encoded(page["next"].get<std::string>());
  } while (!cursor.empty() && seen.size() < 9);
  EXPECT_THAT(seen, testing::ElementsAre("a s", "a d", "b s"));
}

TEST_F(KeptListTest, HostsThatFellSilentAreCounted)
{
  m_list.update(0,
                {record("a", "service", 20), record("a", "host", 10), record("b", "host", 5),
                 record("x", "put by hand", 30, AT_EXTSRC)},
                "m1", true, 0.1);
  MasterList const list = m_list.look()->masters[0];
  EXPECT_EQ(list.hosts, 3U);
  EXPECT_EQ(list.silentHosts, 1U);
  EXPECT_EQ(list.oldest, OzfObjTime(5));
  EXPECT_NE(list.figures, nullptr);
}
