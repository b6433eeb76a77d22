#include "discovery/DiscDB.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char SETUP[] = "DiscoveryDBCreator::setupDB";
constexpr char GET[] = "DiscoveryDBCreator::getDiscovery";

using StoredDiscovery = AutoDereference<Discovery>;
using IteratorPtr = AutoDereference<DiscoveryIterator>;

// A creator of its own on a root of its own.
class Creator : public testing::Test
{
protected:
  Creator() { setenv("TESSARINE_ROOT", m_root.path().c_str(), 1); }
  ~Creator() override { unsetenv("TESSARINE_ROOT"); }

  std::string initialised(std::string const& name = "")
  {
    m_creator.emplace();
    m_creator->init(name);
    return m_creator->getDirectory();
  }

  TempDir m_root;
  std::optional<DiscoveryDBCreator> m_creator;
};

std::multiset<std::string> subjectsOf(DiscoveryIterator& iterator)
{
  std::multiset<std::string> subjects;
  while (StoredDiscovery const discovery{iterator.getNext()})
    subjects.insert(discovery->getSubject()->getName().str());
  return subjects;
}

IteratorPtr iterate() { return IteratorPtr(getDiscoveryDBDatabase()->getIterator(DQ_UNDEFINED)); }

using Subjects = std::multiset<std::string>;

} // namespace

TEST_F(Creator, StartsWithTheDefaultDirectory)
{
  EXPECT_EQ(m_root / "db/discovery", DiscoveryDBCreator().getDirectory());
  unsetenv("TESSARINE_ROOT");
  EXPECT_EQ("/usr/kestrel/tessarine/db/discovery", DiscoveryDBCreator().getDirectory());
}

TEST_F(Creator, InitMakesTheDirectoryNamedAfterTheService)
{
  EXPECT_EQ(m_root / "db/discovery", initialised(""));
  EXPECT_EQ(m_root / "db/discovery/reader", initialised("reader"));
  mode_t const mask = umask(0);
  umask(mask);
  for (std::string const made : {"db", "db/discovery", "db/discovery/reader"})
  {
    struct stat status
    {
    };
    ASSERT_EQ(0, stat((m_root / made).c_str(), &status)) << made;
    EXPECT_TRUE(S_ISDIR(status.st_mode)) << made;
    EXPECT_EQ(0755u & ~mask, status.st_mode & 0777u) << made;
  }
}

TEST_F(Creator, InitTwiceIsAProgrammingError)
{
  initialised();
  LogCapture log;
  EXPECT_THROW(m_creator->init(""), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::init", "Assertion failed: SHOULD_NOT_GET_HERE"));
}

TEST_F(Creator, NeedsInitForIteratorsAndDiscoveries)
{
  DiscoveryDBCreator creator;
  LogCapture log;
  EXPECT_THROW(creator.getIterator(DQ_UNDEFINED), AssertionFailure);
  EXPECT_THROW(creator.newDiscovery(DQ_UNDEFINED), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::getIterator", "Assertion failed: m_init"));
  EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::newDiscovery", "Assertion failed: m_init"));
}

TEST_F(Creator, ADirectoryThatCannotBeMadeIsLoggedAndInitGoesOn)
{
  writeText(m_root / "db", "a file");
  LogCapture log;
  EXPECT_NO_THROW(initialised());
  EXPECT_EQ(1, log.count(1, SETUP,
                         "Unable to create directory path " + (m_root / "db/discovery") +
                             ", error " + std::to_string(ENOTDIR)))
      << log.text();
  EXPECT_TRUE(log.has(1, "CleanupLock::CleanupLock",
                      "Unable to open " + (m_root / "db/discovery/Update.lock")));
}

TEST_F(Creator, InitDeletesLeftoverTemporaryFilesAndNothingElse)
{
  fs::create_directories(m_root / "db/discovery");
  for (std::string const name : {"3.updating", "x.updating.bak", "2 a b.xml", "2 a b.dat"})
    writeText(m_root / ("db/discovery/" + name), "x");
  LogCapture log;
  std::string const dir = initialised();
  EXPECT_FALSE(fs::exists(dir + "/3.updating"));
  EXPECT_TRUE(fs::exists(dir + "/x.updating.bak"));
  EXPECT_TRUE(fs::exists(dir + "/2 a b.xml"));
  EXPECT_TRUE(fs::exists(dir + "/2 a b.dat"));
  EXPECT_EQ(1, log.count(1, SETUP, "Deleting temporary file " + dir + "/3.updating")) << log.text();
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(dir + "/Update.lock"));
}

TEST_F(Creator, ADirectoryWithATemporaryFilesNameSurvivesWithOneLine)
{
  std::string const dir = m_root / "db/discovery";
  fs::create_directories(dir + "/d.updating");
  fs::permissions(dir, fs::perms(0750)); // or else it is closed to others, which is a line
  LogCapture log;
  initialised();
  EXPECT_TRUE(fs::is_directory(dir + "/d.updating"));
  EXPECT_EQ(1, log.count(1, SETUP, "Deleting temporary file " + dir + "/d.updating"));
  EXPECT_EQ(1u, log.lines().size()) << log.text();
}

TEST_F(Creator, InitDeletesWhatAFailedRenameLeft)
{
  std::string const dir = m_root / "db/discovery";
  fs::create_directories(dir + "/2 hostA hostB.dat"); // in the payload's way
  EXPECT_EQ(DS_OPEN_FAILED, store(dir, "hostA", "hostB", 1, "payload"));
  ASSERT_TRUE(fs::exists(dir + "/0.updating"));
  initialised();
  EXPECT_FALSE(fs::exists(dir + "/0.updating"));
}

TEST_F(Creator, InitKeepsTheTemporaryFilesOfAnotherProcessAtWork)
{
  std::string const dir = m_root / "db/discovery";
  fs::create_directories(dir);
  writeText(dir + "/3.updating", "x");
  OtherProcess const writer(dir + "/Update.lock", F_RDLCK);
  initialised();
  EXPECT_TRUE(fs::exists(dir + "/3.updating"));
}

TEST_F(Creator, InitDeletesNothingWithoutALockFile)
{
  std::string const dir = m_root / "db/discovery";
  fs::create_directories(dir + "/Update.lock");
  writeText(dir + "/3.updating", "x");
  LogCapture log;
  initialised();
  EXPECT_TRUE(fs::exists(dir + "/3.updating"));
  EXPECT_EQ(1, log.count(1, "CleanupLock::CleanupLock", "Unable to open " + dir + "/Update.lock"))
      << log.text();
}

TEST_F(Creator, SetupKeepsTheTemporaryFilesOfThisProcess)
{
  std::string const dir = initialised();
  StoredDiscovery const discovery(m_creator->newDiscovery(DQ_DISCOVERY_DATA));
  ASSERT_NE(0, discovery->getCollectionData()->open(OM_UPDATE, ""));
  m_creator->setupDB();
  EXPECT_TRUE(fs::exists(dir + "/0.updating"));
}

TEST_F(Creator, ADirectoryThatCannotBeCleanedIsLogged)
{
  std::string const dir = m_root / "db/discovery";
  fs::create_directories(dir);
  for (std::string const fault : {"opendir", "readdir"})
  {
    LogCapture log;
    SystemCalls const calls(dir, [&](std::string const& call)
                            { return call == fault + " ." ? EMFILE : 0; });
    initialised();
    EXPECT_EQ(1, log.count(1, SETUP,
                           "Unable to " + std::string(fault == "opendir" ? "open" : "read") +
                               " directory " + dir + ": Too many open files (24)"))
        << log.text();
  }
}

TEST_F(Creator, WhatInitMakesIsFlushedInItsParents)
{
  std::vector<std::string> flushed;
  {
    SystemCalls const calls(m_root.path());
    initialised("service");
    std::copy_if(calls.seen().begin(), calls.seen().end(), std::back_inserter(flushed),
                 [](std::string const& call) { return call.starts_with("fsync"); });
  }
  EXPECT_EQ((std::vector<std::string>{"fsync .", "fsync db", "fsync db/discovery"}), flushed);

  SystemCalls const calls(m_root.path());
  initialised("service");
  EXPECT_EQ(0, std::count(calls.seen().begin(), calls.seen().end(), std::string("fsync .")))
      << "it was there";
}

TEST_F(Creator, AParentThatFailsToBeFlushedIsLogged)
{
  LogCapture log;
  SystemCalls const calls(m_root.path(),
                          [](std::string const& call) { return call == "fsync db" ? EIO : 0; });
  initialised();
  EXPECT_EQ(1, log.count(1, SETUP,
                         "Unable to create directory path " + (m_root / "db/discovery") +
                             ", error " + std::to_string(EIO)))
      << log.text();
}

TEST_F(Creator, NewDiscoveriesGoIntoTheDirectory)
{
  std::string const dir = initialised();
  StoredDiscovery const discovery(m_creator->newDiscovery(DQ_FILTER_DATA));
  EXPECT_EQ(DQ_FILTER_DATA, discovery->getQuery());
  discovery->setAuthority(new Authority("hostA", AT_TQUCLIENT));
  discovery->setSubject(new Subject("hostB"));
  discovery->setAttributes(
      new CollectionAttributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime::now(), OzfObjTime(100), 1));
  EXPECT_EQ(DS_SUCCESS, store(dynamic_cast<DBDiscovery&>(*discovery), "payload"));
  EXPECT_TRUE(fs::exists(dir + "/2 hostA hostB.xml"));
  EXPECT_EQ("payload", readText(dir + "/2 hostA hostB.dat"));
}

TEST_F(Creator, GetsAStoredDiscoveryAndHoldsAReadLock)
{
  std::string const dir = initialised();
  ASSERT_EQ(DS_SUCCESS, store(dir, "hostA", "hostB", 5, "payload"));
  {
    StoredDiscovery const discovery(m_creator->getDiscovery("2 hostA hostB.xml"));
    ASSERT_TRUE(discovery);
    EXPECT_EQ(1, discovery->referenceCount());
    EXPECT_EQ("hostB", discovery->getSubject()->getName().str());
    EXPECT_EQ(DQ_DISCOVERY_DATA, discovery->getQuery());
    EXPECT_EQ("payload", payloadOf(*discovery));
    EXPECT_EQ(F_RDLCK, lockSeenByOthers(dir + "/2 hostA hostB.xml"));
    EXPECT_EQ(readText(dir + "/2 hostA hostB.xml"), xmlOf(*discovery));
  }
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(dir + "/2 hostA hostB.xml"));
  EXPECT_TRUE(fs::exists(dir + "/2 hostA hostB.xml"));
}

TEST_F(Creator, AMissingFileIsLogged)
{
  std::string const dir = initialised();
  LogCapture log;
  EXPECT_EQ(nullptr, m_creator->getDiscovery("2 a b.xml"));
  EXPECT_EQ(1, log.count(1, GET, "Unable to open " + dir + "/2 a b.xml")) << log.text();
  EXPECT_NE(std::string::npos, log.text().find("(DiscDB:"));
  EXPECT_FALSE(fs::exists(dir + "/2 a b.xml")) << "reading makes no file";
}

TEST_F(Creator, WaitsForAWriterOfAnotherProcess)
{
  std::string const dir = initialised();
  ASSERT_EQ(DS_SUCCESS, store(dir, "a", "b", 5, "payload"));
  OtherProcess writer(dir + "/2 a b.xml", F_WRLCK);
  std::atomic<bool> got{false};
  std::thread reader([&]
                     { got = StoredDiscovery(m_creator->getDiscovery("2 a b.xml")) != nullptr; });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(dir + "/2 a b.xml"); }));
  EXPECT_FALSE(got);
  writer.leave();
  reader.join();
  EXPECT_TRUE(got);
}

TEST_F(Creator, FindsTheFileThatTookThePlaceOfADeletedOne)
{
  std::string const dir = initialised();
  std::string const path = dir + "/2 hostA hostB.xml";
  std::string const fresh = dir + "/fresh";
  writeText(path, document(FUTURE, 1));
  writeText(fresh, document(FUTURE, 9));
  // The old file lives on under another name.
  fs::create_hard_link(path, dir + "/snapshot");
  OtherProcess writer(path, F_WRLCK, [&] { rename(fresh.c_str(), path.c_str()); });
  StoredDiscovery discovery;
  std::thread reader([&] { discovery.reset(m_creator->getDiscovery("2 hostA hostB.xml")); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(path); }));
  writer.leave();
  reader.join();
  ASSERT_TRUE(discovery);
  EXPECT_EQ(document(FUTURE, 9), xmlOf(*discovery));
}

TEST_F(Creator, WhatIsNoMetadataIsRefusedWithALineThatNamesIt)
{
  std::string const dir = initialised();
  fs::create_directory(dir + "/1 d d.xml");
  ASSERT_EQ(0, mkfifo((dir + "/1 f f.xml").c_str(), 0644));
  fs::create_symlink("/nonexistent/file", dir + "/1 l l.xml");
  fs::create_symlink("/dev/zero", dir + "/1 z z.xml");
  writeText(dir + "/1 e e.xml", "");
  writeText(dir + "/1 x x.xml", "<DiscoveryData>");
  writeText(dir + "/1 g g.xml", "");
  fs::resize_file(dir + "/1 g g.xml", std::uintmax_t{1} << 30); // sparse
  for (std::string const name :
       {"1 d d.xml", "1 f f.xml", "1 l l.xml", "1 z z.xml", "1 e e.xml", "1 x x.xml", "1 g g.xml"})
  {
    LogCapture log(1);
    EXPECT_EQ(nullptr, m_creator->getDiscovery(name.c_str())) << name;
    EXPECT_NE(std::string::npos, log.text().find(dir + "/" + name)) << log.text();
  }
}

TEST_F(Creator, SaysWhichFileCouldNotBeLoaded)
{
  std::string const dir = initialised();
  writeText(dir + "/1 e e.xml", "");
  LogCapture log;
  EXPECT_EQ(nullptr, m_creator->getDiscovery("1 e e.xml"));
  EXPECT_EQ(1, log.count(1, "DBDiscovery::load", "Zero length xml file")) << log.text();
  EXPECT_EQ(1, log.count(1, GET, dir + "/1 e e.xml could not be loaded")) << log.text();
}

TEST_F(Creator, DeletesAnExpiredDiscovery)
{
  std::string const dir = initialised();
  writeText(dir + "/2 hostA hostB.xml", document(PAST));
  writeText(dir + "/2 hostA hostB.dat", "x");
  LogCapture log;
  EXPECT_EQ(nullptr, m_creator->getDiscovery("2 hostA hostB.xml"));
  EXPECT_FALSE(fs::exists(dir + "/2 hostA hostB.xml"));
  EXPECT_FALSE(fs::exists(dir + "/2 hostA hostB.dat"));
  EXPECT_EQ(1, log.count(1, GET, "2 hostA hostB.xml has expired")) << log.text();
}

TEST_F(Creator, ADiscoveryThatIsFoundFreshUnderTheWriteLockIsReturned)
{
  static OzfObjTime now;
  OzfObjTime::setClock([] { return now; });
  now = OzfObjTime(2000000000);
  std::string const dir = initialised();
  std::string const expires = "2033-05-18T03:33:19.000000Z"; // a second before
  writeText(dir + "/2 hostA hostB.xml", document(expires, 1));
  writeText(dir + "/2 hostA hostB.dat", "kept");
  LogCapture log;
  StoredDiscovery discovery;
  {
    // Another process refreshes it while we ask for the write lock.
    SystemCalls const calls(dir,
                            [&](std::string const& call)
                            {
                              if (call == "fcntl setlk write 2 hostA hostB.xml")
                                now = OzfObjTime(1999999990);
                              return 0;
                            });
    discovery.reset(m_creator->getDiscovery("2 hostA hostB.xml"));
  }
  OzfObjTime::setClock(nullptr);
  ASSERT_TRUE(discovery) << log.text();
  EXPECT_EQ(1, log.count(1, GET, "2 hostA hostB.xml has expired")) << log.text();
  EXPECT_EQ(1, log.count(1, GET,
                         "2 hostA hostB.xml was modified during the expire and should not be "
                         "expired"))
      << log.text();
  EXPECT_EQ("kept", payloadOf(*discovery));
  EXPECT_EQ(F_RDLCK, lockSeenByOthers(dir + "/2 hostA hostB.xml"));
}

TEST_F(Creator, AnExpiredDiscoveryThatAnotherProcessReadsStays)
{
  std::string const dir = initialised();
  writeText(dir + "/2 hostA hostB.xml", document(PAST));
  writeText(dir + "/2 hostA hostB.dat", "x");
  OtherProcess const reader(dir + "/2 hostA hostB.xml", F_RDLCK);
  LogCapture log;
  EXPECT_EQ(nullptr, m_creator->getDiscovery("2 hostA hostB.xml"));
  EXPECT_TRUE(fs::exists(dir + "/2 hostA hostB.xml"));
  EXPECT_TRUE(fs::exists(dir + "/2 hostA hostB.dat"));
  EXPECT_EQ(1, log.count(1, GET, "2 hostA hostB.xml could not be expired")) << log.text();
}

TEST(DBDiscoveryIterator, ReturnsEverythingButRemotePullsByDefault)
{
  Database const db;
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "a", "one", 1, "", AT_TQUSERVER));
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "a", "two", 1, "", AT_EXTSRC));
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "a", "three", 1, "", AT_REMOTEPULL));
  EXPECT_EQ((Subjects{"one", "two"}), subjectsOf(*iterate()));

  IteratorPtr const pulls = iterate();
  pulls->setAuthority("", AT_REMOTEPULL);
  EXPECT_EQ(Subjects{"three"}, subjectsOf(*pulls));
}

TEST(DBDiscoveryIterator, TheKindOfQueryDoesNotFilter)
{
  Database const db;
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "a", "one", 1, ""));
  for (DiscoveryQuery const kind : {DQ_UNDEFINED, DQ_DISCOVERY_DATA, DQ_FILTER_DATA})
  {
    IteratorPtr const iterator(getDiscoveryDBDatabase()->getIterator(kind));
    EXPECT_EQ(Subjects{"one"}, subjectsOf(*iterator)) << kind;
  }
}

TEST(DBDiscoveryIterator, FiltersByTypeAuthorityAndSubject)
{
  Database const db;
  for (std::string const authority : {"hostA", "hostB", "host A"})
    for (std::string const subject : {"s1", "s2"})
      ASSERT_EQ(DS_SUCCESS, store(db.path(), authority, authority + subject, 1, ""));
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "hostA", "server", 1, "", AT_TQUSERVER));

  IteratorPtr iterator = iterate();
  iterator->setAuthority("hostA", AT_TQUCLIENT);
  EXPECT_EQ((Subjects{"hostAs1", "hostAs2"}), subjectsOf(*iterator));
  iterator = iterate();
  iterator->setAuthority("host A", AT_ANYANDALL);
  EXPECT_EQ((Subjects{"host As1", "host As2"}), subjectsOf(*iterator));
  iterator = iterate();
  iterator->setSubject("hostBs1");
  EXPECT_EQ(Subjects{"hostBs1"}, subjectsOf(*iterator));
  iterator = iterate();
  iterator->setAuthority("hosta", AT_TQUCLIENT);
  EXPECT_EQ(Subjects{}, subjectsOf(*iterator)) << "case counts";
  iterator = iterate();
  iterator->setSubject("hostA*");
  iterator->setAuthority("", AT_TQUCLIENT);
  EXPECT_EQ((Subjects{"hostAs1", "hostAs2"}), subjectsOf(*iterator));
}

TEST(DBDiscoveryIterator, AnExactNameReadsOneFileAndOnlyOnce)
{
  Database const db;
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "hostA", "s1", 1, ""));
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "hostA", "s11", 1, ""));
  writeText(db / "2 hostA broken.xml", "");
  LogCapture log(1);
  IteratorPtr iterator = iterate();
  iterator->setAuthority("hostA", AT_TQUCLIENT);
  iterator->setSubject("s1");
  EXPECT_EQ(Subjects{"s1"}, subjectsOf(*iterator));
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_TRUE(log.lines().empty()) << "no other file is touched: " << log.text();
}

TEST(DBDiscoveryIterator, AnExactNameThatIsAbsentCostsNoLogLine)
{
  Database const db;
  LogCapture log;
  IteratorPtr iterator = iterate();
  iterator->setAuthority("hostA", AT_TQUCLIENT);
  iterator->setSubject("s1");
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_TRUE(log.lines().empty()) << log.text();

  fs::create_symlink("/nonexistent/file", db / "2 hostA s1.xml");
  iterator = iterate();
  iterator->setAuthority("hostA", AT_TQUCLIENT);
  iterator->setSubject("s1");
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_EQ(1, log.count(1, GET, "Unable to open " + (db / "2 hostA s1.xml"))) << log.text();
}

TEST(DBDiscoveryIterator, AnExactNameStillHonoursTheRemotePullRule)
{
  // The document's own type counts, whatever its file is called.
  Database const db;
  writeText(db / "2 hostA hostB.xml", document(FUTURE, 1, "hostA", "hostB", AT_REMOTEPULL));
  IteratorPtr iterator = iterate();
  iterator->setAuthority("hostA", AT_TQUCLIENT);
  iterator->setSubject("hostB");
  EXPECT_EQ(nullptr, iterator->getNext());

  ASSERT_EQ(DS_SUCCESS, store(db.path(), "hostA", "hostB", 1, "", AT_REMOTEPULL));
  iterator = iterate();
  iterator->setAuthority("hostA", AT_REMOTEPULL);
  iterator->setSubject("hostB");
  EXPECT_EQ(Subjects{"hostB"}, subjectsOf(*iterator));
}

TEST(DBDiscoveryIterator, SkipsWhatItCannotReadAndDeletesWhatExpired)
{
  Database const db;
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "a", "good", 1, ""));
  writeText(db / "2 a empty.xml", "");
  writeText(db / "2 a broken.xml", "<x");
  writeText(db / "2 hostA hostB.xml", document(PAST));
  writeText(db / "2 hostA hostB.dat", "x");
  writeText(db / "note.txt", "");
  fs::create_directory(db / "2 a dir.xml");
  IteratorPtr const iterator = iterate();
  EXPECT_EQ(Subjects{"good"}, subjectsOf(*iterator));
  EXPECT_EQ(nullptr, iterator->getNext()) << "an exhausted iterator stays so";
  EXPECT_FALSE(fs::exists(db / "2 hostA hostB.xml"));
  EXPECT_FALSE(fs::exists(db / "2 hostA hostB.dat"));
  EXPECT_TRUE(fs::exists(db / "2 a empty.xml"));
}

TEST(DBDiscoveryIterator, OverAMissingDirectoryYieldsNothing)
{
  IteratorPtr const iterator(new DBDiscoveryIterator("/nonexistent/db"));
  LogCapture log;
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_EQ(1, log.count(1, "DBDiscoveryIterator::getNext",
                         "Unable to open directory /nonexistent/db: No such file or directory (2)"))
      << log.text();
}

TEST(DBDiscoveryIterator, StartsWithFiltersThatMatchEverything)
{
  IteratorPtr const iterator(new DBDiscoveryIterator("/nonexistent/db"));
  EXPECT_EQ(AT_ANYANDALL, iterator->getAuthorityType());
  EXPECT_EQ("*", iterator->getSubjectFilter());
  EXPECT_EQ("*", iterator->getAuthorityFilter());
}

TEST(DBDiscoveryIterator, ALongNameIsFoundAgain)
{
  Database const db;
  std::string const name(300, 'x');
  std::string const other = name + "\xC3\xA9 %";
  ASSERT_EQ(DS_SUCCESS, store(db.path(), name, other, 1, ""));
  IteratorPtr const iterator = iterate();
  iterator->setAuthority(name, AT_TQUCLIENT);
  iterator->setSubject(other);
  EXPECT_EQ(Subjects{other}, subjectsOf(*iterator));
}

TEST(DBDiscoveryIterator, LongNamesThatHoldAStarHaveFilesOfTheirOwn)
{
  Database const db;
  std::string const start = "a*" + std::string(100, 'x');
  for (std::string const& subject : {start + "1", start + "2"})
    ASSERT_EQ(DS_SUCCESS, store(db.path(), "auth", subject, 1, subject));
  IteratorPtr const iterator = iterate();
  iterator->setSubject(start + "1");
  EXPECT_EQ((Subjects{start + "1", start + "2"}), subjectsOf(*iterator)) << "as a wider pattern";
}

TEST(DBDiscoveryIterator, ALongNameIsFoundByItsPattern)
{
  Database const db;
  std::string const name = "web." + std::string(120, 'x') + ".example";
  // Nine bytes of a key for each character, so that the key is cut inside one.
  std::string foreign = "a";
  for (int i = 0; i < 20; ++i)
    foreign += "\xE5\xA4\x87";
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "auth", name, 1, ""));
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "auth", foreign, 1, ""));
  ASSERT_EQ(DS_SUCCESS, store(db.path(), foreign, "short", 1, ""));
  auto const found = [](std::string const& authority, std::string const& subject)
  {
    IteratorPtr const iterator = iterate();
    iterator->setAuthority(authority, AT_TQUCLIENT);
    iterator->setSubject(subject);
    return subjectsOf(*iterator);
  };
  EXPECT_EQ(Subjects{name}, found("auth", "web.*.example"));
  EXPECT_EQ(Subjects{name}, found("a*", name.substr(0, 90) + "*"));
  EXPECT_EQ(Subjects{name}, found("auth", name.substr(0, 110) + "*"));
  EXPECT_EQ(Subjects{}, found("auth", "web.*.test"));
  EXPECT_EQ(Subjects{}, found("other*", "web.*.example"));
  EXPECT_EQ(Subjects{foreign}, found("auth", "a*\xE5\xA4\x87"));
  EXPECT_EQ(Subjects{foreign}, found("auth", foreign.substr(0, 40) + "*\xE5\xA4\x87"));
  EXPECT_EQ(Subjects{}, found("auth", "a\xE5\xA4\x88*")) << "what a key escapes counts";
  EXPECT_EQ(Subjects{"short"}, found(foreign.substr(0, 31) + "*", "s*"));

  IteratorPtr const iterator = iterate();
  iterator->setAuthority("auth", AT_EXTSRC);
  iterator->setSubject("web.*.example");
  EXPECT_EQ(Subjects{}, subjectsOf(*iterator)) << "the type counts";
}

TEST(DBDiscoveryIterator, ARecordHeldCanBeRewrittenByItsHolder)
{
  Database const db;
  ASSERT_EQ(DS_SUCCESS, store(db.path(), "a", "b", 1, "old"));
  IteratorPtr const iterator = iterate();
  StoredDiscovery const held(iterator->getNext());
  ASSERT_TRUE(held);
  EXPECT_EQ(DS_SUCCESS, store(db.path(), "a", "b", 2, "new"));
  EXPECT_EQ("new", readText(db / "2 a b.dat"));
}

TEST(DBDatabase, IsOneForTheProcess)
{
  EXPECT_EQ(getDiscoveryDBDatabase(), getDiscoveryDBDatabase());
}
