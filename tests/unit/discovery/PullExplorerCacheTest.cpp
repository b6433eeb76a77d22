#include "discovery/PullExplorerCache.h"

#include "discovery/CachedRegistrations.h"
#include "ozf/base/OzfHostname.h"
#include "tests/support/FakeDiscoveries.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

using namespace tqtest;

namespace
{

constexpr char RESTORE_CACHE[] = "DiscoveryRepository::loadPullExplorerCache";

struct Incomplete : FakeIterator
{
  Incomplete() : DiscoveryIterator(AT_ANYANDALL, "*", "*") { setIncomplete(); }
};

struct PullExplorerCacheTest : testing::Test
{
  TempDir root;
  LogCapture log;
  void SetUp() override
  {
    setenv("TESSARINE_ROOT", root.path().c_str(), 1);
    std::filesystem::create_directories(root / "etc");
    writeText(root / "etc/tq.conf", "SERVER = here\nCLIENT_NAME = here\n");
  }

  // What is restored of records with these texts: host, priority and subject.
  static std::vector<std::string> restored(std::vector<std::string> const& texts,
                                           bool incomplete = false)
  {
    AutoDereference<FakeIterator> const records(incomplete ? new Incomplete : new FakeIterator);
    int number = 0;
    for (std::string const& text : texts)
      records->add(new FakeDiscovery("s" + std::to_string(++number), text));
    std::vector<std::string> found;
    CachedRegistrations cached;
    restorePullRegistrations(
        *records, cached,
        [&](RemoteExplorerPull const& explorer, unsigned priority, Discovery const& record)
        {
          found.push_back(explorer.getHost().exportNarrow() + " " + std::to_string(priority) + " " +
                          record.getSubject()->getName().str());
        });
    return found;
  }
};

using Restored = std::vector<std::string>;

} // namespace

TEST_F(PullExplorerCacheTest, TheDocumentHasTheFourValuesInTheirOrder)
{
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?><DiscoveredItems><SourceHost>far &amp; "
            "away</SourceHost><ServiceName>DiscoveryService</ServiceName><Priority>4294967295"
            "</Priority><OriginType>2</OriginType></DiscoveredItems>\n",
            pullRegistrationText({"far & away", "DiscoveryService", 4294967295U, AT_TQUCLIENT}));
}

TEST_F(PullExplorerCacheTest, WhatWasWrittenIsReadBack)
{
  auto const read = readPullRegistration(
      pullRegistrationText({"far & away", "Other", 4294967295U, AT_REMOTEPULL}));
  ASSERT_TRUE(read);
  EXPECT_EQ("far & away", read->sourceHost);
  EXPECT_EQ("Other", read->serviceName);
  EXPECT_EQ(4294967295U, read->priority);
  EXPECT_EQ(AT_REMOTEPULL, read->originType);
  EXPECT_FALSE(readPullRegistration("<DiscoveredItems><SourceHost>far</SourceHost>"
                                    "</DiscoveredItems>"));
  EXPECT_FALSE(readPullRegistration("none"));
}

TEST_F(PullExplorerCacheTest, RecordsThatCannotBeReadArePassedOver)
{
  auto const text = [](std::string const& host) {
    return pullRegistrationText({host, "DiscoveryService", 7, AT_TQUCLIENT});
  };
  // A megabyte of white space behind it: no registration of ours.
  EXPECT_EQ(
      (Restored{"far 7 s1", "farther 7 s4"}),
      restored({text("far"), "none", text("large") + std::string(1 << 20, ' '), text("farther")}));
  EXPECT_EQ(std::string::npos, log.text().find(RESTORE_CACHE)) << log.text();
}

// Names of hosts differ by case in spelling only.
TEST_F(PullExplorerCacheTest, ARegistrationOfThisHostIsPassedOverWhateverItsCase)
{
  OzfHostname::overrideLocal("here");
  EXPECT_EQ((Restored{"heron 7 s3"}),
            restored({pullRegistrationText({"HERE", "DiscoveryService", 7, AT_TQUCLIENT}),
                      pullRegistrationText({"Here", "DiscoveryService", 7, AT_TQUCLIENT}),
                      pullRegistrationText({"heron", "DiscoveryService", 7, AT_TQUCLIENT})}));
  for (char const* const passedOver : {"s1 and authority authority: it names this host, HERE",
                                       "s2 and authority authority: it names this host, Here"})
    EXPECT_EQ(
        1, log.count(1, RESTORE_CACHE,
                     std::string("Passed over the cached registration of subject ") + passedOver))
        << log.text();
}

TEST_F(PullExplorerCacheTest, ALineTellsOfRecordsThatAreMissing)
{
  EXPECT_EQ(Restored(), restored({}, true));
  EXPECT_TRUE(
      log.has(1, RESTORE_CACHE, "Some cached registrations are missing, they could not be read"))
      << log.text();
}
