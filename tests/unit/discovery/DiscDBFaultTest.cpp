// What is left of a discovery when one of the system calls that replace or
// delete it fails, or the process ends there.
//
// The rules write the metadata first and rename the payload after it, so there
// is a window in which a process that dies leaves new metadata beside the old
// payload, or beside none where there was none. Outside of it, and after every
// failure, there is only the old discovery or the new one.

#include "discovery/DiscDBDiscovery.h"

#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gmock/gmock.h>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char XML[] = "2 hostA hostB.xml";
constexpr char DAT[] = "2 hostA hostB.dat";
constexpr int KILLED = 77;

enum class End
{
  FAILS, // the call answers with an error
  KILLS  // the process ends instead of the call
};

class Faults : public testing::Test
{
protected:
  Database m_db;

  AutoDereference<DBDiscovery> make(std::string const& text) const
  {
    auto discovery = records::make(m_db.path(), "hostA", "hostB", 1);
    // The new document is the shorter one, so that there is a tail to cut off.
    discovery->getAttributes()->setSignature(text == "old" ? std::string(300, 'o') : text);
    return discovery;
  }

  // Opened and written; persist comes next.
  AutoDereference<DBDiscovery> ready(std::string const& text) const
  {
    auto discovery = make(text);
    EXPECT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    EXPECT_TRUE(discovery->getCollectionData()->writeCollection(text.size(), text.data()));
    return discovery;
  }

  // "old/new": whose metadata and whose payload a reader finds.
  std::string found() const
  {
    AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(XML));
    if (!record)
      return fs::exists(m_db / XML) ? "unreadable" : "none";
    std::string const signature = record->getAttributes()->getSignature().str();
    std::string const payload = fs::exists(m_db / DAT) ? payloadOf(*record) : "none";
    return (signature == std::string(300, 'o') ? "old" : signature) + "/" + payload;
  }

  // Runs the action with the fault at the call of that number. The result is
  // the call's text, or empty when there are not so many.
  std::string runWithFault(std::function<int()> const& action, End end, int number, int error,
                           int& status) const;
};

std::string Faults::runWithFault(std::function<int()> const& action, End end, int number, int error,
                                 int& status) const
{
  std::string at;
  int calls = 0;
  auto const run = [&](std::function<int()> const& fault)
  {
    SystemCalls const watched(m_db.path(),
                              [&](std::string const& call)
                              {
                                if (!SystemCalls::changes(call) || ++calls != number)
                                  return 0;
                                at = call;
                                return fault();
                              });
    return action();
  };
  if (end == End::FAILS)
  {
    status = run([&] { return error; });
    return at;
  }
  int channel[2];
  EXPECT_EQ(0, pipe(channel));
  pid_t const pid = fork();
  if (pid == 0)
  {
    run(
        [&]
        {
          std::size_t const size = at.size();
          if (write(channel[1], at.data(), size) == static_cast<ssize_t>(size))
            _exit(KILLED);
          _exit(1);
          return 0;
        });
    _exit(0);
  }
  close(channel[1]);
  char text[100];
  ssize_t const size = read(channel[0], text, sizeof text);
  close(channel[0]);
  waitpid(pid, &status, 0);
  EXPECT_EQ(size > 0 ? KILLED : 0, WEXITSTATUS(status));
  return {text, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

struct Expected
{
  char const* call;
  char const* afterFailure;
  DiscoveryStatus status;
  char const* afterDeath;
};

using Steps = std::vector<Expected>;

} // namespace

TEST_F(Faults, PersistFlushesThePayloadThenWritesMetadataThenReplacesThenFlushes)
{
  ASSERT_EQ(DS_SUCCESS, ready("old")->persist());
  auto const discovery = ready("new");
  SystemCalls const calls(m_db.path());
  ASSERT_EQ(DS_SUCCESS, discovery->persist());
  std::vector<std::string> order;
  for (auto const& call : calls.seen())
    if (SystemCalls::changes(call))
      order.push_back(call);
  EXPECT_THAT(order,
              testing::ElementsAre("fsetxattr 0.updating", "fsync 0.updating",
                                   std::string("pwrite ") + XML, std::string("ftruncate ") + XML,
                                   std::string("fdatasync ") + XML, "rename 0.updating", "fsync .",
                                   std::string("removexattr ") + DAT, std::string("fsync ") + XML));
}

// Or else the note may be lost with the name, and nothing finishes what a power
// cut left half done.
TEST_F(Faults, PersistFlushesTheNameOfThePayloadWhereTheFilesOwnFlushMayNotKeepIt)
{
  for (bool const fails : {false, true})
  {
    ASSERT_EQ(DS_SUCCESS, ready("old")->persist());
    auto const discovery = ready("new");
    std::vector<std::string> order;
    {
      SystemCalls const calls(m_db.path(),
                              [&](std::string const& call)
                              {
                                if (call == "fstatfs .")
                                  return ENOSYS;
                                if (SystemCalls::changes(call))
                                  order.push_back(call);
                                return fails && call == "fsync ." ? EIO : 0;
                              });
      EXPECT_EQ(fails ? DS_OPEN_FAILED : DS_SUCCESS, discovery->persist());
    }
    ASSERT_GE(order.size(), 3U);
    EXPECT_EQ("fsync 0.updating", order[1]);
    EXPECT_EQ("fsync .", order[2]);
    EXPECT_EQ(fails ? "old/old" : "new/new", found());
  }
}

TEST_F(Faults, AReplacementLeavesTheOldOrTheNewDiscoveryOutsideOfTheWindow)
{
  Steps const steps = {
      {"fsetxattr 0.updating", "new/new", DS_SUCCESS, "old/old"},
      {"fsync 0.updating", "old/old", DS_OPEN_FAILED, "old/old"},
      {"pwrite 2 hostA hostB.xml", "old/old", DS_OPEN_FAILED, "old/old"},
      {"ftruncate 2 hostA hostB.xml", "old/old", DS_OPEN_FAILED, "new/old"}, // the window opens
      {"fdatasync 2 hostA hostB.xml", "old/old", DS_OPEN_FAILED, "new/old"},
      {"rename 0.updating", "old/old", DS_OPEN_FAILED, "new/old"}, // it closes
      {"fsync .", "new/new", DS_OPEN_FAILED, "new/new"},
      {"removexattr 2 hostA hostB.dat", "new/new", DS_SUCCESS, "new/new"},
      {"fsync 2 hostA hostB.xml", "new/new", DS_OPEN_FAILED, "new/new"},
  };
  for (int const error : {EIO, ENOSPC})
    for (End const end : {End::FAILS, End::KILLS})
      for (std::size_t n = 0; n <= steps.size(); ++n)
      {
        Database const fresh;
        ASSERT_EQ(DS_SUCCESS, ready("old")->persist());
        auto const discovery = ready("new");
        int status = 0;
        std::string const at = runWithFault([&] { return discovery->persist(); }, end,
                                            static_cast<int>(n + 1), error, status);
        if (n == steps.size())
        {
          EXPECT_EQ("", at) << "one call more";
          continue;
        }
        EXPECT_EQ(steps[n].call, at);
        EXPECT_EQ(end == End::FAILS ? steps[n].afterFailure : steps[n].afterDeath, found()) << at;
        if (end == End::FAILS)
        {
          EXPECT_EQ(steps[n].status, status) << at;
        }
        EXPECT_EQ(DS_SUCCESS, make("new")->persist()) << "nothing is in a later writer's way";
      }
}

TEST_F(Faults, AFirstDiscoveryIsThereOrNotOutsideOfTheWindow)
{
  Steps const steps = {
      {"fsetxattr 0.updating", "new/new", DS_SUCCESS, "none"},
      {"fsync 0.updating", "none", DS_OPEN_FAILED, "none"},
      {"pwrite 2 hostA hostB.xml", "none", DS_OPEN_FAILED, "unreadable"}, // an empty file
      {"ftruncate 2 hostA hostB.xml", "none", DS_OPEN_FAILED, "new/none"},
      {"fdatasync 2 hostA hostB.xml", "none", DS_OPEN_FAILED, "new/none"},
      {"rename 0.updating", "none", DS_OPEN_FAILED, "new/none"},
      {"fsync .", "new/new", DS_OPEN_FAILED, "new/new"},
      {"removexattr 2 hostA hostB.dat", "new/new", DS_SUCCESS, "new/new"},
      {"fsync 2 hostA hostB.xml", "new/new", DS_OPEN_FAILED, "new/new"},
  };
  for (End const end : {End::FAILS, End::KILLS})
    for (std::size_t n = 0; n < steps.size(); ++n)
    {
      Database const fresh;
      auto const discovery = ready("new");
      int status = 0;
      EXPECT_EQ(steps[n].call, runWithFault([&] { return discovery->persist(); }, end,
                                            static_cast<int>(n + 1), EIO, status));
      EXPECT_EQ(end == End::FAILS ? steps[n].afterFailure : steps[n].afterDeath, found())
          << steps[n].call;
      if (end == End::FAILS)
      {
        EXPECT_EQ(steps[n].status, status) << steps[n].call;
      }
    }
}

TEST_F(Faults, AFailedWriteOfThePayloadIsTold)
{
  auto const discovery = make("new");
  ASSERT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
  SystemCalls const calls(m_db.path(), [](std::string const& call)
                          { return call == "write 0.updating" ? ENOSPC : 0; });
  EXPECT_FALSE(discovery->getCollectionData()->writeCollection(3, "new"));
}

TEST_F(Faults, AnExpiryDeletesThePayloadFirstAndWhatIsLeftExpiresLater)
{
  Steps const steps = {
      {"unlink 2 hostA hostB.dat", "both", DS_LOGIC_ERROR, "both"},
      {"unlink 2 hostA hostB.xml", "metadata", DS_LOGIC_ERROR, "metadata"},
  };
  for (End const end : {End::FAILS, End::KILLS})
    for (std::size_t n = 0; n <= steps.size(); ++n)
    {
      Database const fresh;
      writeText(m_db / XML, document(FUTURE));
      writeText(m_db / DAT, "old");
      AutoDereference<Discovery> record(getDiscoveryDBDatabase()->getDiscovery(XML));
      writeText(m_db / XML, document(PAST));
      LogCapture log;
      int status = 0;
      std::string const at =
          runWithFault([&] { return dynamic_cast<DBDiscovery&>(*record).expire(); }, end,
                       static_cast<int>(n + 1), EACCES, status);
      if (n == steps.size())
      {
        EXPECT_EQ("", at) << "one call more";
        continue;
      }
      EXPECT_EQ(steps[n].call, at);
      EXPECT_TRUE(fs::exists(m_db / XML));
      EXPECT_EQ(steps[n].afterDeath == std::string("both"), fs::exists(m_db / DAT));
      if (end == End::FAILS)
      {
        EXPECT_EQ(DS_LOGIC_ERROR, status);
        EXPECT_EQ(F_RDLCK, lockSeenByOthers(m_db / XML)) << "the record stays one that is read";
        EXPECT_EQ(n == 1, log.has(1, "DBDiscovery::expire",
                                  "Unable to delete " + (m_db / XML) + ": Permission denied (13)"))
            << log.text();
      }
      record.reset();
      EXPECT_EQ("none", found());
      EXPECT_FALSE(fs::exists(m_db / DAT));
    }
}

TEST_F(Faults, ADirectoryThatFailsToBeFlushedFailsTheCallWhereItCanBeFlushed)
{
  for (int const error : {EINVAL, ENOTSUP, EIO})
  {
    auto const discovery = ready("new");
    LogCapture log;
    SystemCalls const calls(m_db.path(),
                            [&](std::string const& call) { return call == "fsync ." ? error : 0; });
    EXPECT_EQ(error == EIO ? DS_OPEN_FAILED : DS_SUCCESS, discovery->persist()) << error;
    EXPECT_EQ(error == EIO, log.text().find("Unable to flush") != std::string::npos) << log.text();
    EXPECT_EQ(error == EIO ? 1 : 0,
              log.count(1, "DBCollectionData::persist",
                        "Unable to flush " + m_db.path() + ": Input/output error (5)"));
    EXPECT_EQ(std::string("fsync ") + XML, calls.seen().back()) << "the metadata is flushed anyway";
  }
}

TEST_F(Faults, ADirectoryWhoseParentFailsToBeFlushedIsMadeAllTheSame)
{
  SystemCalls const calls(m_db.path(),
                          [](std::string const& call) { return call == "fsync ." ? EIO : 0; });
  EXPECT_EQ(EIO, mkdirpath(m_db / "one/two/three", 0755));
  EXPECT_TRUE(std::filesystem::is_directory(m_db / "one/two/three"));
}

TEST_F(Faults, ARefusedUpgradeIsTriedOnceMoreWithoutTheReadLock)
{
  writeText(m_db / XML, document(FUTURE));
  writeText(m_db / DAT, "old");
  AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(XML));
  writeText(m_db / XML, document(PAST));
  std::string const name = XML;
  int upgrades = 0;
  LogCapture log;
  SystemCalls const calls(m_db.path(),
                          [&](std::string const& call)
                          {
                            if (call == "fcntl setlk unlock " + name)
                              return ENOLCK;
                            return call == "fcntl setlk write " + name && ++upgrades == 1 ? EAGAIN
                                                                                          : 0;
                          });
  EXPECT_EQ(DS_SUCCESS, dynamic_cast<DBDiscovery&>(*record).expire());
  std::vector<std::string> first;
  std::copy_if(calls.seen().begin(), calls.seen().end(), std::back_inserter(first),
               [](std::string const& call) { return call.starts_with("fcntl"); });
  first.resize(3);
  EXPECT_THAT(first, testing::ElementsAre("fcntl setlk write " + name, "fcntl setlk unlock " + name,
                                          "fcntl setlk write " + name));
  EXPECT_EQ(1, log.count(1, "DBDiscovery::expire",
                         "WARN: Unable to release file lock, errno: " + std::to_string(ENOLCK)))
      << log.text();
  EXPECT_FALSE(fs::exists(m_db / XML));
}

TEST_F(Faults, LocksThatCannotBeHadAreFailures)
{
  ASSERT_EQ(DS_SUCCESS, ready("old")->persist());
  auto const writing = ready("new");
  LogCapture log;
  std::string const name = XML;
  {
    SystemCalls const calls(
        m_db.path(),
        [&](std::string const& call) {
          return call.starts_with("fcntl setlk") && call.ends_with(" read " + name) ? ENOLCK : 0;
        });
    EXPECT_FALSE(make("new")->canOverride());
    EXPECT_EQ(
        1, log.count(1, "DBDiscovery::canOverride", "Unable to acquire read lock " + (m_db / name)))
        << log.text();
    EXPECT_EQ(DS_DATA_EXISTS, make("new")->open(OM_UPDATE, ""));
    EXPECT_EQ(nullptr, getDiscoveryDBDatabase()->getDiscovery(XML));
    EXPECT_EQ(1,
              log.count(1, "DiscoveryDBCreator::getDiscovery", "Unable to lock " + (m_db / name)))
        << log.text();
  }
  {
    SystemCalls const calls(m_db.path(), [&](std::string const& call)
                            { return call == "fcntl setlk write " + name ? ENOLCK : 0; });
    EXPECT_EQ(DS_OPEN_FAILED, writing->persist());
    EXPECT_EQ(1, log.count(1, "DBDiscovery::persist", "Unable to lock " + (m_db / name)))
        << log.text();
  }
  EXPECT_EQ("old/old", found());
}

TEST_F(Faults, OnlyByteZeroOfTheMetadataIsEverLocked)
{
  using Locks = std::pair<short, short>; // on the first two bytes
  auto const seen = [&]
  { return Locks(lockSeenByOthers(m_db / XML), lockSeenByOthers(m_db / XML, 1)); };
  // What others see when the action makes that call for the last time.
  auto const seenAt = [&](std::string const& wanted, std::function<void()> const& action)
  {
    Locks locks(-1, -1);
    SystemCalls const calls(m_db.path(),
                            [&](std::string const& call)
                            {
                              if (call == wanted)
                                locks = seen();
                              return 0;
                            });
    action();
    return locks;
  };
  std::string const name = XML;
  Locks const reading(F_RDLCK, F_UNLCK);
  Locks const writing(F_WRLCK, F_UNLCK);
  auto const discovery = ready("old");
  EXPECT_EQ(writing, seenAt("pwrite " + name, [&] { discovery->persist(); }));
  EXPECT_EQ(reading, seenAt("pread " + name, [&] { make("new")->canOverride(); }));

  AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(XML));
  ASSERT_TRUE(record);
  EXPECT_EQ(reading, seen());
  ASSERT_EQ(DS_SUCCESS, record->open(OM_READ, ""));
  EXPECT_EQ(reading, seen());

  writeText(m_db / XML, document(FUTURE));
  AutoDereference<Discovery> const expiring(getDiscoveryDBDatabase()->getDiscovery(XML));
  ASSERT_TRUE(expiring);
  writeText(m_db / XML, document(PAST));
  EXPECT_EQ(writing,
            seenAt("unlink " + name, [&] { dynamic_cast<DBDiscovery&>(*expiring).expire(); }));
}

TEST_F(Faults, AStoredDocumentThatCannotBeReadNeverBlocks)
{
  writeText(m_db / XML, document(FUTURE, 9));
  auto const discovery = make("new");
  ASSERT_FALSE(discovery->canOverride());
  SystemCalls const calls(m_db.path(), [](std::string const& call)
                          { return call.starts_with("pread") ? EIO : 0; });
  EXPECT_TRUE(discovery->canOverride());
  EXPECT_EQ(1, std::count(calls.seen().begin(), calls.seen().end(), std::string("pread ") + XML));
  EXPECT_NE(document(FUTURE, 9), xmlOf(*discovery)) << "the stored text is forgotten";
}

TEST_F(Faults, ADocumentOfUnknownSizeIsReadWholeInBlocks)
{
  constexpr std::size_t BLOCK = 8096;
  std::string text = document(FUTURE);
  text.insert(text.find("<DiscoverySubject"), 2 * BLOCK + 1 - text.size(), ' ');
  writeText(m_db / XML, text);
  SystemCalls const calls(m_db.path(), [](std::string const& call)
                          { return call.starts_with("fstat") ? EIO : 0; });
  AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(XML));
  ASSERT_TRUE(record);
  EXPECT_EQ("hostB", record->getSubject()->getName().str());
  EXPECT_TRUE(text == xmlOf(*record));
  EXPECT_EQ(4, std::count(calls.seen().begin(), calls.seen().end(), std::string("pread ") + XML))
      << "two whole blocks, a byte and the end";
}

TEST_F(Faults, APayloadIsNotOpenedWhenItsLockCannotBeHadAgain)
{
  ASSERT_EQ(DS_SUCCESS, ready("old")->persist());
  AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(XML));
  LogCapture log;
  SystemCalls const calls(m_db.path(), [&](std::string const& call)
                          { return call.starts_with("fcntl setlk read") ? ENOLCK : 0; });
  EXPECT_EQ(DS_OPEN_FAILED, record->open(OM_READ, ""));
  EXPECT_EQ(1, log.count(1, "DBCollectionData::open", "Unable to lock " + (m_db / XML)))
      << log.text();
}

TEST_F(Faults, AnInterruptedTryIsNoRefusal)
{
  std::string const path = m_db / "f";
  ACE_File_Lock lock(open(path.c_str(), O_RDWR | O_CREAT, 0644), false);
  LockWait::setLimit(std::chrono::milliseconds(0));
  LockWait wait;
  int calls = 0;
  SystemCalls const watched(m_db.path(),
                            [&](std::string const&) { return ++calls <= 1000 ? EINTR : 0; });
  EXPECT_EQ(0, waitLock(lock, RecordLock::READ, wait));
  EXPECT_EQ(1001, calls);
}

TEST_F(Faults, ALockThatStaysRefusedEndsTheWaitInTime)
{
  using namespace std::chrono_literals;
  std::string const path = m_db / "f";
  ACE_File_Lock lock(open(path.c_str(), O_RDWR | O_CREAT, 0644), false);
  LockWait::setLimit(50ms);
  LockWait wait;
  int calls = 0;
  SystemCalls const watched(m_db.path(),
                            [&](std::string const&)
                            {
                              ++calls;
                              return EAGAIN;
                            });
  auto const start = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, waitLock(lock, RecordLock::WRITE, wait));
  EXPECT_EQ(EBUSY, errno);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_GT(calls, 2);
  calls = 0;
  EXPECT_EQ(-1, waitLock(lock, RecordLock::WRITE, wait)) << "all waits of an operation together";
  EXPECT_EQ(1, calls);
}

TEST_F(Faults, AMetadataFileThatCannotBeExaminedRefusesTheWriteWithALine)
{
  ASSERT_EQ(DS_SUCCESS, ready("old")->persist());
  auto const discovery = ready("new");
  LogCapture log;
  bool locked = false;
  int calls = 0;
  {
    // The first look under the write lock is at the name, the second at the file.
    SystemCalls const watched(m_db.path(),
                              [&](std::string const& call)
                              {
                                locked = locked || call.ends_with("write 2 hostA hostB.xml");
                                bool const looks = locked && call == "fstat 2 hostA hostB.xml";
                                return looks && ++calls == 2 ? EIO : 0;
                              });
    EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  }
  EXPECT_EQ(1, log.count(1, "DBDiscovery::persist",
                         "Unable to examine " + (m_db / XML) + ": Input/output error (5)"))
      << log.text();
  EXPECT_EQ("old/old", found());
}
