// What a user may get wrong with tqdiscoctl does not pass for something else.

#include "tests/support/LiveService.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using Words = std::vector<std::string>;

class TqdiscoctlMistakesTest : public testing::Test
{
protected:
  void SetUp() override { ASSERT_TRUE(m_service.start()) << m_service.log(); }
  void TearDown() override { EXPECT_EQ(m_service.stop(), 0) << m_service.log(); }

  Outcome run(Words const& words) const { return m_service.tqdiscoctl(words); }

  void store(std::string const& subject, std::string const& authority, std::string const& payload)
  {
    writeText(m_service / "payload", payload);
    Outcome const outcome = run({"put", subject, authority, m_service / "payload"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  }

  LiveService m_service;
};

TEST_F(TqdiscoctlMistakesTest, anEmptyValueMeansNeitherTheMasterNorEverything)
{
  store("web1", "disks", "<DiscoveredItems/>");
  for (Words const& words : std::vector<Words>{{"stop", "--host", ""},
                                               {"push", "--host", ""},
                                               {"query", "--master", ""},
                                               {"--master", "", "stop"},
                                               {"show", "", "disks"},
                                               {"show", "web1", ""},
                                               {"show", "web1", "disks", "--type", ""},
                                               {"filters", "", "disks"},
                                               {"query", "--subject", ""},
                                               {"items", "--authority", ""},
                                               {"items", "--columns", ""},
                                               {"hosts", "--subject", ""},
                                               {"put", "", "disks", m_service / "payload"},
                                               {"put", "web1", "", m_service / "payload"},
                                               {"db", "show", "", "disks"},
                                               {"db", "list", "--directory", ""}})
  {
    Outcome const outcome = run(words);
    EXPECT_EQ(outcome.exitCode, 2) << words[0] << ' ' << words[1];
    EXPECT_THAT(outcome.output, IsEmpty()) << words[0] << ' ' << words[1];
    EXPECT_THAT(outcome.errors, AllOf(HasSubstr("an empty value names nothing"),
                                      HasSubstr(" --help\" tells what there is")))
        << words[0] << ' ' << words[1];
  }
  EXPECT_TRUE(m_service.process().running());
  EXPECT_EQ(run({"query", "--subject", "web1"}).exitCode, 0);
  EXPECT_EQ(run({"items", "--where", ""}).exitCode, run({"items"}).exitCode);
}

} // namespace
