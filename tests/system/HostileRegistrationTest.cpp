// Registrations that no host in its right mind makes: far too many, and of the
// master itself. And hosts whose calls to the master lead back to them.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>

namespace
{

using namespace tqtest;
using client::AT_EXTSRC;
using client::AT_REMOTEPULL;
using client::DQ_DISCOVERY_DATA;
using Seconds = std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
namespace wire = client::Remote;

constexpr char CONNECTING_BACK[] = "Hostname detected as remote and/or master, but appears to be "
                                   "connecting back to self, RemoteHost: ";

// Well below what it takes to run into the time-outs of calls, but with room for
// sanitizers and busy machines.
constexpr Seconds QUICK(25);

// The status of asking for a payload.
client::DiscoveryStatus statusOf(client::Client& client, std::string const& subject,
                                 client::AuthorityType type)
{
  wire::Discovery record = client::makeRecord(subject, "volume");
  record.authType = type;
  wire::CollectionDataIterator_var iterator;
  return client->getCollectionData(record, "", iterator.out());
}

// How many lines of one operation the log's limit has left out.
std::size_t leftOutOf(std::string const& log, std::string const& operation)
{
  std::size_t count = 0;
  std::string const start = operation + ": Left out ";
  for (auto at = log.find(start); at != std::string::npos; at = log.find(start, at + 1))
    count += std::stoul(log.substr(at + start.size(), 20));
  return count;
}

} // namespace

// The service is asked for what it has to ask itself for. By the first names the
// ORB knows itself and calls on the spot, by the last it goes through a socket.
TEST(HostileRegistrationTest, aMasterThatIsRegisteredAsItsOwnSourceRefusesAndGoesOn)
{
  LiveService service;
  service.configure("HOST_ADDRESS.nickname = 127.0.0.1\n");
  ASSERT_TRUE(service.start()) << service.log();
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    // Only the last of them in order can be read: asking for another is too many.
    std::string subject = "a";
    for (std::string const source : {LiveService::NAME, "127.0.0.1", "nickname", "localhost"})
    {
      subject += 'a';
      client->registerExplorer(source.c_str(), "DiscoveryService", subject.c_str(), "volume",
                               AT_EXTSRC, 1);
      auto const start = steady_clock::now();
      EXPECT_EQ(statusOf(client, subject, AT_EXTSRC), client::DS_OPEN_FAILED) << source;
      EXPECT_LT(steady_clock::now() - start, QUICK) << source;
      // Looked up behind the answer, so the line is there.
      EXPECT_EQ(1u, occurrences(service.log(), CONNECTING_BACK + source)) << source << '\n'
                                                                          << service.log();
    }
    EXPECT_EQ(client.store("other", "kept", "<kept/>"), client::DS_SUCCESS);
    EXPECT_EQ(client.read("other", "kept"), "<kept/>");
  }
  EXPECT_EQ(service.stop(), 0) << service.log();
}

// A host that is not the master passes queries and writes on. These two take each
// other for it.
TEST(HostileRegistrationTest, hostsThatAreEachOthersMasterRefuseAndGoOn)
{
  LiveService here;
  LiveService there;
  auto const configure = [&](LiveService& service, std::string const& name,
                             std::string const& master, std::string const& address)
  {
    writeText(service / "etc/tq.conf",
              "SERVER = " + master + "\nCLIENT_NAME = " + name + "\nORB_BIND = " + address +
                  "\nHOST_ADDRESS.here = 127.0.0.1\nHOST_ADDRESS.there = 127.0.0.2\n" +
                  "ORB_PORT.DiscoveryService = " + std::to_string(here.port()) + "\n");
  };
  configure(here, "here", "there", "127.0.0.1");
  configure(there, "there", "here", "127.0.0.2");
  ASSERT_TRUE(here.start()) << here.log();
  ASSERT_TRUE(there.start()) << there.log();
  // The second of the same line within a minute is counted, which is told at the
  // end.
  auto const refusals = [&](std::string const& operation)
  {
    std::size_t count = 0;
    for (auto const& [text, host] :
         {std::pair(here.log(), "there"), std::pair(there.log(), "here")})
    {
      std::string const line = std::string(CONNECTING_BACK) + host;
      count += occurrences(text, operation + ": " + line);
      for (char const* const seconds : {"1 second: ", "2 seconds: ", "3 seconds: "})
        count += occurrences(text, operation + ": Repeated 1 time in " + seconds + line);
    }
    return count;
  };
  {
    client::Client client(here.root(), "here");
    ASSERT_TRUE(client.connected()) << here.log();
    // Each time there is room again.
    for (std::size_t time = 1; time <= 2; ++time)
    {
      auto start = steady_clock::now();
      EXPECT_THROW(wire::DiscoveryIterator_var(
                       client->queryDiscoveries(DQ_DISCOVERY_DATA, AT_EXTSRC, "*", "*")),
                   CORBA::COMM_FAILURE);
      EXPECT_LT(steady_clock::now() - start, QUICK);
      EXPECT_GE(refusals("DiscoveryRepository::queryRemoteDiscoveries"), 1U) << here.log();

      start = steady_clock::now();
      EXPECT_EQ(client.store("subject", "authority", "<x/>"), client::DS_OPEN_FAILED);
      EXPECT_LT(steady_clock::now() - start, QUICK);
      EXPECT_GE(refusals("RemoteCollectionData::openWrite"), 1U) << here.log();
    }
  }
  EXPECT_EQ(here.stop(), 0) << here.log();
  EXPECT_EQ(there.stop(), 0) << there.log();
  EXPECT_EQ(2U, refusals("DiscoveryRepository::queryRemoteDiscoveries")) << here.log();
  EXPECT_EQ(2U, refusals("RemoteCollectionData::openWrite")) << here.log();
}

// Every registration that is kept is flushed to the disk, which may take minutes
// for so many: the service then lives in memory, where there is room.
class RoomyFolder
{
public:
  RoomyFolder()
  {
    constexpr char const* MEMORY = "/dev/shm";
    constexpr std::uintmax_t ROOM = 1 << 30;
    std::error_code none;
    if (std::filesystem::space(MEMORY, none).available >= ROOM && !none)
      setenv("TMPDIR", MEMORY, 1);
  }
  ~RoomyFolder() { unsetenv("TMPDIR"); }
  RoomyFolder(RoomyFolder const&) = delete;
  RoomyFolder& operator=(RoomyFolder const&) = delete;
};

TEST(HostileRegistrationTest, aHundredThousandRegistrationsAreCappedAndTheServiceStaysQuick)
{
  constexpr int SENT = 100'000;
  constexpr std::size_t KEPT = 50'000;
  constexpr char DROPPED[] = "Dropped the registration of a pull explorer for subject ";
  RoomyFolder const folder;
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  client::Client client(service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  ASSERT_EQ(client.store("other", "kept", "<kept/>"), client::DS_SUCCESS);

  auto const started = steady_clock::now();
  std::atomic<int> failures{0};
  constexpr int SENDERS = 4;
  std::vector<std::thread> senders;
  for (int sender = 0; sender < SENDERS; ++sender)
    senders.emplace_back(
        [&, sender]
        {
          try
          {
            for (int i = sender; i < SENT; i += SENDERS)
              client->registerExplorer("nowhere.invalid", "DiscoveryService",
                                       ("flood" + std::to_string(i)).c_str(), "volume", AT_EXTSRC,
                                       1);
          }
          catch (CORBA::Exception const&)
          {
            ++failures;
          }
        });
  // Others are served meanwhile.
  auto longest = steady_clock::duration::zero();
  auto const readOther = [&]
  {
    auto const asked = steady_clock::now();
    EXPECT_EQ(client.read("other", "kept"), "<kept/>");
    longest = std::max(longest, steady_clock::now() - asked);
  };
  for (int i = 0; i < 50; ++i)
    readOther();
  for (auto& sender : senders)
    sender.join();
  EXPECT_EQ(failures, 0);
  auto const registering = steady_clock::now() - started;
  readOther();
  EXPECT_LT(longest, QUICK);

  std::size_t cached = 0;
  wire::DiscoveryIterator_var const iterator =
      client->queryDiscoveries(DQ_DISCOVERY_DATA, AT_REMOTEPULL, "flood*", "volume");
  iterator->pageSize(5000);
  for (wire::DiscoverySeq_var page = iterator->getNextPage(); page->length() != 0;
       page = iterator->getNextPage())
    cached += page->length();
  iterator->release();
  EXPECT_EQ(cached, KEPT);

  EXPECT_EQ(service.stop(), 0);
  // Each that was dropped has its line or is counted among those left out.
  std::string const log = service.log();
  std::size_t const dropped = occurrences(log, DROPPED);
  EXPECT_EQ(occurrences(log, ": there are 50000 already"), dropped);
  EXPECT_GT(dropped, 0U);
  EXPECT_EQ(dropped + leftOutOf(log, "DiscoveryRepository::registerExplorer"), SENT - KEPT);

  // They are there again after the next start, and as many.
  auto const restarted = steady_clock::now();
  ASSERT_TRUE(service.start()) << service.log();
  ASSERT_TRUE(eventually([&] { return client.connect(); })) << service.log();
  readOther();
  auto const restarting = steady_clock::now() - restarted;
  client->registerExplorer("nowhere.invalid", "DiscoveryService", "late", "volume", AT_EXTSRC, 1);
  EXPECT_TRUE(eventually([&] { return occurrences(service.log(), DROPPED) == 1; }))
      << service.log();
  EXPECT_EQ(service.stop(), 0);

  auto const inMilliseconds = [](steady_clock::duration span)
  {
    return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(span).count()) +
           " ms";
  };
  std::cout << "registering " << inMilliseconds(registering) << ", longest read "
            << inMilliseconds(longest) << ", starting with them " << inMilliseconds(restarting)
            << '\n';
}

// Each takes the place of the one before it, and none of their records goes.
TEST(HostileRegistrationTest, aHostUnderEverNewAuthoritiesDoesNotFillTheDatabase)
{
  constexpr int REGISTERED = 300;
  constexpr std::size_t OF_A_SUBJECT = 256;
  RoomyFolder const folder;
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    auto const registerAs = [&](std::string const& subject, std::string const& authority)
    {
      client->registerExplorer("nowhere.invalid", "DiscoveryService", subject.c_str(),
                               authority.c_str(), AT_REMOTEPULL, 1);
    };
    auto const kept = [&]
    {
      return static_cast<std::size_t>(
          std::count_if(std::filesystem::directory_iterator(service.database()),
                        std::filesystem::directory_iterator(),
                        [](auto const& entry) { return entry.path().extension() == ".xml"; }));
    };
    for (int i = 0; i < REGISTERED; ++i)
      registerAs("flood", "authority" + std::to_string(i));
    EXPECT_EQ(kept(), OF_A_SUBJECT);
    EXPECT_THAT(service.log(),
                HasSubstr("The registration of subject flood and authority authority256 is not "
                          "kept for the next start: there are 256 of that subject already"));
    // What is kept already may be written again, and others are kept.
    std::string const first = service.database() + "/4 authority0 flood.dat";
    std::filesystem::remove(first);
    registerAs("flood", "authority0");
    EXPECT_TRUE(std::filesystem::exists(first));
    registerAs("honest", "volume");
    EXPECT_EQ(kept(), OF_A_SUBJECT + 1);
  }
  EXPECT_EQ(service.stop(), 0) << service.log();

  // It is counted what the next start finds.
  ASSERT_TRUE(service.start()) << service.log();
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    client->registerExplorer("nowhere.invalid", "DiscoveryService", "flood", "another",
                             AT_REMOTEPULL, 1);
    EXPECT_FALSE(std::filesystem::exists(service.database() + "/4 another flood.xml"));
  }
  EXPECT_EQ(service.stop(), 0) << service.log();
}
