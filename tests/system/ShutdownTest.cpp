// The order of a stop with everything in flight.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

namespace
{

using namespace tqtest;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

std::vector<std::string> linesOf(std::string const& path)
{
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

std::size_t temporaryFiles(std::string const& directory)
{
  std::size_t count = 0;
  for (auto const& entry : fs::directory_iterator(directory))
    count += entry.path().extension() == ".updating";
  return count;
}

TEST(ShutdownTest, thePassEndsWithTheExplorerThatRunsAndNothingHalfDoneStays)
{
  LiveService service;
  service.addPlugin("discovery_blocking", "blocking");
  service.configure("LOG_LEVEL = 4\n");
  ASSERT_TRUE(service.start({{"TQ_FIXTURE_FOLDER", service.root()}})) << service.log();
  ASSERT_TRUE(
      eventually([&] { return linesOf(service / "events").size() == 1; }, std::chrono::seconds(60)))
      << service.log();

  client::Client client(service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  for (int i = 0; i < 20; ++i)
    ASSERT_EQ(client.store("subject" + std::to_string(i), "kept", "<x/>"), client::DS_SUCCESS);
  // An iterator in the middle of its walk, a payload half read, and a write
  // half done.
  client::Remote::DiscoveryIterator_var const iterator =
      client->queryDiscoveries(client::DQ_DISCOVERY_DATA, client::AT_ANYANDALL, "*", "*");
  client::Remote::DiscoverySeq_var const page = iterator->getNextPage();
  EXPECT_GT(page->length(), 0U);
  client::Remote::CollectionDataIterator_var data;
  ASSERT_EQ(client->getCollectionData(client::makeRecord("subject1", "kept"), "", data.out()),
            client::DS_SUCCESS);
  data->pageSize(1);
  client::Remote::CollectionDataSeq_var const bytes = data->getNextPage();
  EXPECT_EQ(bytes->length(), 1U);
  client::Remote::RemoteWriter_var writer;
  ASSERT_EQ(client->putCollection(client::makeRecord("half", "written"), writer.out()).discStatus,
            client::DS_SUCCESS);
  ASSERT_TRUE(writer->put(client::makeChunk("<half")));
  ASSERT_EQ(temporaryFiles(service.database()), 1U);

  service.process().sendSignal(SIGTERM);
  // The stop has begun, and waits for the explorer.
  ASSERT_TRUE(service.process().awaitError("Waiting if any explorer timer is running"))
      << service.log();
  EXPECT_TRUE(service.process().running());
  std::vector<std::string> const before = linesOf(service / "events");
  ASSERT_EQ(before.size(), 1U) << "no explorer is stopped while one runs";
  std::string const running = before[0].substr(before[0].find(' '));
  writeText(service / "go", "");
  ASSERT_TRUE(service.process().wait(std::chrono::seconds(30))) << service.log();
  EXPECT_EQ(service.process().exitCode(), 0) << service.log();

  EXPECT_THAT(linesOf(service / "events"),
              ElementsAre("begin" + running, "end" + running, "stop first", "stop second"));
  EXPECT_EQ(temporaryFiles(service.database()), 0U) << service.log();
  EXPECT_FALSE(fs::exists(service.database() + "/2 written half.xml"));
  Outcome const verified = service.tqdiscoctl({"db", "verify"});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
  EXPECT_EQ(verified.output, "20 sound, 0 problems\n");

  // The client meets an exception, not an answer.
  EXPECT_THROW(writer->put(client::makeChunk("/>")), CORBA::SystemException);
  EXPECT_THROW(client::Remote::DiscoverySeq_var(iterator->getNextPage()), CORBA::SystemException);
}

TEST(ShutdownTest, stopsWhileClientsGoOnAsking)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  client::Client client(service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  ASSERT_EQ(client.store("subject", "kept", "<x/>"), client::DS_SUCCESS);

  std::atomic<int> answers{0};
  std::vector<std::thread> askers;
  for (int i = 0; i < 4; ++i)
    askers.emplace_back(
        [&, i]
        {
          try
          {
            for (;; ++answers)
            {
              client.subjects();
              client.store("asker" + std::to_string(i), "kept", "<x/>");
            }
          }
          catch (CORBA::Exception const&)
          {
            // The service is gone, or going.
          }
        });
  EXPECT_TRUE(eventually([&] { return answers > 20; }));
  EXPECT_EQ(service.stop(), 0) << service.log();
  for (auto& asker : askers)
    asker.join();
  Outcome const verified = service.tqdiscoctl({"db", "verify"});
  EXPECT_EQ(verified.exitCode, 0) << verified.output;
  EXPECT_THAT(verified.output, HasSubstr(" 0 problems"));
  EXPECT_EQ(temporaryFiles(service.database()), 0U);
}

} // namespace

TEST(ShutdownTest, aLockThatSomebodyKeepsDoesNotHoldTheEndUp)
{
  LiveService service;
  ASSERT_TRUE(service.start()) << service.log();
  client::Client client(service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  for (char const* const subject : {"locked", "free"})
    ASSERT_EQ(client.store(subject, "kept", "<x/>"), client::DS_SUCCESS);
  // This process reads the metadata, and does not let go of it.
  int const fd = open((service.database() + "/2 kept locked.xml").c_str(), O_RDONLY | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);

  client::Remote::RemoteWriter_var writer;
  ASSERT_EQ(client->putCollection(client::makeRecord("locked", "kept"), writer.out()).discStatus,
            client::DS_SUCCESS);
  ASSERT_TRUE(writer->put(client::makeChunk("<new/>")));
  std::atomic<bool> returned{false};
  std::atomic<int> status{-1};
  std::thread closing(
      [&]
      {
        try
        {
          status = writer->close().discStatus;
        }
        catch (CORBA::Exception const&)
        {
          // The connection went with the service.
        }
        returned = true;
      });
  // Meanwhile other names are written, and the locked one is read.
  for (int i = 0; i < 20; ++i)
    ASSERT_EQ(client.store("free", "kept", "<y/>"), client::DS_SUCCESS);
  EXPECT_EQ(client.read("locked", "kept"), "<x/>");
  EXPECT_FALSE(returned);

  auto const begin = std::chrono::steady_clock::now();
  service.process().sendSignal(SIGTERM);
  EXPECT_TRUE(service.process().wait(std::chrono::seconds(20))) << service.log();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  closing.join();
  EXPECT_NE(status, client::DS_SUCCESS);
  EXPECT_EQ(readText(service.database() + "/2 kept locked.dat"), "<x/>");
  close(fd);
}
