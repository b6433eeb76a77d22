// What a user may get wrong with tqdiscoctl does not pass for something else.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class TqdiscoctlMistakesTest : public CommandTest
{
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
