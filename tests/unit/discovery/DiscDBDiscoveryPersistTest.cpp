// How a discovery is written, and what happens to it when others interfere.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscDBFiles.h"
#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/resource.h>

#include <csignal>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char PERSIST_DISCOVERY[] = "DBDiscovery::persist";
constexpr char WRITE_METADATA[] = "DBDiscovery::writeMetadata";

using DiscoveryPtr = AutoDereference<DBDiscovery>;

class Persist : public testing::Test
{
protected:
  TempDir m_dir;
  std::string const m_path = m_dir / "2 hostA hostB.xml";
  std::string const m_data = m_dir / "2 hostA hostB.dat";

  DiscoveryPtr make(unsigned priority) const
  {
    return records::make(m_dir.path(), "hostA", "hostB", priority);
  }

  DiscoveryStatus store(unsigned priority, std::string const& payload) const
  {
    return records::store(*make(priority), payload);
  }

  // An opened and written discovery whose next step is persist.
  DiscoveryPtr ready(unsigned priority, std::string const& payload) const
  {
    DiscoveryPtr discovery = make(priority);
    EXPECT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    EXPECT_TRUE(discovery->getCollectionData()->writeCollection(payload.size(), payload.data()));
    return discovery;
  }
};

// Limits what the process may do for a scope.
class Limit
{
public:
  Limit(decltype(RLIMIT_FSIZE) what, rlim_t value) : m_what(what)
  {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(m_what, &m_old);
    rlimit now = m_old;
    now.rlim_cur = value;
    setrlimit(m_what, &now);
  }
  ~Limit() { setrlimit(m_what, &m_old); }

private:
  decltype(RLIMIT_FSIZE) m_what;
  rlimit m_old{};
};

} // namespace

TEST_F(Persist, WritesBothFiles)
{
  DiscoveryPtr const discovery = make(5);
  EXPECT_EQ(DS_SUCCESS, records::store(*discovery, "payload"));
  EXPECT_EQ(xmlOf(*discovery), readText(m_path));
  EXPECT_EQ("payload", readText(m_data));
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(m_path));
  EXPECT_FALSE(fs::exists(m_dir / "0.updating"));
  struct stat status
  {
  };
  ASSERT_EQ(0, stat(m_path.c_str(), &status));
  mode_t const mask = umask(0);
  umask(mask);
  EXPECT_EQ(0644u & ~mask, status.st_mode & 0777u);
}

TEST_F(Persist, ReplacesAnEqualOrLowerPriority)
{
  ASSERT_EQ(DS_SUCCESS, store(5, "first"));
  EXPECT_EQ(DS_SUCCESS, store(5, "second"));
  EXPECT_EQ("second", readText(m_data));
  EXPECT_EQ(DS_SUCCESS, store(6, "third"));
  EXPECT_EQ("third", readText(m_data));
}

TEST_F(Persist, IsRefusedAgainstAHigherPriorityAndDiscardsThePayload)
{
  DiscoveryPtr const discovery = ready(5, "late");
  ASSERT_EQ(DS_SUCCESS, store(6, "kept"));
  std::string const before = readText(m_path);
  LogCapture log;
  EXPECT_EQ(DS_DATA_EXISTS, discovery->persist());
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY,
                         "Cannot persist, data with higher priority already exists."))
      << log.text();
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("kept", readText(m_data));
  EXPECT_FALSE(fs::exists(m_dir / "0.updating"));
}

TEST_F(Persist, AnEmptyMetadataFileIsReplaced)
{
  writeText(m_path, "");
  EXPECT_EQ(DS_SUCCESS, store(0, "x"));
}

TEST_F(Persist, AShorterDocumentLeavesNoTailOfALongerOne)
{
  writeText(m_path, document(FUTURE) + std::string(5000, ' '));
  DiscoveryPtr const discovery = make(5);
  ASSERT_EQ(DS_SUCCESS, records::store(*discovery, "x"));
  EXPECT_EQ(xmlOf(*discovery), readText(m_path));
}

TEST_F(Persist, AHugeStoredFileIsReplacedByTheDocument)
{
  writeText(m_path, "");
  fs::resize_file(m_path, std::uintmax_t{1} << 30);
  DiscoveryPtr const discovery = make(5);
  ASSERT_EQ(DS_SUCCESS, records::store(*discovery, "x"));
  EXPECT_EQ(xmlOf(*discovery), readText(m_path));
}

TEST_F(Persist, WithoutOpenStoresAnEmptyPayload)
{
  EXPECT_EQ(DS_SUCCESS, make(1)->persist());
  EXPECT_TRUE(fs::exists(m_data));
  EXPECT_EQ(0u, fs::file_size(m_data));
}

TEST_F(Persist, ADocumentGivenAsTextIsWrittenFromItsParts)
{
  DiscoveryPtr const discovery = make(1);
  ASSERT_TRUE(discovery->load(document(FUTURE, 7).c_str()));
  discovery->getAttributes()->setPriority(7);
  ASSERT_EQ(DS_SUCCESS, records::store(*discovery, "x"));
  EXPECT_EQ(document(FUTURE, 7), readText(m_path));
}

TEST_F(Persist, NeedsItsParts)
{
  LogCapture log;
  auto const fails = [&](DBDiscovery& discovery, std::string const& expression)
  {
    EXPECT_THROW(discovery.persist(), AssertionFailure);
    EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY, "Assertion failed: " + expression)) << log.text();
  };
  DiscoveryPtr const discovery = make(1);
  discovery->setCollectionData(nullptr);
  fails(*discovery, "getCollectionData()");
  discovery->setSubject(nullptr);
  fails(*discovery, "getSubject()");
  discovery->setAuthority(nullptr);
  fails(*discovery, "getAuthority()");
  DiscoveryPtr const held(new DBDiscovery(new ACE_File_Lock(ACE_INVALID_HANDLE, false), nullptr,
                                          DQ_DISCOVERY_DATA, OzfPathname(m_path)));
  fails(*held, "!m_fileLock");
}

TEST_F(Persist, MetadataThatCannotBeOpenedIsLoggedWithItsPathAndReason)
{
  DiscoveryPtr const discovery = ready(1, "x");
  fs::create_directory(m_path);
  LogCapture log;
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY, "Unable to open " + m_path)) << log.text();
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY, m_path + ": Is a directory (21)")) << log.text();
  EXPECT_FALSE(fs::exists(m_data));
}

TEST_F(Persist, AFifoOrDeviceInPlaceOfTheMetadataIsRefused)
{
  ASSERT_EQ(0, mkfifo(m_path.c_str(), 0644));
  LogCapture log;
  EXPECT_EQ(DS_OPEN_FAILED, store(1, "x"));
  EXPECT_TRUE(log.has(1, PERSIST_DISCOVERY, "Not a regular file: " + m_path)) << log.text();
  EXPECT_FALSE(fs::exists(m_data));
}

// The sanitizers look at memory through a pipe, and end a process that gets none.
#ifndef __SANITIZE_ADDRESS__
TEST_F(Persist, WithoutFreeDescriptorsNothingStoredIsHarmed)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  std::string const before = readText(m_path);
  DiscoveryPtr const discovery = ready(1, "new");
  LogCapture log;
  {
    Limit const limit(RLIMIT_NOFILE, 0);
    EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  }
  EXPECT_EQ(1, log.count(1, "DBDiscovery::canOverride", m_path + ": Too many open files (24)"))
      << log.text();
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}
#endif

TEST_F(Persist, AWriteThatFailsHalfwayKeepsTheStoredDiscovery)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  std::string const before = readText(m_path);
  DiscoveryPtr const discovery = ready(1, "new");
  discovery->getAttributes()->setSignature(std::string(1000, 's'));
  LogCapture log;
  {
    Limit const limit(RLIMIT_FSIZE, before.size() + 10);
    EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  }
  EXPECT_EQ(1, log.count(1, WRITE_METADATA, "Unable to write metadata")) << log.text();
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY, "Metadata update to " + m_path + " failed"))
      << log.text();
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Persist, ANewFileThatCannotBeWrittenDoesNotStayAsAnEmptyOne)
{
  DiscoveryPtr const discovery = ready(9, "new");
  {
    Limit const limit(RLIMIT_FSIZE, 100);
    EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  }
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_FALSE(fs::exists(m_data));
  EXPECT_EQ(DS_SUCCESS, store(0, "later"));
}

TEST_F(Persist, ADocumentThatCouldNotBeReadBackIsNotWritten)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  std::string const before = readText(m_path);
  DiscoveryPtr const discovery = ready(1, "new");
  discovery->getAttributes()->setSignature(std::string(LARGEST_METADATA, 's'));
  std::string const size = std::to_string(xmlOf(*discovery).size());
  LogCapture log;
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY,
                         "Too large for metadata: " + m_path + ", " + size + " bytes"))
      << log.lines().size();
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Persist, APayloadOpenForReadingFailsBeforeAnythingIsTouched)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  std::string const before = readText(m_path);
  DiscoveryPtr const discovery = make(1);
  discovery->setCollectionData(new DBCollectionData(OzfPathname(m_data)));
  ASSERT_EQ(DS_SUCCESS, discovery->open(OM_READ, ""));
  LogCapture log;
  EXPECT_THROW(discovery->persist(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DBCollectionData::flush", "Assertion failed: OM_UPDATE == m_mode"))
      << log.text();
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Persist, AStoredDocumentTooLargeToKeepIsNotPutBackInPart)
{
  std::string const before = document(FUTURE) + std::string(LARGEST_METADATA, ' ');
  writeText(m_path, before);
  DiscoveryPtr const discovery = ready(1, "new");
  SystemCalls const calls(m_dir.path(), [](std::string const& call)
                          { return call.starts_with("pwrite") ? ENOSPC : 0; });
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_TRUE(before == readText(m_path));
  EXPECT_EQ(1, std::count(calls.seen().begin(), calls.seen().end(), "pwrite 2 hostA hostB.xml"));
}

TEST_F(Persist, ATextOfItsOwnIsNotTakenForTheStoredOne)
{
  // The stored document appears after the look at the priority, and happens to
  // be the text that this discovery was made of.
  std::string const text = document(FUTURE, 9);
  DiscoveryPtr const discovery = make(1);
  ASSERT_TRUE(discovery->load(text.c_str()));
  ASSERT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
  ASSERT_TRUE(discovery->load(text.c_str()));
  SystemCalls const calls(m_dir.path(),
                          [&](std::string const& call)
                          {
                            if (call == "fsync 0.updating")
                              writeText(m_path, text);
                            return 0;
                          });
  EXPECT_EQ(DS_DATA_EXISTS, discovery->persist());
  EXPECT_EQ(text, readText(m_path));
}

TEST_F(Persist, AFailedPayloadIsLoggedAndLeavesNoMetadata)
{
  DiscoveryPtr const discovery = ready(1, "x");
  fs::create_directory(m_data);
  LogCapture log;
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY, "Collection data update failed")) << log.text();
  EXPECT_FALSE(fs::exists(m_path));
}

TEST_F(Persist, WaitsForAReaderOfAnotherProcess)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  OtherProcess reader(m_path, F_RDLCK);
  DiscoveryPtr const discovery = ready(1, "new");
  std::atomic<int> status{-1};
  std::thread writer([&] { status = discovery->persist(); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  EXPECT_EQ(-1, status);
  EXPECT_EQ("old", readText(m_data));
  reader.leave();
  writer.join();
  EXPECT_EQ(DS_SUCCESS, status);
  EXPECT_EQ("new", readText(m_data));
}

TEST_F(Persist, WhileItWaitsOtherThreadsMayUseTheRecord)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  OtherProcess reader(m_path, F_RDLCK);
  DiscoveryPtr const discovery = ready(1, "new");
  std::thread writer([&] { EXPECT_EQ(DS_SUCCESS, discovery->persist()); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  std::atomic<bool> passed{false};
  std::thread checker(
      [&]
      {
        make(1)->canOverride();
        passed = true;
      });
  EXPECT_TRUE(eventually([&] { return passed.load(); })) << "the guard is held through the wait";
  reader.leave();
  checker.join();
  writer.join();
}

TEST_F(Persist, IsRefusedWhenAHigherPriorityCameWhileItWaited)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  std::string const higher = document(FUTURE, 9);
  OtherProcess other(m_path, F_RDLCK,
                     [&]
                     {
                       int const fd = open(m_path.c_str(), O_WRONLY | O_TRUNC);
                       if (write(fd, higher.data(), higher.size()) < 0)
                         _exit(1);
                     });
  DiscoveryPtr const discovery = ready(1, "new");
  LogCapture log;
  std::atomic<int> status{-1};
  std::thread writer([&] { status = discovery->persist(); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  other.leave();
  writer.join();
  EXPECT_EQ(DS_DATA_EXISTS, status);
  EXPECT_EQ(1, log.count(1, PERSIST_DISCOVERY,
                         "Cannot persist, data with higher priority already exists."));
  EXPECT_EQ(higher, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Persist, WritesANewFileWhenTheOldOneWasDeletedWhileItWaited)
{
  ASSERT_EQ(DS_SUCCESS, store(1, "old"));
  OtherProcess other(m_path, F_RDLCK,
                     [&] { // with a name elsewhere the file lives on
                       if (link(m_path.c_str(), (m_dir / "snapshot").c_str()) == 0)
                         unlink(m_path.c_str());
                     });
  DiscoveryPtr const discovery = ready(1, "new");
  std::atomic<int> status{-1};
  std::thread writer([&] { status = discovery->persist(); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  other.leave();
  writer.join();
  EXPECT_EQ(DS_SUCCESS, status);
  EXPECT_EQ(xmlOf(*discovery), readText(m_path));
  EXPECT_EQ("new", readText(m_data));
}

TEST(WriteMetadata, StartsAtTheBeginningWhateverThePosition)
{
  TempDir const dir;
  writeText(dir / "f", "0123456789");
  int const fd = open((dir / "f").c_str(), O_RDWR);
  lseek(fd, 0, SEEK_END);
  EXPECT_TRUE(DBDiscovery::writeMetadata(fd, "abc"));
  EXPECT_EQ("abc", readText(dir / "f"));
  EXPECT_TRUE(DBDiscovery::writeMetadata(fd, "abcdefghijklm"));
  EXPECT_EQ("abcdefghijklm", readText(dir / "f"));
  EXPECT_TRUE(DBDiscovery::writeMetadata(fd, ""));
  EXPECT_EQ("", readText(dir / "f"));
  close(fd);
}

TEST(WriteMetadata, PadsOverTheOldDocumentBeforeItTruncates)
{
  // A file that must not shrink shows the moment between the two.
  int const fd = memfd_create("metadata", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  ASSERT_GE(fd, 0);
  ASSERT_TRUE(DBDiscovery::writeMetadata(fd, "0123456789"));
  ASSERT_EQ(0, fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK));
  LogCapture log;
  EXPECT_FALSE(DBDiscovery::writeMetadata(fd, "abc"));
  EXPECT_EQ(1, log.count(1, WRITE_METADATA, "Unable to truncate metadata")) << log.text();
  char buffer[20];
  EXPECT_EQ(10, pread(fd, buffer, sizeof buffer, 0));
  EXPECT_EQ("abc\n\n\n\n\n\n\n", std::string(buffer, 10));
  close(fd);
}

TEST(WriteMetadata, AWriteThatFailsIsLogged)
{
  TempDir const dir;
  writeText(dir / "f", "old");
  int const fd = open((dir / "f").c_str(), O_RDONLY);
  LogCapture log;
  EXPECT_FALSE(DBDiscovery::writeMetadata(fd, "abc"));
  EXPECT_EQ(1, log.count(1, WRITE_METADATA, "Unable to write metadata")) << log.text();
  EXPECT_EQ("old", readText(dir / "f"));
  close(fd);
}

TEST(DBConcurrency, EveryOperationOnAMetadataFileWaitsForItsGuard)
{
  Database const db;
  std::string const path = db / "2 a b.xml";
  ASSERT_EQ(DS_SUCCESS, records::store(db.path(), "a", "b", 1, "x"));
  auto const get = [] { return getDiscoveryDBDatabase()->getDiscovery("2 a b.xml"); };
  AutoDereference<Discovery> dying(get());
  AutoDereference<Discovery> expiring(get());
  AutoDereference<Discovery> opening(get());
  AutoDereference<Discovery> got;
  DiscoveryPtr const checking = records::make(db.path(), "a", "b", 1);
  DiscoveryPtr const writing = records::make(db.path(), "a", "b", 1);

  std::vector<std::function<void()>> const operations = {
      [&] { dying.reset(); },           [&] { dynamic_cast<DBDiscovery&>(*expiring).expire(); },
      [&] { checking->canOverride(); }, [&] { writing->persist(); },
      [&] { got.reset(get()); },        [&] { opening->open(OM_READ, ""); },
  };
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  {
    MetadataGuard const guard(path);
    for (auto const& operation : operations)
      threads.emplace_back(
          [&]
          {
            operation();
            ++done;
          });
    EXPECT_FALSE(eventually([&] { return done > 0; }, std::chrono::seconds(1)));
    EXPECT_EQ(F_RDLCK, lockSeenByOthers(path)) << "nobody closed the file";
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(6, done);
}

TEST(DBConcurrency, ThreadsThatWriteAndWalkNeverSeeATornRecord)
{
  Database const db;
  std::atomic<int> walked{0};
  std::atomic<int> failed{0};
  LogCapture log(1);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread)
    threads.emplace_back(
        [&, thread]
        {
          for (int n = 0; n < 60; ++n)
          {
            std::string const subject = "s" + std::to_string(n % 3);
            AutoDereference<DBDiscovery> const discovery =
                records::make(db.path(), "a", subject, static_cast<unsigned>(n % 2));
            discovery->getAttributes()->setSignature(
                std::string(static_cast<std::size_t>(37 * n % 500), 's'));
            DiscoveryStatus const status =
                records::store(*discovery, subject + std::to_string(thread));
            if (status != DS_SUCCESS && status != DS_DATA_EXISTS)
              ++failed;
            AutoDereference<DiscoveryIterator> const iterator(
                getDiscoveryDBDatabase()->getIterator(DQ_UNDEFINED));
            while (AutoDereference<Discovery> const found{iterator->getNext()})
              ++walked;
          }
        });
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(0, failed);
  EXPECT_GE(walked, 4 * 60) << "every walk finds at least what its thread wrote";
  for (auto const& line : log.lines())
  {
    EXPECT_EQ(std::string::npos, line.text.find("could not be loaded")) << line.text;
    EXPECT_EQ(std::string::npos, line.text.find("Unable to lock")) << line.text;
    EXPECT_EQ(std::string::npos, line.text.find("Failed to parse")) << line.text;
  }
}
