// tqdiscoctl against a running service with the explorers that come with the product.

#include "tests/support/CommandTest.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class TqdiscoctlExplorersTest : public CommandTest
{
protected:
  TqdiscoctlExplorersTest() : CommandTest(LiveService::WITH_EXPLORERS) {}

  void SetUp() override
  {
    CommandTest::SetUp();
    // The last of all that report by themselves.
    ASSERT_TRUE(eventually(
        [this]
        {
          return run({"query", "--authority", "volume-filter", "--type", "external"}).exitCode ==
                     0 &&
                 run({"query", "--authority", "service", "--type", "client"}).exitCode == 0;
        },
        std::chrono::seconds(60)))
        << m_service.log();
  }
};

TEST_F(TqdiscoctlExplorersTest, statusTellsRoleVersionAndTheExplorersLastResults)
{
  // The service explorer reports again after the others have run.
  auto const result = [](json const& status, std::string const& name) -> std::string
  {
    for (auto const& service : status["services"])
      for (auto const& explorer : service["explorers"])
        if (explorer["name"] == name)
          return explorer["facts"]["LastResult"];
    return "(absent)";
  };
  json const status = runJson({"status"});
  ASSERT_EQ(status["services"].size(), 1U);
  json const& service = status["services"][0];
  EXPECT_EQ(service["subject"], LiveService::NAME);
  EXPECT_EQ(service["service"]["facts"]["Role"], "master");
  EXPECT_EQ(service["service"]["facts"]["Version"], TQ_VERSION);
  EXPECT_GT(service["service"]["facts"]["StoredDiscoveries"].get<int>(), 0);
  EXPECT_EQ(result(status, "filesystem"), "success");
  EXPECT_EQ(result(status, "host"), "success");
  EXPECT_EQ(result(status, "service"), "(absent)");
  EXPECT_GT(status["discoveries"].get<int>(), 4);

  Outcome const text = run({"status"});
  EXPECT_EQ(text.exitCode, 0) << text.errors;
  EXPECT_THAT(text.output, AllOf(HasSubstr("master"), HasSubstr("LAST RESULT"),
                                 HasSubstr("filesystem"), HasSubstr("success")));
}

TEST_F(TqdiscoctlExplorersTest, volumesAreReadOnDemandAndTheQueryIsHonoured)
{
  json const records = runJson({"query", "--authority", "vol*", "--type", "client"});
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0]["onDemand"], true);
  EXPECT_EQ(records[0]["discoveryTime"], nullptr);
  json const all = runJson({"show", LiveService::NAME, "volume", "--type", "client"});
  EXPECT_EQ(all["complete"], true);
  json const none =
      runJson({"show", LiveService::NAME, "volume", "--type", "client", "--where", "size < 0"}, 3);
  EXPECT_THAT(none["items"], IsEmpty());
}

// The registration of a host whose name is greater stands after the master's.
TEST_F(TqdiscoctlExplorersTest, volumesOfTheMasterBehindWhichAnotherHostsStandAreRead)
{
  {
    client::Client other(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(other.connected());
    other->registerExplorer("zulu", "DiscoveryService", "zulu", "volume", client::AT_TQUCLIENT, 10);
  }
  for (char const* const form : {"--xml", "--raw", "--json"})
  {
    Words const words{"show", LiveService::NAME, "volume", "--type", "client", form};
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_THAT(outcome.output, HasSubstr("volume"));
  }
  EXPECT_THAT(m_service.log(), HasSubstr("Fount too many matching discoveries"));
}

TEST_F(TqdiscoctlExplorersTest, pseudoFileSystemsAreListedOnlyWhenTheyAreAskedFor)
{
  Outcome const few = run({"items", "--authority", "filesystem", "--columns", "Kind"});
  EXPECT_EQ(few.exitCode, 0) << few.errors;
  EXPECT_THAT(few.output, Not(HasSubstr("pseudo")));
  EXPECT_THAT(few.errors, HasSubstr("not listed: --all lists every one"));
  for (Words const& more : {Words{"--all"}, Words{"--where", "kind = pseudo"}, Words{"--json"}})
  {
    Words words{"items", "--authority", "filesystem"};
    words.insert(words.end(), more.begin(), more.end());
    Outcome const outcome = run(words);
    EXPECT_THAT(outcome.output, HasSubstr("pseudo"));
    EXPECT_THAT(outcome.errors, Not(HasSubstr("not listed")));
  }
}

TEST_F(TqdiscoctlExplorersTest, packagesAreListedOnlyWhenSoftwareIsWhatIsAskedFor)
{
  store("other", "software",
        itemsDocument("<DISCOVERED Name=\"oddlib\"><ExplorerData Name=\"software\"><Package>oddlib"
                      "</Package><Version>1</Version></ExplorerData></DISCOVERED>"),
        {"--type", "client"});
  Outcome const few = run({"items", "--subject", "other"});
  EXPECT_EQ(few.exitCode, 0) << few.errors;
  EXPECT_THAT(few.output, Not(HasSubstr("oddlib")));
  EXPECT_THAT(few.errors, HasSubstr("1 package is not listed: --authority software lists"));
  for (Words const& more : {Words{"--authority", "software"}, Words{"--all"},
                            Words{"--where", "package = oddlib"}, Words{"--json"}})
  {
    Words words{"items", "--subject", "other"};
    words.insert(words.end(), more.begin(), more.end());
    Outcome const outcome = run(words);
    EXPECT_THAT(outcome.output, HasSubstr("oddlib"));
    EXPECT_THAT(outcome.errors, Not(HasSubstr("not listed")));
  }
}

TEST_F(TqdiscoctlExplorersTest, patternsMatchPullExplorersAsTheyMatchTheDatabase)
{
  store("other", "volume", itemsDocument(""), {"--type", "client"});
  auto const find = [this](std::string const& subject, std::string const& authority)
  {
    return subjectsOf(
        runJson({"query", "--type", "client", "--subject", subject, "--authority", authority}));
  };
  std::string const host = LiveService::NAME;
  EXPECT_THAT(find("*", "volume"), ElementsAre("other", host));
  EXPECT_THAT(find(host.substr(0, 4) + "*", "volume"), ElementsAre(host));
  EXPECT_THAT(find("oth*", "vol*"), ElementsAre("other"));
  EXPECT_THAT(find("*er", "*lume"), ElementsAre("other", host));
  EXPECT_THAT(find("*ther", "v*"), ElementsAre("other"));
}

TEST_F(TqdiscoctlExplorersTest, filtersTellWhatCanBeAskedFor)
{
  json const attributes = runJson({"filters", LiveService::NAME, "filesystem"});
  auto const size = std::find_if(attributes.begin(), attributes.end(),
                                 [](json const& each) { return each["name"] == "Size"; });
  ASSERT_NE(size, attributes.end());
  EXPECT_EQ((*size)["type"], "size");
  EXPECT_EQ((*size)["unit"], "bytes");
  EXPECT_THAT(run({"filters", LiveService::NAME, "filesystem", "--xml"}).output,
              HasSubstr("<QueryDescription>\n  <Attribute Name=\"MountPoint\""));
  // Of a collection on demand it is stored beside, under a name of its own.
  json const volume = runJson({"filters", LiveService::NAME, "volume"});
  EXPECT_TRUE(std::any_of(volume.begin(), volume.end(),
                          [](json const& each) { return each["name"] == "SectorSize"; }))
      << volume;
  // The service gives neither of two collections of one name.
  std::string const filterData = "<FilterData><QueryDescription><Attribute Name=\"a\"/>"
                                 "</QueryDescription></FilterData>";
  store(LiveService::NAME, "volume", filterData, {"--filter-data"});
  Outcome const shadowed = run({"show", LiveService::NAME, "volume", "--type", "external"});
  EXPECT_EQ(shadowed.exitCode, 1);
  EXPECT_THAT(shadowed.output, IsEmpty());
  EXPECT_THAT(shadowed.errors, HasSubstr("tqdiscoctl db show"));
  EXPECT_THAT(run({"filters", LiveService::NAME, "service"}).output,
              AllOf(HasSubstr("LastResult"), HasSubstr("DESCRIPTION")));
  EXPECT_EQ(run({"query", "--filter-data", "--authority", "filesystem"}).exitCode, 0);
}

TEST_F(TqdiscoctlExplorersTest, sizesAreReadable)
{
  Outcome const table = run({"items", "--authority", "filesystem", "--type", "client", "--where",
                             "size > 0", "--columns", "Size"});
  EXPECT_EQ(table.exitCode, 0) << table.errors;
  EXPECT_THAT(table.output, testing::ContainsRegex("[0-9] [KMGT]iB\n"));
}

} // namespace
