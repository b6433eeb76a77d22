// Clients that pause for longer than the service keeps an idle connection. The
// pause is real time, 40 seconds a test: the ORB counts by its own clock.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <thread>

namespace
{

using namespace tqtest;
using namespace tqtest::client;

class IdleClientTest : public testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(m_service.start());
    m_client = std::make_unique<Client>(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(m_client->connected());
    for (char const* const subject : {"web1", "web2", "web3", "web4"})
      ASSERT_EQ(m_client->store(subject, "writer", "<a>0123456789</a>"), DS_SUCCESS);
  }
  void TearDown() override
  {
    m_client.reset();
    EXPECT_EQ(m_service.stop(), 0);
  }

  static void pause() { std::this_thread::sleep_for(std::chrono::seconds(40)); }

  LiveService m_service;
  std::unique_ptr<Client> m_client;
};

TEST_F(IdleClientTest, connectsAnew)
{
  pause();
  EXPECT_TRUE(m_client->connect());
  EXPECT_EQ(m_client->subjects().size(), 4U);
}

TEST_F(IdleClientTest, readsOnWithAnOpenIterator)
{
  Remote::DiscoveryIterator_var const iterator =
      (*m_client)->queryDiscoveries(DQ_DISCOVERY_DATA, AT_ANYANDALL, "*", "writer");
  iterator->pageSize(1);
  Remote::DiscoverySeq_var page = iterator->getNextPage();
  CORBA::ULong const first = page->length();
  ASSERT_LT(first, 4U);
  pause();
  ASSERT_NO_THROW(page = iterator->getNextPage());
  EXPECT_EQ(first + page->length(), 4U);
  iterator->release();
}

TEST_F(IdleClientTest, beginsToReadWithAnIteratorGivenBeforeThePause)
{
  Remote::CollectionDataIterator_var iterator;
  ASSERT_EQ((*m_client)->getCollectionData(makeRecord("web1", "writer"), "", iterator.out()),
            DS_SUCCESS);
  pause();
  Remote::CollectionDataSeq_var page;
  ASSERT_NO_THROW(page = iterator->getNextPage());
  EXPECT_GT(page->length(), 0U);
  iterator->release();
}

TEST_F(IdleClientTest, writesOnWithAnOpenWriter)
{
  Remote::RemoteWriter_var writer;
  ASSERT_EQ((*m_client)->putCollection(makeRecord("web5", "writer"), writer.out()).discStatus,
            DS_SUCCESS);
  ASSERT_TRUE(writer->put(makeChunk("<a>")));
  pause();
  bool written = false;
  ASSERT_NO_THROW(written = writer->put(makeChunk("</a>")));
  EXPECT_TRUE(written);
  EXPECT_EQ(writer->close().discStatus, DS_SUCCESS);
  EXPECT_EQ(m_client->read("web5", "writer"), "<a></a>");
}

} // namespace
