// What a service keeps for a peer: iterators, writers, registrations, payloads.

#include "tests/system/limits/LimitsTesting.h"

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;
namespace wire = client::Remote;

class KeptThingsLimitsTest : public LimitsTest
{
protected:
  wire::DiscoveryIterator_ptr list()
  {
    return (*m_client)->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*");
  }

  client::DiscoveryStatus open(std::string const& subject, wire::RemoteWriter_var& writer)
  {
    return (*m_client)
        ->putCollection(client::makeRecord(subject, "written"), writer.out())
        .discStatus;
  }

  void announce(std::string const& subject)
  {
    (*m_client)->registerExplorer("nowhere.invalid", "DiscoveryService", subject.c_str(), "volume",
                                  client::AT_EXTSRC, 1);
  }

  bool isAnnounced(std::string const& subject) const
  {
    return std::filesystem::exists(m_service.database() + "/4 volume " + subject + ".xml");
  }
};

} // namespace

TEST_F(KeptThingsLimitsTest, APeerHasSoManyIteratorsAndOneMoreIsNoResources)
{
  start("LIMIT_PEER_ITERATORS = 3\n");
  connect();
  ASSERT_EQ(m_client->store("s", "written", "<x/>"), client::DS_SUCCESS);
  std::vector<wire::DiscoveryIterator_var> lists;
  for (int i = 0; i < 2; ++i)
    lists.emplace_back(list());
  wire::CollectionDataIterator_var data;
  ASSERT_EQ((*m_client)->getCollectionData(client::makeRecord("s", "written"), "", data.out()),
            client::DS_SUCCESS);
  EXPECT_THROW(lists.emplace_back(list()), CORBA::NO_RESOURCES);
  wire::CollectionDataIterator_var more;
  EXPECT_THROW((*m_client)->getCollectionData(client::makeRecord("s", "written"), "", more.out()),
               CORBA::NO_RESOURCES);
  EXPECT_THAT(m_service.log(), HasSubstr("DiscoveryService_i::queryDiscoveries: Refused a call of "
                                         "127.0.7.1: it has 3 iterators open already"));
  expectAudited("getCollectionData", "too many iterators are open already");
  expectOthersAreServed();
  lists.back()->release();
  EXPECT_EQ(m_client->read("s", "written"), "<x/>") << "a place was given back";
  expectStops();
}

TEST_F(KeptThingsLimitsTest, WhenIteratorsAreTooManyInAllThePeerWithMostLosesOne)
{
  start("LIMIT_ITERATORS = 4\n");
  connect();
  ASSERT_EQ(m_client->store("s", "written", "<x/>"), client::DS_SUCCESS);
  std::vector<wire::DiscoveryIterator_var> lists;
  for (int i = 0; i < 5; ++i)
    lists.emplace_back(list());
  EXPECT_THROW(lists[0]->pageSize(), CORBA::OBJECT_NOT_EXIST);
  EXPECT_EQ(lists[1]->pageSize(), 8);
  EXPECT_THAT(m_service.log(), HasSubstr("More than 4 objects in use, dropped the one idle longest "
                                         "of 127.0.7.1"));
  expectOthersAreServed();
  expectStops();
}

TEST_F(KeptThingsLimitsTest, HowManyIteratorsThereMayBeHoldsFromAReloadOn)
{
  start("LIMIT_ITERATORS = 100\n");
  connect();
  std::vector<wire::DiscoveryIterator_var> lists;
  for (int i = 0; i < 5; ++i)
    lists.emplace_back(list());
  reload("LIMIT_ITERATORS = 3\n");
  lists.emplace_back(list());
  for (int i = 0; i < 3; ++i)
    EXPECT_THROW(lists[i]->pageSize(), CORBA::OBJECT_NOT_EXIST);
  EXPECT_EQ(lists[3]->pageSize(), 8);
  expectInStatus("LIMIT_ITERATORS", 3, 1);
  expectStops();
}

TEST_F(KeptThingsLimitsTest, WritersHaveLimitsOfEachPeerAndInAll)
{
  start("LIMIT_PEER_WRITERS = 3\n");
  connect();
  std::vector<wire::RemoteWriter_var> writers(3);
  for (int i = 0; i < 3; ++i)
    ASSERT_EQ(open("s" + std::to_string(i), writers[i]), client::DS_SUCCESS) << m_service.log();
  wire::RemoteWriter_var late;
  EXPECT_EQ(open("late", late), client::DS_OPEN_FAILED);
  EXPECT_THAT(m_service.log(), HasSubstr("Refused a discovery of 127.0.7.1: it has 3 writers open "
                                         "already"));
  expectOthersAreServed();

  // From a reload on another holds, and none for the peer.
  reload("LIMIT_PEER_WRITERS = 0\nLIMIT_WRITERS = 4\n");
  EXPECT_EQ(open("fourth", late), client::DS_SUCCESS) << m_service.log();
  wire::RemoteWriter_var later;
  EXPECT_EQ(open("fifth", later), client::DS_OPEN_FAILED);
  EXPECT_THAT(m_service.log(),
              HasSubstr("Refused a discovery of 127.0.7.1: 4 writers are open already"));
  ASSERT_EQ(late->close().discStatus, client::DS_SUCCESS);
  expectOthersAreServed();
  expectStops();
}

TEST_F(KeptThingsLimitsTest, APayloadIsRefusedBeyondItsSizeAndTheOldOneStays)
{
  start("LIMIT_PAYLOAD = 1000\n");
  connect();
  ASSERT_EQ(m_client->store("s", "written", std::string(1000, 'x')), client::DS_SUCCESS);
  wire::RemoteWriter_var writer;
  ASSERT_EQ(open("s", writer), client::DS_SUCCESS);
  EXPECT_TRUE(writer->put(client::makeChunk(std::string(1000, 'y'))));
  EXPECT_FALSE(writer->put(client::makeChunk("y")));
  EXPECT_EQ(writer->close().discStatus, client::DS_OPEN_FAILED);
  EXPECT_EQ(m_client->read("s", "written"), std::string(1000, 'x'));
  EXPECT_THAT(m_service.log(), HasSubstr("Refused a payload of more than 1000 bytes, subject s & "
                                         "authority written, of 127.0.7.1"));
  expectOthersAreServed();
  expectStops();
}

// Each discovery takes 8192 bytes for its files, and its names.
TEST_F(KeptThingsLimitsTest, APeerStoresSoMuchADayAndNoMore)
{
  start("LIMIT_PEER_DAY_BYTES = 26600\n");
  connect();
  ASSERT_EQ(m_client->store("s", "written", std::string(1500, 'x')), client::DS_SUCCESS);
  wire::RemoteWriter_var writer;
  ASSERT_EQ(open("t", writer), client::DS_SUCCESS);
  EXPECT_THROW(writer->put(client::makeChunk(std::string(8701, 'y'))), CORBA::NO_RESOURCES);
  EXPECT_EQ(writer->close().discStatus, client::DS_OPEN_FAILED) << "a part of it is missing";
  EXPECT_THAT(m_service.log(), HasSubstr("RemoteWriter_i::put: Refused a call of 127.0.7.1: it may "
                                         "store 26600 bytes a day"));
  expectAudited("put", "too much was stored within a day");
  EXPECT_EQ(m_client->store("t", "written", std::string(500, 'x')), client::DS_SUCCESS)
      << "what was refused does not count";
  EXPECT_THROW(open("u", writer), CORBA::NO_RESOURCES);
  EXPECT_EQ(m_client->read("s", "written"), std::string(1500, 'x'));
  expectOthersAreServed();
  expectStops();
}

TEST_F(KeptThingsLimitsTest, DiscoveriesWithoutPayloadCountAsTheFilesThatTheyTake)
{
  start("LIMIT_PEER_DAY_BYTES = 50000\n");
  connect();
  for (char const* const subject : {"a", "b", "c", "d", "e", "f"})
  {
    wire::RemoteWriter_var writer;
    ASSERT_EQ(open(subject, writer), client::DS_SUCCESS) << subject;
    ASSERT_EQ(writer->close().discStatus, client::DS_SUCCESS);
  }
  wire::RemoteWriter_var writer;
  EXPECT_THROW(open("g", writer), CORBA::NO_RESOURCES);
  expectAudited("putCollection", "too much was stored within a day");
  expectOthersAreServed();
  expectStops();
}

TEST_F(KeptThingsLimitsTest, APeerAnnouncesSoManyExplorersAndTheSameAgainAsOftenAsItLikes)
{
  start("LIMIT_PEER_REGISTRATIONS = 2\n");
  connect();
  for (int round = 0; round < 3; ++round)
    for (char const* const subject : {"first", "second"})
      announce(subject);
  announce("third");
  EXPECT_TRUE(isAnnounced("first"));
  EXPECT_TRUE(isAnnounced("second"));
  EXPECT_FALSE(isAnnounced("third"));
  EXPECT_THAT(m_service.log(), HasSubstr("Dropped the registration of a pull explorer for subject "
                                         "third: 127.0.7.1 has made 2 already"));
  EXPECT_THAT(m_service.log(), Not(HasSubstr("subject second: 127.0.7.1 has made")));
  expectOthersAreServed();
  expectStops();
}

TEST_F(KeptThingsLimitsTest, ExplorersThatAreAnnouncedHaveALimitInAll)
{
  start("LIMIT_REGISTRATIONS = 2\n");
  connect();
  for (char const* const subject : {"first", "second", "third"})
    announce(subject);
  EXPECT_TRUE(isAnnounced("second"));
  EXPECT_FALSE(isAnnounced("third"));
  EXPECT_THAT(m_service.log(), HasSubstr("Dropped the registration of a pull explorer for subject "
                                         "third, made by 127.0.7.1: there are 2 already"));
  expectOthersAreServed();
  expectStops();
}

// One after the other, so that none is in the way of another.
TEST_F(KeptThingsLimitsTest, TheStatusTellsHowOftenEachWasMetAndByWhom)
{
  start("LIMIT_ITERATORS = 4\nLIMIT_PEER_ITERATORS = 5\nLIMIT_PEER_WRITERS = 1\n"
        "LIMIT_REGISTRATIONS = 3\nLIMIT_PEER_REGISTRATIONS = 2\nLIMIT_PAYLOAD = 1000\n"
        "LIMIT_PEER_DAY_BYTES = 34300\n");
  connect();
  wire::RemoteWriter_var writer;
  ASSERT_EQ(open("s", writer), client::DS_SUCCESS);
  wire::RemoteWriter_var refused;
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(open("t", refused), client::DS_OPEN_FAILED);
  EXPECT_FALSE(writer->put(client::makeChunk(std::string(1001, 'x'))));
  writer->close();
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(m_client->store("s", "written", std::string(700, 'x')), client::DS_SUCCESS);
  ASSERT_EQ(open("s", writer), client::DS_SUCCESS);
  EXPECT_THROW(writer->put(client::makeChunk(std::string(101, 'x'))), CORBA::NO_RESOURCES);
  writer->close();
  std::vector<wire::DiscoveryIterator_var> lists;
  for (int i = 0; i < 5; ++i)
    lists.emplace_back(list());
  for (char const* const subject : {"first", "second", "third", "fourth"})
    announce(subject);

  expectInStatus("LIMIT_ITERATORS", 4, 1);
  expectInStatus("LIMIT_PEER_WRITERS", 1, 2);
  expectInStatus("LIMIT_PEER_REGISTRATIONS", 2, 2);
  expectInStatus("LIMIT_PAYLOAD", 1000, 1);
  expectInStatus("LIMIT_PEER_DAY_BYTES", 34300, 1);
  Outcome const status = m_service.tqdiscoctl({"status"});
  EXPECT_THAT(status.output, testing::ContainsRegex("LIMIT MET +SET TO +TIMES +LAST PEER +LAST\n"));
  EXPECT_THAT(status.output, testing::ContainsRegex("tqtestmaster +LIMIT_PEER_WRITERS +1 +2 "
                                                    "+127\\.0\\.7\\.1 +[0-9]+ ?(s|min) ago"));
  expectStops();
}
