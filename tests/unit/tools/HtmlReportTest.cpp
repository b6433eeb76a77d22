#include "tools/HtmlReport.h"

#include "tests/support/ListedRecords.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
using namespace tqdiscoctl;
using testing::HasSubstr;
using testing::Not;
using tqtest::LISTED_AT;
using tqtest::listedRecord;

namespace
{

Item itemWith(std::string const& name, Item::Facts facts)
{
  Item item;
  item.name = name;
  item.facts = std::move(facts);
  return item;
}

struct ReportInput
{
  Fleet fleet{OzfObjTime(LISTED_AT)};
  SilentHosts silent;
  std::vector<ServiceState> services;
  std::vector<FullFileSystem> full;

  // A host with everything that a report tells of.
  void addPoorHost(std::string const& name)
  {
    fleet.add(listedRecord(name, "host", 5000));
    silent[name] = OzfObjTime(LISTED_AT - 5000);
    ServiceState state;
    state.record = listedRecord(name, "service", 20);
    state.service = itemWith(name, {{"Kind", "service"},
                                    {"Version", name},
                                    {"CertificateEnd", "2027-01-20T00:00:00Z"},
                                    {"AwaitsRestart", name}});
    state.explorers.push_back(itemWith(name, {{"Kind", "push"},
                                              {"Type", name},
                                              {"LastRun", "2027-01-15T00:00:00Z"},
                                              {"LastResult", name}}));
    state.clones.push_back(itemWith(name, {{"Kind", "clone"}, {"Machines", name}}));
    state.complete = true;
    services.push_back(std::move(state));
    full.push_back({name, name, name, 97, false, std::uint64_t(1) << 40, 12345});
  }

  std::string html() const { return htmlReport({"backup1:27511", fleet, silent, services, full}); }
};

std::size_t tagsNamed(std::string const& html, std::string const& tag)
{
  std::regex const open("<" + tag + "[ >]");
  return static_cast<std::size_t>(
      std::distance(std::sregex_iterator(html.begin(), html.end(), open), std::sregex_iterator()));
}

} // namespace

TEST(HtmlReport, tellsOfHostsThatNeedALookAndOfNoOthers)
{
  ReportInput input;
  input.addPoorHost("web1");
  for (int i = 0; i < 20; ++i)
    input.fleet.add(listedRecord("healthy" + std::to_string(i), "host", 10));
  std::string const html = input.html();
  EXPECT_THAT(html, HasSubstr("<b>21</b><span>hosts</span>"));
  EXPECT_THAT(html, HasSubstr("<b>1</b><span>silent</span>"));
  EXPECT_THAT(html, HasSubstr("<b>1</b><span>explorers that fail</span>"));
  EXPECT_THAT(html, HasSubstr("<b>1</b><span>file systems nearly full</span>"));
  EXPECT_THAT(html, HasSubstr("<b>1h 23m</b>"));
  EXPECT_THAT(html, HasSubstr("97%"));
  EXPECT_THAT(html, HasSubstr("1.0 TiB"));
  EXPECT_THAT(html, HasSubstr("up to 1 min: 20"));
  EXPECT_THAT(html, Not(HasSubstr("healthy")));
  EXPECT_EQ(tagsNamed(html, "svg"), 2U);
}

TEST(HtmlReport, saysWhatIsWell)
{
  ReportInput const input;
  std::string const html = input.html();
  for (char const* const text : {"No host is silent.", "No explorer failed at its last run.",
                                 "No local file system is filled to 90%."})
    EXPECT_THAT(html, HasSubstr(text));
}

TEST(HtmlReport, saysWhatIsMissing)
{
  ReportInput const input;
  std::string const html =
      htmlReport({"backup1", input.fleet, input.silent, input.services, input.full, 3, false});
  EXPECT_THAT(html, HasSubstr("3 discoveries could not be read"));
  EXPECT_THAT(html, HasSubstr("may not be whole"));
  EXPECT_THAT(input.html(), Not(HasSubstr("class=\"notice\"")));
}

TEST(HtmlReport, namesAreTextWhateverTheyHold)
{
  ReportInput plain;
  plain.addPoorHost("web1");
  std::size_t const elements = tagsNamed(plain.html(), "[a-z0-9]+");
  for (std::string const& name :
       {std::string("<script>alert(1)</script>"), std::string("\"><img src=x onerror=alert(1)>"),
        std::string("'><svg onload=alert(1)>"), std::string("\u202Ekcatta\u202C\u200F"),
        std::string("two\nlines\r\n"), std::string("\xff\xc0\x80"), std::string(4096, 'n'),
        std::string("&lt;b&gt;")})
  {
    ReportInput input;
    input.addPoorHost(name);
    std::string const html = input.html();
    EXPECT_EQ(tagsNamed(html, "[a-z0-9]+"), elements) << name;
    EXPECT_EQ(tagsNamed(html, "script"), 0U);
    EXPECT_THAT(html, Not(HasSubstr("\u202E")));
    EXPECT_THAT(html, Not(HasSubstr("\u200F")));
    EXPECT_THAT(html, Not(HasSubstr("two\nlines")));
    EXPECT_THAT(html, Not(HasSubstr(std::string(300, 'n'))));
  }
}

TEST(HtmlReport, needsNothingFromOutside)
{
  ReportInput input;
  input.addPoorHost("web1");
  std::string const html = input.html();
  EXPECT_THAT(html, HasSubstr("default-src 'none'"));
  for (char const* const text : {"http:", "https:", "src=", "href=", "url(", "@import", "<script"})
    EXPECT_THAT(html, Not(HasSubstr(text)));
}

TEST(HtmlReport, tenThousandHostsFitIntoItsSize)
{
  ReportInput input;
  for (int i = 0; i < 10'000; ++i)
  {
    // Each byte of these takes six in the page.
    std::string name = std::to_string(i) + std::string(200, '"');
    name.resize(4096, '\'');
    input.addPoorHost(name);
  }
  std::string const html = input.html();
  EXPECT_LE(html.size(), LARGEST_REPORT);
  EXPECT_THAT(html, HasSubstr("<b>10,000</b><span>silent</span>"));
  EXPECT_THAT(html, HasSubstr("and 9,000 more"));
  EXPECT_TRUE(html.ends_with("</html>\n"));
}

TEST(HtmlReport, aFileSystemIsFullThatIsLocalAndCanBeWritten)
{
  Item::Facts const facts{{"Kind", "local"}, {"Type", "ext4"}, {"Options", "rw,relatime"},
                          {"Size", "1000"},  {"Use", "93%"},   {"Available", "70"}};
  auto const with = [&facts](char const* name, char const* value)
  {
    Item item = itemWith("/srv", facts);
    for (auto& [known, old] : item.facts)
      if (known == name)
      {
        old = value;
        return item;
      }
    item.facts.emplace_back(name, value);
    return item;
  };
  FullFileSystem found;
  ASSERT_TRUE(isFull(itemWith("/srv", facts), found));
  EXPECT_EQ(found.mountPoint, "/srv");
  EXPECT_EQ(found.use, 93U);
  EXPECT_EQ(found.available, 70U);
  EXPECT_FALSE(isFull(with("Kind", "memory"), found));
  EXPECT_FALSE(isFull(with("Options", "relatime,ro"), found));
  EXPECT_TRUE(isFull(with("Options", "rw,errors=remount-ro"), found));
  EXPECT_FALSE(isFull(with("Use", "89%"), found));
  EXPECT_FALSE(isFull(with("Use", "rather full"), found));
  Item manyFiles = with("Use", "5%");
  manyFiles.facts.emplace_back("Inodes", "1000");
  manyFiles.facts.emplace_back("InodesUsed", "990");
  ASSERT_TRUE(isFull(manyFiles, found));
  EXPECT_TRUE(found.inodes);
  EXPECT_EQ(found.use, 99U);
}
