// What masters give tqpublish that no explorer should write.

#include "tests/system/publish/PublishTesting.h"

#include <fstream>

namespace
{

using namespace tqtest;

// The greatest amount of memory that it had, in MiB.
long greatestMemory(Process const& process)
{
  std::ifstream in("/proc/" + std::to_string(process.pid()) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("VmHWM:"))
      return std::atol(line.c_str() + 6) / 1024;
  return 0;
}

bool hasPlainMemory()
{
#ifdef __SANITIZE_ADDRESS__
  return false;
#else
  return true;
#endif
}

} // namespace

TEST(PublishInputTest, PayloadsThatAreNoneCostTheirOwnItemsAlone)
{
  LiveService service;
  Publishing publishing(service, "PUBLISH_LIMIT_PAYLOAD = 65536\n");
  ASSERT_TRUE(publishing.create());
  ASSERT_TRUE(service.start());
  storeIn(service, "sound", "probe", itemsWith({{"a", "1"}}));
  storeIn(service, "words", "probe", "no XML at all");
  storeIn(service, "cut", "probe", itemsWith({{"whole", "1"}}).substr(0, 113) + "<DISCOVERED");
  storeIn(service, "nul", "probe", std::string("<DiscoveredItems>\0</DiscoveredItems>", 36));
  storeIn(service, "bytes", "probe", itemsWith({{"a", "\xFF\xFE\xC3"}}));
  storeIn(service, "large", "probe", itemsWith({{"a", std::string(70000, 'x')}}));
  std::string const longest(4096, 'n');
  storeIn(service, longest, "probe", itemsWith({{"b\xC3\xBC", "\xE2\x82\xAC"}}));

  Outcome const outcome = publishing.once();
  ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(publishing.sql("select left(subject, 9), length(subject), problem is null, "
                           "unread, digest is null from discovery order by subject"),
            "bytes|5|f|f|f\ncut|3|f|f|f\nlarge|5|f|t|t\nnnnnnnnnn|4096|t|f|f\n"
            "nul|3|f|f|f\nsound|5|t|f|f\nwords|5|f|f|f");
  EXPECT_EQ(publishing.sql("select left(d.subject, 5), i.name, i.facts ->> 'Value' from item i "
                           "join discovery d on d.id = i.discovery_id order by 1"),
            "cut|whole|1\nnnnnn|b\xC3\xBC|\xE2\x82\xAC\nsound|a|1");
  EXPECT_EQ(publishing.sql("select content = '\\x6e6f20584d4c20617420616c6c'::bytea from payload p "
                           "join discovery d using (digest) where subject = 'words'"),
            "t");
  for (char const* const subject : {"words", "cut", "nul", "bytes"})
    EXPECT_THAT(outcome.errors,
                HasSubstr("cannot be parsed to its end: subject " + std::string(subject)));
  EXPECT_THAT(outcome.errors, HasSubstr("cannot be read, or is too large: subject large"));
}

TEST(PublishInputTest, TenMebibytesOfItemsFitIntoSixtyFourOfMemory)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  std::string payload = "<DiscoveredItems>";
  int items = 0;
  for (; payload.size() < (std::size_t(10) << 20); ++items)
    payload += "<DISCOVERED Name=\"item" + std::to_string(items % 9000) +
               "\"><ExplorerData Name=\"probe\"><Value>" + std::string(600, 'v') +
               std::to_string(items) + "</Value></ExplorerData></DISCOVERED>";
  storeIn(service, "large", "probe", payload + "</DiscoveredItems>");
  ASSERT_TRUE(service.start());
  ASSERT_TRUE(publishing.start());
  ASSERT_TRUE(publishing.awaitSql("select count(*) from item", std::to_string(items)))
      << publishing.log();
  if (hasPlainMemory())
  {
    EXPECT_LE(greatestMemory(publishing.process()), 64);
  }
  EXPECT_EQ(publishing.sql("select sha256(content) = digest from payload"), "t");
  EXPECT_EQ(publishing.stop(), 0) << publishing.log();
}

// A value that a table does not take, for whatever reason, is that of its record alone.
TEST(PublishInputTest, ValuesThatAreRefusedCostTheirRecordAlone)
{
  LiveService service;
  Publishing publishing(service);
  ASSERT_TRUE(publishing.create());
  publishing.sql("alter table item add check (facts ->> 'Value' <> '7')");
  ASSERT_TRUE(service.start());
  for (int i = 0; i < 10; ++i)
    storeIn(service, "web" + std::to_string(i), "probe", itemsWith({{"a", std::to_string(i)}}));
  Outcome const outcome = publishing.once();
  ASSERT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.errors, HasSubstr("kept without its items: subject web7"));
  EXPECT_EQ(publishing.sql("select count(*) from item"), "9");
  EXPECT_EQ(publishing.sql("select subject from discovery where problem like '%item_facts_check%'"),
            "web7");
}
