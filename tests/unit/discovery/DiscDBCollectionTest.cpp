#include "discovery/DiscDBCollection.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/TempDir.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <memory>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
namespace fs = std::filesystem;

namespace
{

constexpr char OPEN[] = "DBCollectionData::open";
constexpr char PERSIST[] = "DBCollectionData::persist";
constexpr char CLEANUP[] = "DBCollectionData::cleanup";
constexpr char EXPIRE[] = "DBCollectionData::expire";

class Payload : public testing::Test
{
protected:
  TempDir m_dir;
  std::string const m_target = m_dir / "2 a b.dat";
  std::string const m_temporary = m_dir / "0.updating";
  std::unique_ptr<DBCollectionData> m_data =
      std::make_unique<DBCollectionData>(OzfPathname(m_dir / ""));

  bool write(std::string const& text) { return m_data->writeCollection(text.size(), text.data()); }
  bool persist() { return m_data->persist(OzfPathname(m_target)); }
  short cleanupLock() const { return lockSeenByOthers(m_dir / "Update.lock"); }
  static long openFiles()
  {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }
};

} // namespace

TEST_F(Payload, TouchesNoFileAtConstruction)
{
  EXPECT_TRUE(fs::is_empty(m_dir.path()));
  EXPECT_EQ(m_dir / "", m_data->getPath().str());
}

TEST_F(Payload, ForReadingOpensTheFile)
{
  writeText(m_target, "0123456789");
  LogCapture log;
  DBCollectionData data{OzfPathname(m_target)};
  EXPECT_NE(0, data.open(OM_READ, ""));
  EXPECT_EQ(1, log.count(4, OPEN, "Opening collection file: " + m_target)) << log.text();
  char buffer[8];
  EXPECT_EQ(8, data.readCollection(8, buffer));
  EXPECT_EQ("01234567", std::string(buffer, 8));
  EXPECT_EQ(2, data.readCollection(8, buffer));
  EXPECT_EQ(0, data.readCollection(8, buffer));
}

TEST_F(Payload, OpenedForReadingAgainStartsAnew)
{
  writeText(m_target, "xy");
  DBCollectionData data{OzfPathname(m_target)};
  char buffer[8];
  EXPECT_NE(0, data.open(OM_READ, ""));
  EXPECT_EQ(2, data.readCollection(8, buffer));
  auto const before = openFiles();
  EXPECT_NE(0, data.open(OM_READ, ""));
  EXPECT_EQ(before, openFiles());
  EXPECT_EQ(2, data.readCollection(8, buffer));
}

TEST_F(Payload, OpenedForWritingAgainThrowsAwayWhatWasWritten)
{
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  ASSERT_TRUE(write("old"));
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ("", readText(m_temporary));
  EXPECT_FALSE(fs::exists(m_dir / "1.updating"));
  ASSERT_TRUE(write("new"));
  ASSERT_TRUE(persist());
  EXPECT_EQ("new", readText(m_target));
}

TEST_F(Payload, AMissingFileIsLoggedWithItsErrorNumber)
{
  LogCapture log;
  DBCollectionData data{OzfPathname(m_target)};
  EXPECT_EQ(0, data.open(OM_READ, ""));
  EXPECT_EQ(1, log.count(1, OPEN, "Last error2")) << log.text();
  EXPECT_TRUE(log.has(1, OPEN, m_target + ": No such file or directory (2)")) << log.text();
}

TEST_F(Payload, DirectoriesAndFifosAreNoPayload)
{
  fs::create_directory(m_dir / "d.dat");
  EXPECT_EQ(0, DBCollectionData(OzfPathname(m_dir / "d.dat")).open(OM_READ, ""));
  ASSERT_EQ(0, mkfifo((m_dir / "f.dat").c_str(), 0644));
  EXPECT_EQ(0, DBCollectionData(OzfPathname(m_dir / "f.dat")).open(OM_READ, ""));
}

TEST_F(Payload, AnInterruptedReadIsTriedAgainAndAFailedOneIsAnError)
{
  writeText(m_target, "0123456789");
  DBCollectionData data{OzfPathname(m_target)};
  ASSERT_NE(0, data.open(OM_READ, ""));
  char buffer[8];
  {
    int calls = 0;
    SystemCalls const watched(m_dir.path(), [&](std::string const& call)
                              { return call == "read 2 a b.dat" && ++calls < 4 ? EINTR : 0; });
    EXPECT_EQ(8, data.readCollection(8, buffer));
    EXPECT_EQ(4, calls);
  }
  LogCapture log;
  {
    SystemCalls const watched(m_dir.path(), [](std::string const&) { return EIO; });
    EXPECT_EQ(-1, data.readCollection(8, buffer));
  }
  EXPECT_EQ(1, log.count(1, "DBCollectionData::readCollection",
                         "Unable to read " + m_target + ": Input/output error (5)"))
      << log.text();
}

TEST_F(Payload, ReadingAndWritingNeedAnOpenFile)
{
  LogCapture log;
  char byte = 0;
  EXPECT_THROW(m_data->readCollection(1, &byte), AssertionFailure);
  EXPECT_THROW(m_data->writeCollection(1, &byte), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DBCollectionData::readCollection",
                         "Assertion failed: ACE_INVALID_HANDLE != m_handle"));
  EXPECT_EQ(1, log.count(1, "DBCollectionData::writeCollection",
                         "Assertion failed: ACE_INVALID_HANDLE != m_handle"));
}

TEST_F(Payload, WritesToATemporaryFileUnderTheSharedCleanUpLock)
{
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(m_temporary, m_data->getPath().str());
  EXPECT_EQ(F_RDLCK, cleanupLock());
  EXPECT_TRUE(write("abc"));
  EXPECT_TRUE(write(""));
  EXPECT_TRUE(write("def"));
  EXPECT_EQ("abcdef", readText(m_temporary));
  EXPECT_FALSE(fs::exists(m_target));
  EXPECT_TRUE(persist());
  EXPECT_EQ("abcdef", readText(m_target));
  EXPECT_FALSE(fs::exists(m_temporary));
  EXPECT_EQ(m_target, m_data->getPath().str());
  EXPECT_EQ(F_UNLCK, cleanupLock());
}

TEST_F(Payload, ItsFilesAreOnlyTheOwnersToWrite)
{
  auto const modeOf = [](std::string const& path)
  { return static_cast<unsigned>(fs::status(path).permissions()); };
  mode_t const mask = umask(0);
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(0644u, modeOf(m_temporary));
  EXPECT_EQ(0644u, modeOf(m_dir / "Update.lock"));
  EXPECT_TRUE(persist());
  EXPECT_EQ(0644u, modeOf(m_target));
  umask(mask);
}

TEST_F(Payload, WithoutALockFileItIsWrittenUnprotected)
{
  fs::create_directory(m_dir / "Update.lock");
  LogCapture log;
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(1,
            log.count(1, "CleanupLock::CleanupLock", "Unable to open " + (m_dir / "Update.lock")))
      << log.text();
  EXPECT_TRUE(write("abc"));
  EXPECT_TRUE(persist());
  EXPECT_EQ("abc", readText(m_target));
}

TEST_F(Payload, WhenTheLockCannotBeHadItIsWrittenUnprotected)
{
  LogCapture log;
  SystemCalls const calls(m_dir.path(), [](std::string const& call)
                          { return call == "fcntl setlk read Update.lock" ? ENOLCK : 0; });
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(1,
            log.count(1, "CleanupLock::CleanupLock", "Unable to lock " + (m_dir / "Update.lock")))
      << log.text();
  EXPECT_EQ(F_UNLCK, cleanupLock());
  EXPECT_TRUE(write("abc"));
  EXPECT_TRUE(persist());
  EXPECT_EQ("abc", readText(m_target));
}

TEST_F(Payload, PersistLogsWhatItDid)
{
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  LogCapture log;
  ASSERT_TRUE(persist());
  EXPECT_EQ(1, log.count(1, PERSIST, "Unable to delete " + m_target)) << log.text();
  EXPECT_EQ(1, log.count(1, PERSIST, "Successfully renamed " + m_temporary + " to " + m_target));

  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  ASSERT_TRUE(persist());
  EXPECT_EQ(1, log.count(4, PERSIST, "Deleted file: " + m_target)) << log.text();
  EXPECT_EQ(2, log.count(1, PERSIST, "Successfully renamed " + m_temporary + " to " + m_target));
}

TEST_F(Payload, PersistWithoutAWriteMakesAnEmptyFile)
{
  writeText(m_target, "old");
  EXPECT_TRUE(persist());
  EXPECT_TRUE(fs::exists(m_target));
  EXPECT_EQ("", readText(m_target));
}

TEST_F(Payload, TheOldPayloadStaysUntilPersist)
{
  writeText(m_target, "old");
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_TRUE(write("new"));
  EXPECT_EQ("old", readText(m_target));
}

TEST_F(Payload, TakesTheFirstFreeNumberAndLogsTheAttempts)
{
  writeText(m_dir / "0.updating", "");
  writeText(m_dir / "1.updating", "");
  LogCapture log;
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(m_dir / "2.updating", m_data->getPath().str());
  EXPECT_EQ(0, log.count(4, OPEN, "Attempting collecation data file " + (m_dir / "0.updating")));
  EXPECT_EQ(1, log.count(4, OPEN, "Attempting collecation data file " + (m_dir / "1.updating")));
  EXPECT_EQ(1, log.count(4, OPEN, "Attempting collecation data file " + (m_dir / "2.updating")));
  EXPECT_EQ(2, log.count(1, OPEN, "Last error17")) << log.text();
  m_data->cleanup();

  fs::remove(m_dir / "0.updating");
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(m_dir / "0.updating", m_data->getPath().str()) << "numbering starts anew";
}

TEST_F(Payload, GivesUpAfterCandidate999)
{
  for (int i = 0; i <= 999; ++i)
    writeText(m_dir / (std::to_string(i) + ".updating"), "");
  LogCapture log(4);
  EXPECT_EQ(0, m_data->open(OM_UPDATE, ""));
  EXPECT_EQ(1000, log.count(1, OPEN, "Last error17"));
  EXPECT_EQ(1, log.count(4, OPEN, "Attempting collecation data file " + (m_dir / "999.updating")));
  EXPECT_EQ(0, log.count(4, OPEN, "Attempting collecation data file " + (m_dir / "1000.updating")));
  EXPECT_FALSE(fs::exists(m_dir / "1000.updating"));
  EXPECT_TRUE(log.has(1, OPEN, (m_dir / "999.updating") + ": File exists (17)"));
  EXPECT_EQ(F_UNLCK, cleanupLock()) << "nothing is being written";

  fs::remove(m_dir / "999.updating");
  EXPECT_NE(0, m_data->open(OM_UPDATE, ""));
}

TEST_F(Payload, ADirectoryThatCannotBeWrittenToFailsTheOpen)
{
  DBCollectionData data(OzfPathname("/proc/nowhere/"));
  LogCapture log;
  EXPECT_EQ(0, data.open(OM_UPDATE, ""));
  EXPECT_EQ(1000, log.count(1, OPEN, "Last error2"));
  EXPECT_FALSE(data.persist(OzfPathname(m_target)));
}

TEST_F(Payload, DestructionThrowsAwayWhatWasNotPersisted)
{
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_TRUE(write("abc"));
  LogCapture log;
  m_data.reset();
  EXPECT_FALSE(fs::exists(m_temporary));
  EXPECT_EQ(1, log.count(1, CLEANUP, "Deleted file: " + m_temporary)) << log.text();
  EXPECT_EQ(F_UNLCK, cleanupLock());
}

TEST_F(Payload, DestructionAfterReadingLeavesTheFile)
{
  writeText(m_target, "x");
  {
    DBCollectionData data{OzfPathname(m_target)};
    EXPECT_NE(0, data.open(OM_READ, ""));
  }
  EXPECT_EQ("x", readText(m_target));
}

TEST_F(Payload, CleanupDeletesTheTemporaryFileAndUnlocks)
{
  EXPECT_TRUE(m_data->cleanup()) << "nothing open";
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  LogCapture log;
  EXPECT_TRUE(m_data->cleanup());
  EXPECT_FALSE(fs::exists(m_temporary));
  EXPECT_EQ(F_UNLCK, cleanupLock());
  EXPECT_EQ(1, log.count(1, CLEANUP, "Deleted file: " + m_temporary)) << log.text();
  EXPECT_THROW(write("x"), AssertionFailure) << "closed";
}

TEST_F(Payload, CleanupLogsATemporaryFileThatIsGone)
{
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  fs::remove(m_temporary);
  LogCapture log;
  EXPECT_TRUE(m_data->cleanup());
  EXPECT_EQ(1, log.count(1, CLEANUP, "Unable to delete " + m_temporary)) << log.text();
}

TEST_F(Payload, CleanupNeverDeletesAPayloadOpenForReading)
{
  writeText(m_target, "x");
  DBCollectionData data{OzfPathname(m_target)};
  EXPECT_NE(0, data.open(OM_READ, ""));
  EXPECT_TRUE(data.cleanup());
  EXPECT_EQ("x", readText(m_target));
}

TEST_F(Payload, ACloseThatFailsIsLoggedAndTheOperationGoesOn)
{
  // The descriptor is closed behind the object's back.
  auto const closeOpenFile = [this]
  {
    int stolen = -1;
    for (auto const& entry : fs::directory_iterator("/proc/self/fd"))
    {
      std::error_code gone;
      if (fs::read_symlink(entry.path(), gone) == m_temporary)
        stolen = std::stoi(entry.path().filename());
    }
    ASSERT_GE(stolen, 0);
    close(stolen);
  };
  std::string const line = "Unable to close collection file: " + m_temporary + " Last error: 9";
  LogCapture log;

  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  closeOpenFile();
  EXPECT_TRUE(m_data->cleanup());
  EXPECT_EQ(1, log.count(1, CLEANUP, line)) << log.text();
  EXPECT_FALSE(fs::exists(m_temporary));

  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  closeOpenFile();
  EXPECT_TRUE(persist());
  EXPECT_EQ(1, log.count(1, PERSIST, line)) << log.text();
  EXPECT_TRUE(fs::exists(m_target));
}

TEST_F(Payload, ARenameThatFailsKeepsTheTemporaryFileAndTheLock)
{
  fs::create_directory(m_target); // can be neither unlinked nor replaced
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  EXPECT_TRUE(write("abc"));
  LogCapture log;
  EXPECT_FALSE(persist());
  EXPECT_EQ(1, log.count(1, PERSIST, "Unable to delete " + m_target)) << log.text();
  EXPECT_EQ(1, log.count(1, PERSIST, "Unable to rename " + m_temporary + " to " + m_target));
  EXPECT_EQ(F_RDLCK, cleanupLock());
  m_data.reset();
  EXPECT_EQ(F_UNLCK, cleanupLock());
  EXPECT_EQ("abc", readText(m_temporary)) << "it waits for the next start-up";
}

TEST_F(Payload, PersistIsNotForAPayloadOpenForReading)
{
  writeText(m_target, "x");
  DBCollectionData data{OzfPathname(m_target)};
  EXPECT_NE(0, data.open(OM_READ, ""));
  EXPECT_THROW(data.persist(OzfPathname(m_target)), AssertionFailure);
  EXPECT_EQ("x", readText(m_target));
}

TEST_F(Payload, ExpireDeletesTheFile)
{
  writeText(m_target, "x");
  LogCapture log;
  EXPECT_TRUE(DBCollectionData(OzfPathname(m_target)).expire());
  EXPECT_FALSE(fs::exists(m_target));
  EXPECT_EQ(1, log.count(4, EXPIRE, "Deleted colllection: " + m_target)) << log.text();
}

TEST_F(Payload, ExpireOfAMissingFileSucceeds)
{
  LogCapture log;
  EXPECT_TRUE(DBCollectionData(OzfPathname(m_target)).expire());
  EXPECT_EQ(1, log.count(1, EXPIRE, "Collection data did not exist " + m_target)) << log.text();
}

TEST_F(Payload, ExpireFailsSilentlyWhenTheFileCannotBeDeleted)
{
  fs::create_directory(m_target);
  LogCapture log;
  EXPECT_FALSE(DBCollectionData(OzfPathname(m_target)).expire());
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST_F(Payload, ExpireIsNotForAnOpenFile)
{
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  LogCapture log;
  EXPECT_THROW(m_data->expire(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, EXPIRE, "Assertion failed: ACE_INVALID_HANDLE == m_handle"));
}

TEST_F(Payload, AFullDiskFailsTheWriteWithALine)
{
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  getrlimit(RLIMIT_FSIZE, &old);
  rlimit small = old;
  small.rlim_cur = 10;
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  LogCapture log;
  setrlimit(RLIMIT_FSIZE, &small);
  bool const written = write("0123456789abcdef");
  setrlimit(RLIMIT_FSIZE, &old);
  EXPECT_FALSE(written);
  EXPECT_TRUE(log.has(1, "DBCollectionData::writeCollection",
                      "Unable to write " + m_temporary + ": File too large (27)"))
      << log.text();
  EXPECT_EQ("0123456789", readText(m_temporary)) << "the first, short write went through";
}

TEST_F(Payload, ASecondWriterGetsAFileOfItsOwn)
{
  DBCollectionData other(OzfPathname(m_dir / ""));
  ASSERT_NE(0, m_data->open(OM_UPDATE, ""));
  ASSERT_NE(0, other.open(OM_UPDATE, ""));
  EXPECT_NE(m_data->getPath().str(), other.getPath().str());
  EXPECT_TRUE(persist());
  EXPECT_EQ(F_RDLCK, cleanupLock()) << "the other still writes";
}

TEST_F(Payload, FlushOfWhatWasNeverOpenedMakesAnEmptyTemporaryFile)
{
  EXPECT_TRUE(m_data->flush());
  EXPECT_EQ(0u, fs::file_size(m_temporary));
  EXPECT_TRUE(persist());
  EXPECT_EQ(0u, fs::file_size(m_target));
}

TEST_F(Payload, AnOpenThatOpenedNothingFailsAnAssertion)
{
  class Lying : public DBCollectionData
  {
  public:
    using DBCollectionData::DBCollectionData;
    int open(OpenMode, char const*) override { return 1; }
  };
  Lying lying(OzfPathname(m_dir / ""));
  LogCapture log;
  EXPECT_THROW(lying.persist(OzfPathname(m_target)), AssertionFailure);
  EXPECT_EQ(1, log.count(1, PERSIST, "Assertion failed: ACE_INVALID_HANDLE != m_handle"));
  EXPECT_THROW(lying.flush(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DBCollectionData::flush",
                         "Assertion failed: ACE_INVALID_HANDLE != m_handle"))
      << log.text();
}

TEST_F(Payload, DestructionInAModeThatIsNoneIsLoggedAndClosesTheFile)
{
  writeText(m_target, "x");
  auto const before = openFiles();
  LogCapture log;
  {
    DBCollectionData data{OzfPathname(m_target)};
    ASSERT_NE(0, data.open(static_cast<OpenMode>(7), ""));
  }
  EXPECT_EQ(1, log.count(1, "DBCollectionData::~DBCollectionData",
                         "Assertion failed: SHOULD_NOT_GET_HERE"))
      << log.text();
  EXPECT_EQ(before, openFiles());
  EXPECT_EQ("x", readText(m_target));
}
