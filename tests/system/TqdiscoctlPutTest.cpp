// Facts of one's own, put in without XML and beside what explorers store.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::HasSubstr;

class TqdiscoctlPutTest : public CommandTest
{
};

TEST_F(TqdiscoctlPutTest, factsMakeAPayload)
{
  Outcome const outcome = run({"put", "web1", "rack", "Row=7", "Note=a < b & \"c\"=d", "Empty="});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  json const shown = runJson({"show", "web1", "rack"});
  EXPECT_EQ(shown["items"][0]["name"], "web1");
  EXPECT_EQ(shown["items"][0]["facts"],
            json({{"Row", "7"}, {"Note", "a < b & \"c\"=d"}, {"Empty", ""}}));
  for (Words const& mistake : {Words{"Row=7", "file"}, Words{"a", "b"}, Words{"Row=7", "7=Row"}})
  {
    Words words{"put", "web1", "rack"};
    words.insert(words.end(), mistake.begin(), mistake.end());
    Outcome const refused = run(words);
    EXPECT_EQ(refused.exitCode, 2) << refused.output;
    EXPECT_THAT(refused.errors, HasSubstr("KEY=VALUE"));
  }
}

TEST_F(TqdiscoctlPutTest, aPayloadIsStoredWholeInCallsOfAnySize)
{
  std::string text;
  for (int i = 0; text.size() < std::size_t(3) << 20; ++i)
    text += std::to_string(i) + '\n';
  writeText(m_service / "payload", text);
  for (std::string const size : {"1", "1000", "1048576"})
  {
    // A call for every byte takes its time.
    std::string const part = size == "1" ? text.substr(0, 500) : text;
    writeText(m_service / "payload", part);
    m_service.configure("COLLECTION_WRITE_SIZE = " + size + "\n");
    Outcome const stored = run({"put", "web1", "disks", m_service / "payload", "--unchecked"});
    EXPECT_EQ(stored.exitCode, 0) << size << ": " << stored.errors;
    EXPECT_TRUE(run({"show", "web1", "disks", "--raw"}).output == part) << size;
  }
}

TEST_F(TqdiscoctlPutTest, whatCanBeAskedForIsNotReplacedUnlessToldSo)
{
  store("web1", "disks",
        "<FilterData><QueryDescription><Attribute Name=\"Size\"/></QueryDescription></FilterData>",
        {"--filter-data"});
  EXPECT_EQ(runJson({"put", "web1", "disks", "Size=1"})["typeName"], "server");
  EXPECT_EQ(runJson({"filters", "web1", "disks"})[0]["name"], "Size");
  EXPECT_EQ(runJson({"show", "web1", "disks"})["items"][0]["facts"]["Size"], "1");
  EXPECT_EQ(runJson({"put", "web1", "other", "Size=1"})["typeName"], "external");
  EXPECT_EQ(runJson({"put", "web1", "disks", "Size=1", "--type", "external"})["typeName"],
            "external");
  EXPECT_EQ(runJson({"show", "web1", "disks", "--type", "external"})["attributes"], json::array());
}

TEST_F(TqdiscoctlPutTest, aPayloadIsCheckedInLittleMemory)
{
  constexpr int DEPTH = 240;
  constexpr std::size_t SIZE = 2 << 20;
  std::string payload;
  for (int i = 0; i < DEPTH; ++i)
    payload += "<a>";
  while (payload.size() < SIZE)
    payload += "<b/>";
  for (int i = 0; i < DEPTH; ++i)
    payload += "</a>";
  store("web1", "deep", payload, {"--type", "client"});
#ifdef TQ_PLAIN_BUILD
  EXPECT_LT(largestChild(), 48);
#endif
  EXPECT_EQ(run({"show", "web1", "deep", "--raw"}).output, payload);
}

} // namespace
