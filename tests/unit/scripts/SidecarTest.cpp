#include "scripts/Sidecar.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::Scripts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

class SidecarTest : public testing::Test
{
protected:
  std::vector<std::string> read(std::string const& text)
  {
    writeText(m_path, text);
    m_sidecar = {};
    return readSidecar(m_path, m_sidecar);
  }

  TempDir m_folder;
  std::string m_path = m_folder / "disks.conf";
  Sidecar m_sidecar;
};

TEST_F(SidecarTest, saysWhenAndAsWhomItRuns)
{
  EXPECT_THAT(read("# of ours\nINTERVAL = 10m\nTIMEOUT=2s\nPRIORITY = 20\nEXPIRY = 1h\n"
                   "USER = nobody\n"),
              IsEmpty());
  EXPECT_EQ(m_sidecar.interval, 600);
  EXPECT_EQ(m_sidecar.timeout, 2);
  EXPECT_EQ(m_sidecar.priority, 20U);
  EXPECT_EQ(m_sidecar.expiry, 3600);
  EXPECT_EQ(m_sidecar.user, "nobody");
  EXPECT_THAT(read(""), IsEmpty());
  EXPECT_EQ(m_sidecar.interval, 300);
  EXPECT_EQ(m_sidecar.timeout, 30);
  EXPECT_EQ(m_sidecar.priority, 10U);
  EXPECT_FALSE(m_sidecar.expiry);
}

TEST_F(SidecarTest, describesFacts)
{
  EXPECT_THAT(
      read("TEXT.pool.used = What is in use\nKIND.pool.used = size\nUNIT.pool.used = bytes\n"
           "KIND.age = duration\n"),
      IsEmpty());
  ASSERT_EQ(m_sidecar.facts.size(), 2U);
  EXPECT_EQ(m_sidecar.facts[0].name.str(), "age");
  EXPECT_EQ(m_sidecar.facts[0].type, OzfQuery::Type::DURATION);
  EXPECT_EQ(m_sidecar.facts[1].name.str(), "pool.used");
  EXPECT_EQ(m_sidecar.facts[1].type, OzfQuery::Type::SIZE);
  EXPECT_EQ(m_sidecar.facts[1].unit.str(), "bytes");
  EXPECT_EQ(m_sidecar.facts[1].description.str(), "What is in use");
}

TEST_F(SidecarTest, namesEachMistakeWithItsLine)
{
  auto const at = [this](int line, char const* text)
  { return HasSubstr(m_path + ":" + std::to_string(line) + ": " + text); };
  EXPECT_THAT(
      read("nonsense\nINTERVAL = 4s\nTIMEOUT = 2h\nPRIORITY = -1\nEXPIRY = soon\nUSER =\n"
           "Interval = 1m\nKIND.x = bytes\nKIND.x = text\nKIND.a b = text\nKIND.<a> = text\n"),
      ElementsAre(at(1, "no '='"), at(10, "white space"), at(2, "\"4s\" is not accepted"),
                  at(3, "\"2h\" is not accepted"), at(4, "\"-1\" is no priority"),
                  at(5, "\"soon\" is not accepted"), at(6, "USER names nobody"),
                  at(7, "unknown key \"Interval\""), at(8, "\"bytes\" is no kind"),
                  at(9, "KIND.x is given again"), at(11, "\"<a>\" is no name of a fact")));
  EXPECT_THAT(read("UNIT.x = bytes\n"),
              ElementsAre(HasSubstr("the fact x is described without its kind; add KIND.x")));
}

} // namespace
