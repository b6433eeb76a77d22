// tqdiscoctl and several masters at once.

#include "tests/support/CommandTest.h"
#include "tests/support/Masters.h"

#include <gmock/gmock.h>

#include <chrono>
#include <regex>
#include <set>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

std::string diskDocument(std::string const& name, std::string const& facts)
{
  return itemsDocument("<DISCOVERED Name=\"" + name + "\"><ExplorerData Name=\"x\">" + facts +
                       "</ExplorerData></DISCOVERED>");
}

// Masters tell it in whole seconds from now on, so that it may differ by one from list to list.
std::string withoutExpiry(std::string const& records)
{
  return std::regex_replace(records, std::regex("\"expiresTime\": \"[^\"]*\""), "");
}

class TqdiscoctlMastersTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(m_masters.start()) << m_masters.first().log() << m_masters.second().log();
    m_masters.store("m1", "web1", "disks", diskDocument("a", "<Size>1</Size>"));
    m_masters.store("m2", "web2", "disks", diskDocument("b", "<Size>2</Size>"));
  }

  // What both have of one host; the second master has found it later.
  void storeTwice(std::string const& subject)
  {
    m_masters.store("m1", subject, "disks", diskDocument("old", "<Size>3</Size>"));
    auto const found = [&] {
      return m_masters.jsonOfBoth({"query", "-s", subject})[0]["discoveryTime"].dump();
    };
    std::string const first = found();
    ASSERT_TRUE(eventually(
        [&]
        {
          m_masters.store("m2", subject, "disks", diskDocument("new", "<Size>4</Size>"));
          return found() != first;
        }));
  }

  // "subject master" of each record.
  static std::vector<std::string> placesOf(json const& records, char const* subject = "subject")
  {
    std::vector<std::string> places;
    for (auto const& record : records)
      places.push_back(std::string(record[subject]) + ' ' + std::string(record["master"]));
    return places;
  }

  TwoMasters m_masters;
};

TEST_F(TqdiscoctlMastersTest, aMasterMayHaveAPortOfItsOwn)
{
  std::string const other = std::to_string(freePort());
  m_masters.configureTools("HOST_PORT.M2 = " + other + "\n");
  Outcome const outcome = m_masters.runOnBoth({"query"});
  EXPECT_EQ(outcome.exitCode, 4);
  EXPECT_THAT(outcome.errors, HasSubstr("m2:" + other));
  // One on the command line goes before.
  std::string const port = std::to_string(m_masters.first().port());
  EXPECT_EQ(m_masters.run({"--master", "m1:" + port + ",m2:" + port, "query"}).exitCode, 0);
  EXPECT_EQ(m_masters.run({"--master", "m2:" + port, "show", "web2", "disks"}).exitCode, 0);
}

TEST_F(TqdiscoctlMastersTest, theAnswerNamesTheMasterOfEachRecord)
{
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"query"})),
            (std::vector<std::string>{"web1 m1", "web2 m2"}));
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"hosts"}), "host"),
            (std::vector<std::string>{"web1 m1", "web2 m2"}));
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"items"})),
            (std::vector<std::string>{"web1 m1", "web2 m2"}));
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"show", "web2", "disks"})),
            (std::vector<std::string>{"web2 m2"}));
  Outcome const text = m_masters.runOnBoth({"query"});
  EXPECT_THAT(text.output, AllOf(ContainsRegex("SUBJECT +MASTER +AUTHORITY"),
                                 ContainsRegex("web1 +m1 +disks"), ContainsRegex("web2 +m2 ")));
  EXPECT_THAT(text.errors, IsEmpty());
  EXPECT_THAT(m_masters.runOnBoth({"items"}).output,
              AllOf(ContainsRegex("SUBJECT +MASTER +ITEM +SIZE"), ContainsRegex("web2 +m2 +b ")));
  EXPECT_THAT(m_masters.runOnBoth({"items", "--csv"}).output,
              HasSubstr("subject,master,authority,item,Size\nweb1,m1,disks,a,1\n"));
  EXPECT_THAT(m_masters.runOnBoth({"show", "web2", "disks"}).output, HasSubstr("Master     m2\n"));
  EXPECT_EQ(m_masters.runOnBoth({"show", "web2", "disks", "--raw"}).output,
            diskDocument("b", "<Size>2</Size>"));
  Outcome const none = m_masters.runOnBoth({"query", "-s", "web3"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_THAT(none.errors, HasSubstr("nothing matches"));
}

TEST_F(TqdiscoctlMastersTest, whereOneIsAskedNothingIsSaidOfMasters)
{
  Outcome const one = m_masters.run({"--master", "m1", "query", "--json"});
  EXPECT_EQ(one.exitCode, 0) << one.errors;
  EXPECT_THAT(one.output, AllOf(HasSubstr("web1"), Not(HasSubstr("master"))));
  for (char const* const list : {"m1,m1", " m1 , M1", "m1"})
    EXPECT_EQ(withoutExpiry(m_masters.run({"--master", list, "query", "--json"}).output),
              withoutExpiry(one.output))
        << list;
  m_masters.configureTools("MASTERS = m1\n");
  EXPECT_EQ(withoutExpiry(m_masters.run({"query", "--json"}).output), withoutExpiry(one.output));

  // Two names of one.
  Outcome const same = m_masters.run({"--master", "m1,127.0.0.1,m2", "query", "--json"});
  EXPECT_EQ(same.exitCode, 0) << same.errors;
  EXPECT_EQ(placesOf(json::parse(same.output)), (std::vector<std::string>{"web1 m1", "web2 m2"}));
  EXPECT_THAT(same.errors, HasSubstr("127.0.0.1 leads to the same address as m1"));
}

TEST_F(TqdiscoctlMastersTest, ofASubjectThatBothHaveTheYoungerComesFirst)
{
  storeTwice("web7");
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"query", "-s", "web7"})),
            (std::vector<std::string>{"web7 m2", "web7 m1"}));
  Outcome const hosts = m_masters.runOnBoth({"hosts"});
  EXPECT_THAT(hosts.output, ContainsRegex("web7 +m2 .*\nweb7 +m1 "));
  EXPECT_THAT(hosts.errors, HasSubstr("1 subject is known to more than one master"));
  json const shown = m_masters.jsonOfBoth({"show", "web7", "disks"});
  ASSERT_EQ(shown.size(), 2U);
  EXPECT_EQ(shown[0]["items"][0]["name"], "new");
  EXPECT_EQ(shown[1]["items"][0]["name"], "old");
  Outcome const raw = m_masters.runOnBoth({"show", "web7", "disks", "--raw"});
  EXPECT_EQ(raw.output, diskDocument("new", "<Size>4</Size>"));
  EXPECT_THAT(raw.errors, HasSubstr("another master has it as well"));
  Outcome const inventory =
      m_masters.runOnBoth({"items", "-s", "web7", "--ansible", "--sort", "Size"});
  EXPECT_THAT(inventory.output, AllOf(HasSubstr("\"new\""), Not(HasSubstr("\"old\""))));
}

TEST_F(TqdiscoctlMastersTest, whereTheyTellDifferentThingsOfAFactBothAreShown)
{
  std::string const probe = m_masters.tools() + "/items";
  writeText(probe, R"([{"name": "a", "Size": 1}])");
  for (char const* const master : {"m1", "m2"})
    ASSERT_EQ(
        m_masters.run({"--master", master, "put", "web8", "sizes", "--items", probe}).exitCode, 0);
  json facts = m_masters.jsonOfBoth({"filters", "web8", "sizes"});
  ASSERT_EQ(facts.size(), 1U) << facts;
  EXPECT_EQ(facts[0]["masters"], (json{"m1", "m2"}));

  writeText(probe, R"([{"name": "a", "Size": "large"}])");
  ASSERT_EQ(m_masters.run({"--master", "m2", "put", "web9", "sizes", "--items", probe}).exitCode,
            0);
  writeText(probe, R"([{"name": "a", "Size": 1}])");
  ASSERT_EQ(m_masters.run({"--master", "m1", "put", "web9", "sizes", "--items", probe}).exitCode,
            0);
  facts = m_masters.jsonOfBoth({"filters", "web9", "sizes"});
  ASSERT_EQ(facts.size(), 2U) << facts;
  EXPECT_NE(facts[0]["type"], facts[1]["type"]);
  EXPECT_NE(facts[0]["masters"], facts[1]["masters"]);
  EXPECT_THAT(m_masters.runOnBoth({"filters", "web9", "sizes"}).output,
              AllOf(ContainsRegex("NAME +MASTER +TYPE"), ContainsRegex("Size +m1 "),
                    ContainsRegex("Size +m2 ")));
}

TEST_F(TqdiscoctlMastersTest, oneThatIsAwayIsNamedAndTheOthersAnswerIsShown)
{
  ASSERT_EQ(m_masters.second().stop(), 0) << m_masters.second().log();
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"query"}, 4)), (std::vector<std::string>{"web1 m1"}));
  for (auto const& words :
       {Words{"query"}, Words{"hosts"}, Words{"items"}, Words{"show", "web1", "disks"},
        Words{"filters", "web1", "disks"}, Words{"status"}, Words{"metrics"},
        Words{"report", "--html", "-"}, Words{"push", "--all"}, Words{"watch", "--looks", "1"},
        Words{"query", "-s", "nothing"}})
  {
    Outcome const outcome = m_masters.runOnBoth(words);
    EXPECT_EQ(outcome.exitCode, 4) << words.front() << outcome.errors;
    EXPECT_THAT(outcome.errors, ContainsRegex("the master m2:[0-9]+ is left out: nothing accepts"))
        << words.front();
  }
  EXPECT_THAT(m_masters.runOnBoth({"metrics"}).output,
              AllOf(ContainsRegex("up\\{[^}]*master=\"m1\"[^}]*\\} 1"),
                    ContainsRegex("up\\{[^}]*master=\"m2\"[^}]*\\} 0")));
  EXPECT_THAT(m_masters.runOnBoth({"report", "--html", "-"}).output, HasSubstr("</html>"));

  Outcome const unknown = m_masters.run({"--master", "m1,tq-no-such-host.invalid", "query"});
  EXPECT_EQ(unknown.exitCode, 4);
  EXPECT_THAT(unknown.output, HasSubstr("web1"));
  EXPECT_THAT(unknown.errors, HasSubstr("its name cannot be resolved"));

  ASSERT_EQ(m_masters.first().stop(), 0);
  Outcome const none = m_masters.runOnBoth({"query"});
  EXPECT_EQ(none.exitCode, 5);
  EXPECT_THAT(none.errors, AllOf(HasSubstr("m1:"), HasSubstr("m2:")));
  ASSERT_TRUE(m_masters.first().start());
}

TEST_F(TqdiscoctlMastersTest, oneThatHangsDoesNotKeepTheOthersAnswerBack)
{
  m_masters.second().process().freeze();
  auto const begin = std::chrono::steady_clock::now();
  Outcome const outcome = m_masters.runOnBoth({"--timeout", "4", "query", "--json"});
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_EQ(placesOf(json::parse(outcome.output, nullptr, false)),
            (std::vector<std::string>{"web1 m1"}));
  EXPECT_THAT(outcome.errors, ContainsRegex("m2:[0-9]+ is left out: it does not answer in time"));
  m_masters.second().process().sendSignal(SIGCONT);
}

TEST_F(TqdiscoctlMastersTest, theyAreWatchedAndPushedTogether)
{
  std::unique_ptr<Process> const watch = std::make_unique<Process>(
      TQ_BIN_DIR "/tqdiscoctl", Words{"--master", "m1,m2", "watch", "-n", "1", "--json"},
      Process::Environment{{"TESSARINE_ROOT", m_masters.tools()}});
  auto const told = [&](std::string const& text)
  { return eventually([&] { return watch->output().find(text) != std::string::npos; }); };
  // There is no telling when the first look is over but by what the next ones tell.
  int number = 0;
  ASSERT_TRUE(eventually(
      [&]
      {
        m_masters.store("m2", "new" + std::to_string(++number), "disks", "<DiscoveredItems/>");
        return watch->output().find("\"master\":\"m2\",\"subject\":\"new") != std::string::npos;
      }))
      << watch->output() << watch->errors();
  ASSERT_EQ(m_masters.second().stop(), 0);
  EXPECT_TRUE(watch->awaitError("is left out"));
  m_masters.store("m1", "late", "disks", "<DiscoveredItems/>");
  EXPECT_TRUE(told("\"master\":\"m1\",\"subject\":\"late\""));
  ASSERT_TRUE(m_masters.second().start()) << m_masters.second().log();
  EXPECT_TRUE(watch->awaitError("answers again"));
  EXPECT_THAT(watch->output(), Not(HasSubstr("\"gone\""))) << "what is not listed need not be gone";
  watch->sendSignal(SIGINT);
  ASSERT_TRUE(watch->wait());
  EXPECT_EQ(watch->exitCode(), 0) << watch->errors();

  json const pushed = m_masters.jsonOfBoth({"push", "--all", "--now"});
  EXPECT_EQ(pushed["masters"].size(), 2U) << pushed;
  std::set<std::string> requests;
  for (auto const& each : placesOf(m_masters.jsonOfBoth({"query", "-a", "refresh*"})))
    requests.insert(each.substr(each.rfind(' ') + 1));
  EXPECT_EQ(requests, (std::set<std::string>{"m1", "m2"}));
  json const status = m_masters.jsonOfBoth({"status"});
  ASSERT_EQ(status["masters"].size(), 2U) << status;
  EXPECT_EQ(status["masters"][1]["master"], "m2");
  EXPECT_GE(status["masters"][0]["discoveries"], 2);
}

TEST_F(TqdiscoctlMastersTest, mistakesAreNamed)
{
  auto const mistake = [&](Words const& words)
  {
    Outcome const outcome = m_masters.run(words);
    EXPECT_EQ(outcome.exitCode, 2) << outcome.errors;
    return outcome.errors;
  };
  EXPECT_THAT(mistake({"--master", "m1,,m2", "query"}), HasSubstr("\"\" names no service"));
  EXPECT_THAT(mistake({"--master", "m1,m 2", "query"}), HasSubstr("\"m 2\" names no service"));
  EXPECT_THAT(mistake({"--master", "m1:1,m2:2", "query"}), HasSubstr("the ports 1 and 2"));
  EXPECT_THAT(mistake({"--master", "m1,m2", "put", "a", "b", "C=1"}), HasSubstr("takes one"));
  EXPECT_THAT(mistake({"--master", "m1,m2", "push"}), HasSubstr("takes one"));
  std::string many = "m0";
  for (int i = 1; i <= 16; ++i)
    many += ",n" + std::to_string(i);
  EXPECT_THAT(mistake({"--master", many, "query"}), HasSubstr("more than 16 masters"));

  m_masters.configureTools("SERVER = m2\nMASTERS = m1\nMASTERS = m2, M1\n");
  Outcome const configured = m_masters.run({"query", "--json"});
  EXPECT_EQ(configured.exitCode, 0) << configured.errors;
  EXPECT_EQ(placesOf(json::parse(configured.output)),
            (std::vector<std::string>{"web1 m1", "web2 m2"}));
  EXPECT_EQ(m_masters.run({"put", "web5", "x", "A=1"}).exitCode, 0) << "with SERVER";
  EXPECT_EQ(placesOf(m_masters.jsonOfBoth({"query", "-s", "web5"})),
            (std::vector<std::string>{"web5 m2"}));
  m_masters.configureTools("MASTERS = a b/c\n");
  Outcome const checked = runProgram(TQ_BIN_DIR "/tqdisco", {"--check-config"},
                                     {{"TESSARINE_ROOT", m_masters.tools()}});
  EXPECT_EQ(checked.exitCode, 2);
  EXPECT_THAT(checked.errors + checked.output, HasSubstr("MASTERS"));
}

} // namespace
