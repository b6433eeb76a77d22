#include "explorers/Machines.h"

#include "tests/support/LogCapture.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class MachineWatchTest : public testing::Test
{
protected:
  // What is stored at the next look: machines of the host "web", each with the time
  // that tells when it reported.
  std::string look(std::map<std::string, int> const& machines)
  {
    std::vector<StoredMachine> stored;
    for (auto const& [id, expires] : machines)
      stored.push_back({"web", id, OzfObjTime(expires)});
    std::string text;
    for (auto const& clone : m_watch.look(stored, OzfObjTime(++m_now)))
      text +=
          clone.subject + ": " + clone.machines + " since " + std::to_string(clone.since.seconds());
    return text;
  }

  MachineWatch m_watch;
  std::int64_t m_now = 1000;
  LogCapture m_log{1};
};

} // namespace

TEST_F(MachineWatchTest, aHostThatKeepsItsIdentifierIsNothingToTell)
{
  EXPECT_EQ("", look({{"a", 1}}));
  EXPECT_EQ("", look({{"a", 1}}));
  EXPECT_EQ("", look({{"a", 2}}));
  EXPECT_EQ("", look({}));
  EXPECT_EQ("", look({{"a", 9}}));
  EXPECT_EQ("", m_log.text());
}

TEST_F(MachineWatchTest, aHostThatWasInstalledAnewIsToldOnce)
{
  look({{"a", 1}});
  look({{"a", 2}});
  EXPECT_EQ("", look({{"a", 2}, {"b", 3}}));
  EXPECT_THAT(m_log.text(), HasSubstr("The machine identifier of web has changed from a to b:"));
  EXPECT_EQ("", look({{"a", 2}, {"b", 4}}));
  EXPECT_EQ("", look({{"b", 5}}));
  EXPECT_EQ("", look({{"b", 6}}));
  EXPECT_EQ(m_log.text().find("has changed"), m_log.text().rfind("has changed"));
  EXPECT_THAT(m_log.text(), testing::Not(HasSubstr("Several hosts")));
}

TEST_F(MachineWatchTest, oneThatWasInstalledAnewWhenItHadLongBeenSilentIsToldToo)
{
  look({{"a", 1}});
  look({});
  look({{"b", 9}});
  EXPECT_THAT(m_log.text(), HasSubstr("has changed from a to b:"));
}

TEST_F(MachineWatchTest, twoHostsAreToldWhenTheFirstReportsAfterTheSecondAppeared)
{
  look({{"a", 1}});
  // The first may have reported just before the second came.
  EXPECT_EQ("", look({{"a", 2}, {"b", 3}}));
  EXPECT_EQ("web: a b since 1003", look({{"a", 4}, {"b", 3}}));
  EXPECT_THAT(m_log.text(),
              HasSubstr("Several hosts report as web, with the machine identifiers a b:"));
  EXPECT_EQ("web: a b since 1003", look({{"a", 4}, {"b", 5}}));
  EXPECT_EQ(m_log.text().find("Several"), m_log.text().rfind("Several")) << "once";
}

TEST_F(MachineWatchTest, itIsOverWhenOneOfThemIsGone)
{
  look({{"a", 1}});
  look({{"a", 1}, {"b", 2}});
  EXPECT_NE("", look({{"a", 3}, {"b", 4}}));
  EXPECT_EQ("", look({{"b", 5}}));
  EXPECT_THAT(m_log.text(), HasSubstr("One host alone reports as web again"));
  EXPECT_EQ("", look({{"b", 6}}));
}

// A master that was started anew finds both and does not know which came first.
TEST_F(MachineWatchTest, twoThatAreThereAtTheFirstLookMustBothReportAgain)
{
  EXPECT_EQ("", look({{"a", 1}, {"b", 2}}));
  EXPECT_EQ("", look({{"a", 1}, {"b", 3}}));
  EXPECT_EQ("", look({{"a", 1}, {"b", 4}}));
  EXPECT_EQ("", m_log.text());
  EXPECT_NE("", look({{"a", 5}, {"b", 4}}));
}

TEST_F(MachineWatchTest, threeHostsAreToldTogether)
{
  look({{"a", 1}});
  look({{"a", 1}, {"b", 1}, {"c", 1}});
  EXPECT_EQ("web: a b c since 1003", look({{"a", 2}, {"b", 2}, {"c", 2}}));
}

TEST_F(MachineWatchTest, machinesThatAnybodyInventsTakeLittleRoom)
{
  std::map<std::string, int> many;
  for (int i = 0; i < 1000; ++i)
    many.emplace("m" + std::to_string(i), 1);
  look(many);
  look({{"other", 1}});
  EXPECT_EQ("", look({{"other", 2}}));
}

TEST_F(MachineWatchTest, hostsAreToldApart)
{
  EXPECT_THAT(
      m_watch.look({{"web", "a", OzfObjTime(1)}, {"db", "b", OzfObjTime(1)}}, OzfObjTime(1)),
      IsEmpty());
  EXPECT_THAT(
      m_watch.look({{"web", "a", OzfObjTime(2)}, {"db", "b", OzfObjTime(2)}}, OzfObjTime(2)),
      IsEmpty());
  EXPECT_EQ("", m_log.text());
}
