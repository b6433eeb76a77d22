// What a service tells of itself and of its own explorers, whoever else is registered.

#include "discovery/OwnCollections_i.h"

#include "discovery/AnnouncementState.h"
#include "discovery/Peers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Service.h"

#include <gmock/gmock.h>

using namespace tqtest;

namespace
{

struct OwnCollectionsTest : ServiceTest
{
  // The payload under the exact names, or "(status N)".
  std::string read(char const* subject, char const* authority)
  {
    ozf::OzfHostname here;
    here.setHostname("here");
    svc::Remote::DiscoveryService_var const own =
        svc::getPeers().connectToOwn(here, "DiscoveryService");
    svc::Remote::CollectionDataIterator_var iterator;
    svc::DiscoveryStatus const status =
        own->getCollectionData(Service::record(subject, authority), "", iterator.out());
    if (status != svc::DS_SUCCESS)
      return "(status " + std::to_string(status) + ")";
    iterator->pageSize(65536);
    svc::Remote::CollectionDataSeq_var const page = iterator->getNextPage();
    return {reinterpret_cast<char const*>(page->get_buffer()), page->length()};
  }
};

TEST_F(OwnCollectionsTest, TheStateNamesThePhaseBothTriesAndTheReason)
{
  svc::getAnnouncementState().noteFailure("nobody <there>", 300);
  EXPECT_THAT(
      read("here", svc::ANNOUNCEMENT_AUTHORITY),
      testing::MatchesRegex(
          "<\\?xml .*\\?><DiscoveredItems><DISCOVERED Name=\"here\"><ExplorerData "
          "Name=\"announcement\"><Role>master</Role><State>retrying</State>"
          "<NextTry>....-..-..T..:..:..Z</NextTry><LastTry>....-..-..T..:..:..Z</LastTry>"
          "<Reason>nobody &lt;there&gt;</Reason></ExplorerData></DISCOVERED></DiscoveredItems>\n"));
}

TEST_F(OwnCollectionsTest, AStateWithoutTriesNamesNone)
{
  EXPECT_THAT(read("here", svc::ANNOUNCEMENT_AUTHORITY),
              testing::HasSubstr("<Role>master</Role><State>none</State></ExplorerData>"));
}

TEST_F(OwnCollectionsTest, NamesOfNoExplorerAreNotFound)
{
  EXPECT_EQ("(status " + std::to_string(svc::DS_NONE_FOUND) + ")", read("here", "nothing"));
}

} // namespace
