// What an operator is told of a service whose disk fails: never that nothing is
// there, and never half a payload.

#include "discovery/Discoveries.h"
#include "ozf/config/Configuration.h"
#include "tests/support/LiveService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::string>;

constexpr char SENTENCE[] = "the list is incomplete: the service could not read all that it has";

class TqdiscoctlIncompleteTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(m_service.start({{"LD_PRELOAD", TQ_FIXTURE_DIR "/libfailing_files.so"},
                                 {"ASAN_OPTIONS", "verify_asan_link_order=0"},
                                 {"TQ_FAILING_FILES", m_rule}}))
        << m_service.log();
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    for (char const* const subject : {"one", "two"})
      ASSERT_EQ(client.store(subject, "kept", m_payload), client::DS_SUCCESS);
  }

  // Sets in at once. touched is what the service is to look at again: it knows what
  // the files say that did not change.
  void fail(std::string const& rule, char const* touched = nullptr) const
  {
    namespace fs = std::filesystem;
    writeText(m_rule + ".new", rule);
    fs::rename(m_rule + ".new", m_rule);
    if (touched == nullptr)
      return;
    std::string const path = m_service / (std::string("db/discovery/") + touched);
    fs::last_write_time(path, fs::last_write_time(path));
  }

  LiveService m_service;
  std::string const m_rule = m_service / "failing";
  std::string const m_payload =
      "<DiscoveredItems>" + std::string(150'000, ' ') + "</DiscoveredItems>";
};

} // namespace

TEST_F(TqdiscoctlIncompleteTest, aListSaysThatItIsIncompleteAndExitsWith4)
{
  EXPECT_EQ(m_service.tqdiscoctl({"query"}).exitCode, 0);
  fail("open 2 kept two.xml", "2 kept two.xml");
  for (Words const& words : {Words{"query"}, Words{"query", "--json"}, Words{"hosts"},
                             Words{"items"}, Words{"status"}, Words{"watch", "--looks", "1"}})
  {
    Outcome const outcome = m_service.tqdiscoctl(words);
    EXPECT_EQ(outcome.exitCode, 4) << words[0] << outcome.errors;
    EXPECT_EQ(occurrences(outcome.errors, SENTENCE), 1U) << words[0] << outcome.errors;
  }
  Outcome const listed = m_service.tqdiscoctl({"query"});
  EXPECT_THAT(listed.output, HasSubstr("one"));
  EXPECT_THAT(listed.output, Not(HasSubstr("two")));

  // Not "nothing matches", although nothing is listed.
  fail("readdir db/discovery", "");
  for (Words const& words : {Words{"query"}, Words{"hosts"}, Words{"items"},
                             Words{"show", "one", "kept"}, Words{"filters", "one", "kept"}})
  {
    Outcome const outcome = m_service.tqdiscoctl(words);
    EXPECT_EQ(outcome.exitCode, 4) << words[0] << outcome.errors;
    EXPECT_EQ(occurrences(outcome.errors, SENTENCE), 1U) << words[0] << outcome.errors;
    EXPECT_THAT(outcome.errors, Not(HasSubstr("nothing matches")));
  }
  std::filesystem::remove(m_rule);
  EXPECT_EQ(m_service.tqdiscoctl({"query"}).exitCode, 0);
}

// What is missing is no fault of what was read.
TEST_F(TqdiscoctlIncompleteTest, aProgramIsToldThatTheMasterIsAtFault)
{
  fail("open 2 kept two.xml", "2 kept two.xml");
  using namespace Quillon::Tessarine::Ozf;
  LogCapture const log; // keeps lines out of the output
  setenv("TESSARINE_ROOT", m_service.root().c_str(), 1);
  reloadConfiguration();
  DiscoverySvc::Discoveries discoveries;
  auto items = discoveries.items("kept");
  EXPECT_EQ(items.begin(), std::default_sentinel);
  ASSERT_EQ(discoveries.problems().size(), 1U);
  EXPECT_EQ(discoveries.problems()[0].fault, DiscoverySvc::DiscoveryProblem::Fault::MASTER);
  EXPECT_THAT(discoveries.problems()[0].text, HasSubstr("some discoveries may be missing"));
}

TEST_F(TqdiscoctlIncompleteTest, aPayloadThatCannotBeReadIsAFailureAndNotAShortOne)
{
  fail("read 2 kept two.dat");
  Outcome const outcome = m_service.tqdiscoctl({"show", "two", "kept", "--raw"});
  EXPECT_EQ(outcome.exitCode, 1) << outcome.errors;
  EXPECT_EQ(outcome.output, "");
  EXPECT_THAT(outcome.errors, HasSubstr("could be read"));
  EXPECT_EQ(m_service.tqdiscoctl({"show", "one", "kept", "--raw"}).output, m_payload);
  std::filesystem::remove(m_rule);
  EXPECT_EQ(m_service.tqdiscoctl({"show", "two", "kept", "--raw"}).output, m_payload);
}

// Where explorers store what can be asked for, a payload of the same names would
// take its place.
TEST_F(TqdiscoctlIncompleteTest, whatCannotBeLookedAtIsNotReplacedByAPayloadOfNoType)
{
  writeText(m_service / "filter",
            "<FilterData><QueryDescription><Attribute Name=\"Size\"/></QueryDescription>"
            "</FilterData>");
  ASSERT_EQ(
      m_service.tqdiscoctl({"put", "one", "kept", m_service / "filter", "--filter-data"}).exitCode,
      0);
  std::string const stored = readText(m_service.database() + "/3 kept one.dat");
  Words const put{"put", "one", "kept", "Size=1"};
  for (char const* const rule :
       {"read 3 kept one.dat", "open 3 kept one.dat", "open 3 kept one.xml"})
  {
    fail(rule);
    Outcome const outcome = m_service.tqdiscoctl(put);
    EXPECT_EQ(outcome.exitCode, 1) << rule << outcome.output;
    EXPECT_THAT(outcome.errors, HasSubstr("choose a type with --type")) << rule;
    EXPECT_EQ(readText(m_service.database() + "/3 kept one.dat"), stored) << rule;
  }
  // Of an incomplete list that has it, it is taken.
  fail("open 2 kept one.xml");
  Outcome const server = m_service.tqdiscoctl(put);
  EXPECT_EQ(server.exitCode, 0) << server.errors;
  EXPECT_THAT(server.output, HasSubstr("(server)"));
  std::filesystem::remove(m_rule);
  EXPECT_EQ(readText(m_service.database() + "/3 kept one.dat"), stored);
}

// What is no XML tells nobody what can be asked for.
TEST_F(TqdiscoctlIncompleteTest, aPayloadThatIsNoXmlIsReplacedByOneOfNoType)
{
  writeText(m_service / "plain", "no XML");
  for (int i = 0; i < 2; ++i)
  {
    Outcome const outcome =
        m_service.tqdiscoctl({"put", "two", "plain", m_service / "plain", "--unchecked"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    EXPECT_THAT(outcome.output, HasSubstr("(external)"));
  }
}
