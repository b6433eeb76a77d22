// What "items" makes of many items: sorted, counted, calculated with, streamed.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <sstream>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// Beside what can be asked for, which is stored as external.
Words const CLIENT{"--type", "client"};

class TqdiscoctlListTest : public CommandTest
{
protected:
  void SetUp() override
  {
    CommandTest::SetUp();
    store("web1", "disks", document(item("a", "80", "100", "80%") + item("b", "9", "100", "9%")),
          CLIENT);
    store("web2", "disks", document(item("c", "95", "100", "95%") + bare("d")), CLIENT);
    store("web2", "disks",
          "<FilterData><QueryDescription>"
          "<Attribute Name=\"Size\" Type=\"size\" Unit=\"bytes\"/>"
          "<Attribute Name=\"Used\" Type=\"size\" Unit=\"bytes\"/>"
          "<Attribute Name=\"Use\" Type=\"number\" Unit=\"%\"/>"
          "<Attribute Name=\"Fast\" Type=\"boolean\"/>"
          "</QueryDescription></FilterData>",
          {"--filter-data"});
  }

  static std::string bare(std::string const& name, std::string const& facts = "")
  {
    return "<DISCOVERED Name=\"" + name + "\"><ExplorerData Name=\"x\">" + facts +
           "</ExplorerData></DISCOVERED>";
  }
  static std::string item(std::string const& name, std::string const& used, std::string const& size,
                          std::string const& use)
  {
    return bare(name, "<Used>" + used + "</Used><Size>" + size + "</Size><Use>" + use + "</Use>");
  }
  static std::string document(std::string const& items)
  {
    return "<DiscoveredItems>" + items + "</DiscoveredItems>";
  }

  // The names of the items, in their order.
  std::string listed(Words words)
  {
    words.insert(words.begin(), "items");
    words.insert(words.end(), {"-a", "disks", "--json-lines"});
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    std::istringstream lines(outcome.output);
    std::string names;
    for (std::string line; std::getline(lines, line);)
      names += json::parse(line, nullptr, false)["name"].get<std::string>();
    return names;
  }
};

TEST_F(TqdiscoctlListTest, itemsAreSortedByAFactAndLimited)
{
  EXPECT_EQ(listed({}), "abcd");
  EXPECT_EQ(listed({"--sort", "used"}), "bacd");
  EXPECT_EQ(listed({"--sort", "Use:desc"}), "cabd");
  EXPECT_EQ(listed({"--sort", "USED:asc", "--limit", "1"}), "b");
  EXPECT_EQ(listed({"--limit", "3"}), "abc");
  EXPECT_THAT(run({"items", "-a", "disks", "--sort", "used:desc", "--limit", "2"}).output,
              ContainsRegex("web2 +c .*\nweb1 +a [^\n]*\n$"));
  EXPECT_THAT(run({"items", "-a", "disks", "--sort", "nope"}).errors, HasSubstr("\"nope\""));
  EXPECT_EQ(run({"items", "--sort", ":desc"}).exitCode, 2);
  EXPECT_EQ(run({"items", "--limit", "0"}).exitCode, 2);
}

TEST_F(TqdiscoctlListTest, itemsAreCounted)
{
  EXPECT_EQ(run({"items", "-a", "disks", "--count"}).output, "4\n");
  EXPECT_EQ(run({"items", "-a", "disks", "--where", "used > 50", "--count"}).output, "2\n");
  EXPECT_EQ(runJson({"items", "-a", "disks", "--count"}), json({{"items", 4}}));
  Outcome const none = run({"items", "-a", "disks", "--where", "used > 1000", "--count"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_EQ(none.output, "0\n");
}

TEST_F(TqdiscoctlListTest, queriesCalculate)
{
  EXPECT_EQ(listed({"--where", "used / size >= 80%"}), "ac");
  EXPECT_EQ(listed({"--where", "size - used > 50"}), "b");
  EXPECT_EQ(listed({"--where", "use > 90%"}), "c");
}

TEST_F(TqdiscoctlListTest, anUnknownNameInACalculationIsAMistakeWithAPlace)
{
  for (Words const& command : {Words{"items", "-a", "disks"}, Words{"show", "web1", "disks"},
                               Words{"items", "-a", "disks", "--json"}})
    for (auto const& [query, place, name] :
         {std::tuple("used / sise > 80%", "line 1, column 8: ", "\"sise\""),
          std::tuple("used/sise > 80%", "line 1, column 6: ", "\"sise\""),
          std::tuple("size > 1 and mount/point = 1", "line 1, column 14: ", "\"mount\"")})
    {
      Words words = command;
      words.insert(words.end(), {"--where", query});
      Outcome const outcome = run(words);
      EXPECT_EQ(outcome.exitCode, 2) << query;
      EXPECT_THAT(outcome.errors,
                  AllOf(HasSubstr(place), HasSubstr(name), Not(HasSubstr("no item answers")),
                        Not(HasSubstr("nothing matches"))));
    }
}

TEST_F(TqdiscoctlListTest, numbersAreNumbersAndRepeatedFactsAnArray)
{
  store("web2", "disks",
        document(bare("e", "<Used>5</Used><Use>7%</Use><Fast>true</Fast><Size>much</Size>"
                           "<Path>/a</Path><Path>/b</Path><Path>/c</Path><Rack>42</Rack>")),
        CLIENT);
  json const shown = runJson({"show", "web2", "disks"});
  EXPECT_EQ(shown["items"][0]["facts"], json({{"Used", 5},
                                              {"Use", 7},
                                              {"Fast", true},
                                              {"Size", "much"},
                                              {"Path", {"/a", "/b", "/c"}},
                                              {"Rack", "42"}}));
  EXPECT_EQ(shown["schema"]["Use"], json({{"type", "number"}, {"unit", "%"}, {"description", ""}}));
  EXPECT_FALSE(shown["schema"].contains("Rack"));
  json const list = runJson({"show", "web2", "disks", "--fact-list"});
  EXPECT_EQ(list["items"][0]["facts"][4], json({{"name", "Path"}, {"value", "/a"}}));
  EXPECT_EQ(list["items"][0]["facts"].size(), 8U);
}

TEST_F(TqdiscoctlListTest, factsAreFoundInAnyLetterCase)
{
  store("web3", "cases", document(bare("x", "<Size>1048576</Size>")));
  std::string const shown = run({"items", "-a", "cases", "-c", "Size"}).output;
  EXPECT_THAT(shown, HasSubstr("1.0 MiB"));
  EXPECT_EQ(run({"items", "-a", "cases", "-c", "size"}).output, shown);
}

// The most memory that the command has used so far, in KiB; 0 when it has gone,
// and before it has taken the place of the test's own image.
std::size_t peakOf(pid_t pid)
{
  std::error_code error;
  if (std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe", error).filename() !=
      "tqdiscoctl")
    return 0;
  std::istringstream lines(readText("/proc/" + std::to_string(pid) + "/status"));
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with("VmHWM:"))
      return std::stoul(line.substr(6));
  return 0;
}

TEST_F(TqdiscoctlListTest, manyItemsTakeLittleMemory)
{
#ifdef TQ_PLAIN_BUILD
  constexpr int MANY = 100000;
#else
  constexpr int MANY = 5000; // sanitizers take memory of their own, nothing is measured
#endif
  std::string items;
  for (int i = 0; i < MANY; ++i)
    items += bare("item" + std::to_string(i), "<Used>" + std::to_string(i) + "</Used>");
  // Put in by the command, both it and the service would look through them first;
  // as external they would be taken for what can be asked for, and read twice.
  store("web9", "many", document(item("item", "1", "1", "1%")), CLIENT);
  writeText(m_service.database() + "/2 many web9.dat", document(items));
  Process reader(TQ_BIN_DIR "/tqdiscoctl", {"items", "-a", "many", "--json"},
                 {{"TESSARINE_ROOT", m_service.root()}});
  std::size_t peak = 0;
  while (reader.running())
  {
    peak = std::max(peak, peakOf(reader.pid()));
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_TRUE(reader.wait());
  EXPECT_EQ(reader.exitCode(), 0) << reader.errors();
  EXPECT_THAT(reader.output(), HasSubstr("\"item" + std::to_string(MANY - 1) + "\""));
  EXPECT_EQ(occurrences(reader.output(), "\"Used\": "), MANY + 1U) << "and its schema";
  EXPECT_GT(peak, 0U);
#ifdef TQ_PLAIN_BUILD
  EXPECT_LE(peak, 32U * 1024);
#endif
}

} // namespace
