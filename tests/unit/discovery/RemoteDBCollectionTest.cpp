#include "discovery/RemoteDB.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/log/Assertion.h"
#include "tests/support/RemoteOperations.h"
#include "tests/support/RemoteService.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <numeric>

using namespace tqtest;

namespace
{

constexpr char LOOP_TEXT[] = "Hostname detected as remote and/or master, but appears to be "
                             "connecting back to self, RemoteHost: localhost";

// Bytes of all values in no simple rhythm.
std::string makeBytes(std::size_t size)
{
  std::string bytes(size, '\0');
  unsigned state = 1;
  for (char& byte : bytes)
    byte = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
  return bytes;
}

class RemoteDBCollectionTest : public RemoteServiceTest
{
protected:
  static AutoDereference<Discovery> reader(Remote::Discovery const& record = makeRecord())
  {
    return AutoDereference<Discovery>(
        getRemoteDiscoveryDatabase().newDiscovery(new Remote::Discovery(record)));
  }

  static AutoDereference<Discovery> writer(DiscoveryQuery query = DQ_DISCOVERY_DATA)
  {
    AutoDereference<Discovery> discovery(getRemoteDiscoveryDatabase().newDiscovery(query));
    discovery->setSubject(new Subject("host A"));
    discovery->setAuthority(new Authority("volume", AT_TQUCLIENT));
    discovery->setAttributes(new CollectionAttributes(CT_REAL_TIME, CS_CENTRALREPOSITORY,
                                                      OzfObjTime(1234, 5), OzfObjTime(600), 9));
    return discovery;
  }

  static std::string readEverything(Discovery& discovery, std::size_t step = 1000)
  {
    std::string all;
    std::vector<char> buffer(step);
    for (long count;
         (count = discovery.getCollectionData()->readCollection(step, buffer.data())) > 0;)
      all.append(buffer.data(), static_cast<std::size_t>(count));
    return all;
  }

  bool hasLine(char const* operation, std::string const& beginning) const
  {
    return m_log.text().find("1 " + std::string(operation) + ": " + beginning) != std::string::npos;
  }
};

} // namespace

// Reading.

TEST_F(RemoteDBCollectionTest, ReadsThePagesAsOnePayload)
{
  std::string const bytes = makeBytes(20);
  auto* const pages = serveData({bytes.substr(0, 8), bytes.substr(8, 8), bytes.substr(16)});
  auto const discovery = reader();
  ASSERT_EQ(discovery->open(OM_READ, "<FilterParameters/>"), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(pages->pagesAsked, 4);
  EXPECT_EQ(pages->releases, 1);
  EXPECT_EQ(pages->pageSizeSet, -1) << "no page size is configured";
  EXPECT_EQ(readEverything(*discovery, 7), bytes);
  char byte = 0;
  EXPECT_EQ(discovery->getCollectionData()->readCollection(1, &byte), 0);

  ASSERT_EQ(m_service->dataRequests.size(), 1U);
  auto const& [record, filter] = m_service->dataRequests.front();
  EXPECT_EQ(filter, "<FilterParameters/>");
  EXPECT_STREQ(record.subject.in(), "subject");
  EXPECT_STREQ(record.authority.in(), "authority");
  EXPECT_EQ(record.authType, AT_TQUCLIENT);
}

TEST_F(RemoteDBCollectionTest, ReadsPagesOfEverySize)
{
  // Growth by doubling, one page that is larger than the doubled cache, and
  // one of nearly the size of a message.
  std::vector<std::string> pages;
  for (std::size_t const size : {1UL, 1023UL, 1UL, 1024UL, 100'000UL, 3UL << 20, 5UL})
    pages.push_back(makeBytes(size));
  serveData(pages);
  auto const discovery = reader();
  ASSERT_EQ(discovery->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  EXPECT_TRUE(readEverything(*discovery, 4096) ==
              std::accumulate(pages.begin(), pages.end(), std::string()));
}

TEST_F(RemoteDBCollectionTest, EmptyPayloadIsAFailure)
{
  auto* const pages = serveData({});
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ, "Collection data returned has no data"))
      << m_log.text();
  EXPECT_EQ(pages->releases, 1);
}

TEST_F(RemoteDBCollectionTest, RefusedReadNamesTheStatus)
{
  m_service->dataStatus = DS_NONE_FOUND;
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ, "Failed to get collection data: 1"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ReadWithoutAServiceFails)
{
  auto record = makeRecord();
  record.sourceServiceName = "NoSuchService";
  EXPECT_EQ(reader(record)->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ, "Failed to connect to discovery service"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ReadFromAHostThatDoesNotAnswerFails)
{
  configure("ORB_PORT.DownService = " + std::to_string(findFreePort()) + "\n");
  auto record = makeRecord();
  record.sourceServiceName = "DownService";
  EXPECT_EQ(reader(record)->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ, "Failed to connect to discovery service"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ReadFromAHostWithoutANameFails)
{
  auto record = makeRecord();
  record.sourceHost = "";
  EXPECT_EQ(reader(record)->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ, "Failed to connect to discovery service"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ExceptionOfTheServiceFailsTheRead)
{
  m_service->before = [] { throw CORBA::NO_PERMISSION(); };
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: NO_PERMISSION"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ExceptionOfAPageFailsTheReadAndReleases)
{
  auto* const pages = serveData({"first", "second"});
  pages->beforePage = [pages]
  {
    if (pages->pagesAsked == 1)
      throw CORBA::NO_RESOURCES();
  };
  auto const discovery = reader();
  EXPECT_EQ(discovery->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: NO_RESOURCES"))
      << m_log.text();
  EXPECT_EQ(pages->releases, 1);
  char byte = 0;
  EXPECT_THROW(discovery->getCollectionData()->readCollection(1, &byte), AssertionFailure);
}

TEST_F(RemoteDBCollectionTest, FailedReleaseIsSwallowed)
{
  auto* const pages = serveData({"data"});
  pages->beforeRelease = [] { throw CORBA::NO_RESOURCES(); };
  auto const discovery = reader();
  EXPECT_EQ(discovery->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(readEverything(*discovery), "data");
  EXPECT_EQ(pages->releases, 1);
}

TEST_F(RemoteDBCollectionTest, SuccessWithoutAnIteratorIsAFailure)
{
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_READ,
                      "Caught CORBA Exception while reading collection data: "))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, SecondReadStartsAgain)
{
  serveData({"first"});
  auto const discovery = reader();
  ASSERT_EQ(discovery->open(OM_READ, "filter"), DS_SUCCESS);
  EXPECT_EQ(readEverything(*discovery, 4), "first");
  serveData({"second"});
  ASSERT_EQ(discovery->open(OM_READ, ""), DS_SUCCESS);
  EXPECT_EQ(readEverything(*discovery, 4), "second");
  ASSERT_EQ(m_service->dataRequests.size(), 2U);
  EXPECT_EQ(m_service->dataRequests.back().second, "");
}

TEST_F(RemoteDBCollectionTest, PayloadWithoutEndIsGivenUp)
{
  auto* const pages = serveData({std::string(3 << 20, 'x')});
  pages->endless = true;
  EXPECT_EQ(reader()->open(OM_READ, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_READ,
                        "Collection data from localhost exceeds 268435456 bytes"))
      << m_log.text();
  EXPECT_EQ(pages->pagesAsked, 86) << "the first page that goes past the limit is the last";
  EXPECT_EQ(pages->releases, 1);
}

TEST_F(RemoteDBCollectionTest, ConfiguredPageSizeIsAskedForBeforeTheFirstPage)
{
  configure("COLLECTION_PAGE_SIZE = 65536\n");
  auto* const pages = serveData({"data"});
  std::vector<long> sizesAtPage;
  pages->beforePage = [&] { sizesAtPage.push_back(pages->pageSizeSet); };
  ASSERT_EQ(reader()->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(sizesAtPage, (std::vector<long>{65536, 65536}));
}

TEST_F(RemoteDBCollectionTest, PagesLargerThanAMessageAreNotAskedFor)
{
  configure("COLLECTION_PAGE_SIZE = 2000000000\n");
  auto* const pages = serveData({"data"});
  ASSERT_EQ(reader()->open(OM_READ, ""), DS_SUCCESS) << m_log.text();
  EXPECT_EQ(pages->pageSizeSet, 1024 * 1024);
}

// Writing.

TEST_F(RemoteDBCollectionTest, WritesInChunks)
{
  auto* const remote = serveWriter();
  std::string const bytes = makeBytes(3000);
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_NE(discovery->getCollectionData()->writeCollection(bytes.size(), bytes.data()), 0);
  ASSERT_EQ(remote->chunks.size(), 3U);
  EXPECT_EQ(remote->chunks[0], bytes.substr(0, 1024));
  EXPECT_EQ(remote->chunks[1], bytes.substr(1024, 1024));
  EXPECT_EQ(remote->chunks[2], bytes.substr(2048));
  EXPECT_EQ(remote->chunks[2].size(), 952U);
  EXPECT_EQ(remote->closes, 0) << "nothing is stored before persist";
  EXPECT_EQ(discovery->persist(), DS_SUCCESS);
  EXPECT_EQ(remote->closes, 1);
}

TEST_F(RemoteDBCollectionTest, WritesInChunksOfTheConfiguredSize)
{
  configure("COLLECTION_WRITE_SIZE = 1048576\n");
  auto* const remote = serveWriter();
  std::string const bytes = makeBytes((1 << 20) + 5000);
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_NE(discovery->getCollectionData()->writeCollection(bytes.size(), bytes.data()), 0)
      << m_log.text();
  ASSERT_EQ(remote->chunks.size(), 2U);
  EXPECT_EQ(remote->chunks[0], bytes.substr(0, 1 << 20));
  EXPECT_EQ(remote->chunks[1], bytes.substr(1 << 20));
}

TEST_F(RemoteDBCollectionTest, AChunkSizeBeyondItsBoundsLeavesTheDefault)
{
  for (std::string const size : {"0", "1048577", "many"})
  {
    configure("COLLECTION_WRITE_SIZE = " + size + "\n");
    auto* const remote = serveWriter();
    std::string const bytes = makeBytes(2000);
    auto const discovery = writer();
    ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
    EXPECT_NE(discovery->getCollectionData()->writeCollection(bytes.size(), bytes.data()), 0);
    ASSERT_EQ(remote->chunks.size(), 2U) << size;
    EXPECT_EQ(remote->chunks[0].size(), 1024U) << size;
  }
}

TEST_F(RemoteDBCollectionTest, WritingNothingSendsNothing)
{
  auto* const remote = serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  EXPECT_NE(discovery->getCollectionData()->writeCollection(0, ""), 0);
  EXPECT_NE(discovery->getCollectionData()->writeCollection(1024, makeBytes(1024).data()), 0);
  EXPECT_EQ(remote->chunks.size(), 1U);
}

TEST_F(RemoteDBCollectionTest, SendsTheWholeRecord)
{
  serveWriter();
  ASSERT_EQ(writer(DQ_FILTER_DATA)->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  ASSERT_EQ(m_service->written.size(), 1U);
  Remote::Discovery const& record = m_service->written.front();
  EXPECT_EQ(record.queryType, DQ_FILTER_DATA);
  EXPECT_STREQ(record.subject.in(), "host A");
  EXPECT_STREQ(record.authority.in(), "volume");
  EXPECT_EQ(record.authType, AT_TQUCLIENT);
  EXPECT_EQ(record.attributes.colType, CT_REAL_TIME);
  EXPECT_EQ(record.attributes.colStorage, CS_CENTRALREPOSITORY);
  EXPECT_EQ(record.attributes.priority, 9);
  EXPECT_EQ(record.attributes.timeToLive, 600U);
  EXPECT_EQ(record.attributes.discoveryTime, 1234U);
  EXPECT_STREQ(record.sourceHost.in(), "clienthost");
  EXPECT_STREQ(record.sourceServiceName.in(), "DiscoveryService");
}

TEST_F(RemoteDBCollectionTest, WriteNeedsASubjectAndAnAuthority)
{
  serveWriter();
  AutoDereference<Discovery> const discovery(
      getRemoteDiscoveryDatabase().newDiscovery(DQ_DISCOVERY_DATA));
  EXPECT_THROW(discovery->open(OM_UPDATE, ""), AssertionFailure);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_WRITE, "Assertion failed: NULL != m_subject"))
      << m_log.text();
  discovery->setSubject(new Subject("s"));
  EXPECT_THROW(discovery->open(OM_UPDATE, ""), AssertionFailure);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_WRITE, "Assertion failed: NULL != m_authority"))
      << m_log.text();
  EXPECT_TRUE(m_service->written.empty());
  discovery->setAuthority(new Authority("a", AT_TQUCLIENT));
  EXPECT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS);
}

TEST_F(RemoteDBCollectionTest, RefusedWriteNamesTheStatus)
{
  m_service->writeStatus = DS_LOGIC_ERROR;
  EXPECT_EQ(writer()->open(OM_UPDATE, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_WRITE, "Failed to open the collection data: 2"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, SuccessWithoutAWriterIsAFailure)
{
  EXPECT_EQ(writer()->open(OM_UPDATE, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_WRITE,
                        "Failed to open the collection data: no writer was returned"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ExceptionOfTheServiceFailsTheWrite)
{
  m_service->before = [] { throw CORBA::NO_PERMISSION(); };
  EXPECT_EQ(writer()->open(OM_UPDATE, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(hasLine(RemoteOperations::OPEN_WRITE,
                      "Caught CORBA Exception while saving collection data: NO_PERMISSION"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, RefusedChunkEndsTheWrite)
{
  auto* const remote = serveWriter();
  remote->accept = false;
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  std::string const bytes = makeBytes(3000);
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(bytes.size(), bytes.data()), 0);
  EXPECT_EQ(remote->chunks.size(), 1U);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::WRITE, "Failed to write buffer")) << m_log.text();
}

TEST_F(RemoteDBCollectionTest, ExceptionOfAChunkEndsTheWrite)
{
  auto* const remote = serveWriter();
  auto const discovery = writer();
  ASSERT_EQ(discovery->open(OM_UPDATE, ""), DS_SUCCESS) << m_log.text();
  remote->beforePut = [] { throw CORBA::NO_RESOURCES(); };
  EXPECT_EQ(discovery->getCollectionData()->writeCollection(3, "abc"), 0);
  EXPECT_TRUE(
      hasLine(RemoteOperations::WRITE, "Caught CORBA Exception during remote write: NO_RESOURCES"))
      << m_log.text();
}

TEST_F(RemoteDBCollectionTest, TheTwentyFirstWriteAtATimeIsRefused)
{
  serveWriter();
  std::mutex mutex;
  std::condition_variable changed;
  int waiting = 0;
  bool go = false;
  m_service->before = [&]
  {
    std::unique_lock lock(mutex);
    ++waiting;
    changed.notify_all();
    changed.wait_for(lock, std::chrono::seconds(60), [&] { return go; });
  };

  getRemoteDiscoveryDatabase(); // made before the threads
  std::atomic<int> opened{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 20; ++i)
    threads.emplace_back(
        [&]
        {
          if (writer()->open(OM_UPDATE, "") == DS_SUCCESS)
            ++opened;
        });
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(60), [&] { return waiting == 20; }));
  }

  EXPECT_EQ(writer()->open(OM_UPDATE, ""), DS_OPEN_FAILED);
  EXPECT_TRUE(m_log.has(1, RemoteOperations::OPEN_WRITE, LOOP_TEXT)) << m_log.text();
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(waiting, 20) << "the refused write did not reach the master";
    go = true;
    changed.notify_all();
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(opened, 20);
  m_service->before = nullptr;
  EXPECT_EQ(writer()->open(OM_UPDATE, ""), DS_SUCCESS) << "there is room again";
}

TEST_F(RemoteDBCollectionTest, UnknownModeFailsAnAssertion)
{
  EXPECT_THROW(reader()->open(static_cast<OpenMode>(7), ""), AssertionFailure);
  EXPECT_TRUE(m_log.has(1, "RemoteCollectionData::open", "Assertion failed: SHOULD_NOT_GET_HERE"))
      << m_log.text();
}
