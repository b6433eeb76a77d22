// Names, loading, the priority rule and expiry; writing is in
// DiscDBDiscoveryPersistTest.cpp.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscDBFiles.h"
#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char LOAD[] = "DBDiscovery::load";
constexpr char LOAD_INTERNAL[] = "DBDiscovery::loadInternal";
constexpr char OVERRIDE[] = "DBDiscovery::canOverride";
constexpr char EXPIRE_DISCOVERY[] = "DBDiscovery::expire";

using DiscoveryPtr = AutoDereference<DBDiscovery>;

class Stored : public testing::Test
{
protected:
  TempDir m_dir;
  std::string const m_path = m_dir / "2 hostA hostB.xml";
  std::string const m_data = m_dir / "2 hostA hostB.dat";

  DiscoveryPtr make(unsigned priority) const
  {
    return records::make(m_dir.path(), "hostA", "hostB", priority);
  }

  // The file at m_path, opened and under a read lock.
  DiscoveryPtr held() const
  {
    auto* const lock = new ACE_File_Lock(open(m_path.c_str(), O_RDWR | O_CLOEXEC), false);
    EXPECT_EQ(0, lock->acquire_read(0, 0, 1));
    return DiscoveryPtr(new DBDiscovery(lock, new DBCollectionData(OzfPathname(m_data)),
                                        DQ_DISCOVERY_DATA, OzfPathname(m_path)));
  }

  // A record held and loaded, and its payload.
  DiscoveryPtr loaded(char const* expires) const
  {
    writeText(m_path, document(expires));
    writeText(m_data, "payload");
    DiscoveryPtr discovery = held();
    EXPECT_TRUE(discovery->load());
    return discovery;
  }
};

bool loads(std::string const& text)
{
  return make("/nonexistent", "a", "b", 1)->load(text.c_str());
}

} // namespace

TEST_F(Stored, FilesAreNamedAfterTypeAuthorityAndSubject)
{
  std::ostringstream xml;
  make(1)->generateMetabaseFileName(xml);
  EXPECT_EQ("2 hostA hostB.xml", xml.str());
  std::ostringstream dat;
  make(1)->generatecollectionBaseFileName(dat);
  EXPECT_EQ("2 hostA hostB.dat", dat.str());

  std::ostringstream any;
  records::make("/d", "x y", "Z/%", 1, AT_ANYANDALL)->generateMetabaseFileName(any);
  EXPECT_EQ("0 x%20y Z%2F%25.xml", any.str());
}

TEST_F(Stored, FileNamesNeedAuthorityAndSubject)
{
  DiscoveryPtr const discovery = make(1);
  std::ostringstream os;
  LogCapture log;
  discovery->setSubject(nullptr);
  EXPECT_THROW(discovery->generateMetabaseFileName(os), AssertionFailure);
  EXPECT_EQ(
      1, log.count(1, "DBDiscovery::generateMetabaseFileName", "Assertion failed: getSubject()"));
  discovery->setAuthority(nullptr);
  EXPECT_THROW(discovery->generatecollectionBaseFileName(os), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DBDiscovery::generatecollectionBaseFileName",
                         "Assertion failed: getAuthority()"));
}

TEST_F(Stored, NamesThatDifferInCaseHaveFilesOfTheirOwn)
{
  EXPECT_EQ(DS_SUCCESS, store(m_dir.path(), "hostA", "hostB", 9, "upper"));
  EXPECT_EQ(DS_SUCCESS, store(m_dir.path(), "hosta", "hostB", 1, "lower"));
  EXPECT_EQ("upper", readText(m_data));
  EXPECT_EQ("lower", readText(m_dir / "2 hosta hostB.dat"));
}

TEST_F(Stored, LoadReadsTheHeldFileWhereverItsPositionIs)
{
  writeText(m_path, document(FUTURE));
  int const fd = open(m_path.c_str(), O_RDWR);
  lseek(fd, 20, SEEK_SET);
  DiscoveryPtr const discovery(new DBDiscovery(new ACE_File_Lock(fd, false), nullptr,
                                               DQ_DISCOVERY_DATA, OzfPathname(m_path)));
  EXPECT_TRUE(discovery->load());
  EXPECT_EQ("hostB", discovery->getSubject()->getName().str());
  EXPECT_EQ(document(FUTURE), xmlOf(*discovery));
}

TEST_F(Stored, LoadNeedsALock)
{
  LogCapture log;
  EXPECT_THROW(make(1)->load(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, LOAD, "Assertion failed: m_fileLock"));
  DiscoveryPtr const closed(new DBDiscovery(new ACE_File_Lock(ACE_INVALID_HANDLE, false), nullptr,
                                            DQ_DISCOVERY_DATA, OzfPathname(m_path)));
  EXPECT_THROW(closed->load(), AssertionFailure);
  EXPECT_EQ(1,
            log.count(1, LOAD, "Assertion failed: ACE_INVALID_HANDLE != m_fileLock->get_handle()"));
}

TEST_F(Stored, AnEmptyFileDoesNotLoad)
{
  writeText(m_path, "");
  LogCapture log;
  EXPECT_FALSE(held()->load());
  EXPECT_EQ(1, log.count(1, LOAD, "Zero length xml file")) << log.text();
}

TEST_F(Stored, WhatIsWrittenBackIsByteForByteWhatWasRead)
{
  std::string const odd =
      "<?xml version='1.0'?>\n<DiscoveryData >\n"
      "<DiscoverySubject Name = 'b' />\t<DiscoveryAuthority Type='2' Name='a'/>"
      "<Unknown/><DiscoveryAttributes Type='1' Storage='1'><Priority>7</Priority>"
      "</DiscoveryAttributes></DiscoveryData>\n\n\n";
  writeText(m_path, odd);
  DiscoveryPtr const discovery = held();
  ASSERT_TRUE(discovery->load());
  EXPECT_EQ(odd, xmlOf(*discovery));
  EXPECT_EQ(0u, discovery->getAttributes()->getPriority());

  DiscoveryPtr const fromText = make(1);
  ASSERT_TRUE(fromText->load(odd.c_str()));
  EXPECT_EQ(odd, xmlOf(*fromText));
}

TEST_F(Stored, ReplacingAPartMakesTheDocumentAnew)
{
  writeText(m_path, document(FUTURE) + "\n");
  for (int part = 0; part < 3; ++part)
  {
    DiscoveryPtr const discovery = held();
    ASSERT_TRUE(discovery->load());
    if (part == 0)
      discovery->setAuthority(new Authority("new", AT_EXTSRC));
    else if (part == 1)
      discovery->setSubject(new Subject("new"));
    else
      discovery->setAttributes(
          new CollectionAttributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(), OzfObjTime(), 3));
    EXPECT_NE(document(FUTURE) + "\n", xmlOf(*discovery)) << part;
    EXPECT_NE('\n', xmlOf(*discovery).back());
  }
}

TEST_F(Stored, SettingAPartThatWasMissingKeepsTheText)
{
  std::string const text = "<DiscoveryData><DiscoverySubject Name=\"b\"/>"
                           "<DiscoveryAuthority Name=\"a\" Type=\"1\"/></DiscoveryData>";
  writeText(m_path, text);
  DiscoveryPtr const discovery = held();
  ASSERT_TRUE(discovery->load());
  discovery->setAttributes(
      new CollectionAttributes(CT_REAL_TIME, CS_LOCALONLY, OzfObjTime(), OzfObjTime(), 3));
  EXPECT_EQ(text, xmlOf(*discovery));
}

TEST_F(Stored, ADocumentThatNamesAPartTwiceIsReadWhole)
{
  std::string const text = "<DiscoveryData><DiscoverySubject Name=\"one\"/>"
                           "<DiscoveryAuthority Name=\"a\" Type=\"1\"/>"
                           "<DiscoverySubject Name=\"two\"/></DiscoveryData>";
  DiscoveryPtr const discovery = make(1);
  ASSERT_TRUE(discovery->load(text.c_str()));
  EXPECT_EQ("two", discovery->getSubject()->getName().str());
  EXPECT_EQ(text, xmlOf(*discovery));
}

TEST_F(Stored, WithoutSubjectOrAuthorityADocumentDoesNotLoad)
{
  LogCapture log;
  DiscoveryPtr discovery(new DBDiscovery(OzfPathname("/d"), nullptr, DQ_UNDEFINED));
  EXPECT_FALSE(discovery->load("<DiscoveryData><DiscoveryAuthority Name=\"a\" Type=\"1\"/>"
                               "</DiscoveryData>"));
  EXPECT_EQ(1, log.count(1, LOAD_INTERNAL, "Subject not specified")) << log.text();
  EXPECT_EQ(std::string::npos,
            xmlOf(*discovery).find("<DiscoveryAuthority Name=\"a\" Type=\"1\"/>"))
      << "the text is not kept";

  discovery.reset(new DBDiscovery(OzfPathname("/d"), nullptr, DQ_UNDEFINED));
  EXPECT_FALSE(discovery->load("<DiscoveryData><DiscoverySubject Name=\"s\"/></DiscoveryData>"));
  EXPECT_EQ(1, log.count(1, LOAD_INTERNAL, "Authority not specified")) << log.text();
  EXPECT_EQ(1, log.count(1, LOAD_INTERNAL, "Subject not specified"));
}

TEST_F(Stored, TextThatIsNoDocumentDoesNotLoad)
{
  EXPECT_FALSE(loads("<DiscoveryData>"));
  EXPECT_FALSE(loads(""));
  EXPECT_FALSE(make(1)->load(nullptr));
}

TEST_F(Stored, OverridesUpToItsOwnPriority)
{
  EXPECT_TRUE(make(0)->canOverride()) << "nothing stored";
  EXPECT_FALSE(fs::exists(m_path));
  for (unsigned const stored : {0u, 4u, 5u})
  {
    writeText(m_path, document(FUTURE, stored));
    EXPECT_TRUE(make(5)->canOverride()) << stored;
  }
  writeText(m_path, document(FUTURE, 6));
  EXPECT_FALSE(make(5)->canOverride());
  writeText(m_path, document(FUTURE, 4294967295u));
  EXPECT_FALSE(make(4294967294u)->canOverride());
}

TEST_F(Stored, AStoredFileWithoutAReadablePriorityNeverBlocks)
{
  for (std::string const text : {"", "no xml", "<DiscoveryData/>", "<D><Priority>x</Priority></D>"})
  {
    writeText(m_path, text);
    EXPECT_TRUE(make(0)->canOverride()) << text;
  }
  writeText(m_path, "");
  fs::resize_file(m_path, std::uintmax_t{1} << 30);
  LogCapture log(1);
  EXPECT_TRUE(make(0)->canOverride());
  EXPECT_NE(std::string::npos, log.text().find(m_path)) << log.text();
}

TEST_F(Stored, TheStoredPriorityIsExtractedTwice)
{
  writeText(m_path, "no xml");
  LogCapture log;
  make(0)->canOverride();
  EXPECT_EQ(2, log.count(1, "XMLHelper::parse", "Failed to parse buffer: no xml")) << log.text();
}

TEST_F(Stored, TheCheckLeavesNoLockAndNoTextWhenItAgrees)
{
  writeText(m_path, document(FUTURE, 5));
  DiscoveryPtr const discovery = make(5);
  ASSERT_TRUE(discovery->canOverride());
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(m_path));
  EXPECT_NE(std::string::npos, xmlOf(*discovery).find("<Priority>5</Priority>"));
  EXPECT_NE(document(FUTURE, 5), xmlOf(*discovery));

  DiscoveryPtr const refused = make(4);
  EXPECT_FALSE(refused->canOverride());
  EXPECT_EQ(F_UNLCK, lockSeenByOthers(m_path));
  EXPECT_EQ(document(FUTURE, 5), xmlOf(*refused)) << "a refusal leaves the stored text";
}

TEST_F(Stored, TheCheckForgetsATextGivenBefore)
{
  for (bool const empty : {false, true})
  {
    if (empty)
      writeText(m_path, "");
    DiscoveryPtr const discovery = make(5);
    std::string const text = document(FUTURE, 7) + "\n";
    ASSERT_TRUE(discovery->load(text.c_str()));
    EXPECT_TRUE(discovery->canOverride());
    EXPECT_NE(text, xmlOf(*discovery));
  }
}

TEST_F(Stored, TheCheckIsNotForAStoredDiscovery)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  LogCapture log;
  EXPECT_THROW(discovery->canOverride(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, OVERRIDE, "Assertion failed: m_directory.size()")) << log.text();
}

TEST_F(Stored, TheCheckIgnoresAFileThatLostItsName)
{
  writeText(m_path, document(FUTURE, 9));
  OtherProcess writer(m_path, F_WRLCK,
                      [&] { // whoever makes snapshots of hard links keeps the file alive
                        if (link(m_path.c_str(), (m_dir / "snapshot").c_str()) == 0)
                          unlink(m_path.c_str());
                      });
  std::atomic<int> result{-1};
  std::thread checker([&] { result = make(5)->canOverride(); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  writer.leave();
  checker.join();
  EXPECT_EQ(1, result);
}

TEST_F(Stored, AFileTooLargeOrDeletedDoesNotLoad)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  LogCapture log;
  fs::resize_file(m_path, LARGEST_METADATA + 1);
  EXPECT_FALSE(discovery->load());
  EXPECT_EQ(1, log.count(1, LOAD, "Too large for metadata: " + m_path + ", 1048577 bytes"))
      << log.text();
  fs::resize_file(m_path, 100);
  fs::remove(m_path);
  EXPECT_FALSE(discovery->load());
  EXPECT_EQ(1, log.count(4, LOAD, "Was deleted: " + m_path)) << log.text();
}

// Between the look at its size and the read, which is then no reading of the
// file: whoever rewrites it is not done, even where what is left is a document.
TEST_F(Stored, AFileThatShrinksWhileItIsReadDoesNotLoad)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  std::string const text = xmlOf(*discovery);
  writeText(m_path, text + std::string(100, '\n'));
  {
    SystemCalls const calls(m_dir.path(),
                            [&](std::string const& call)
                            {
                              if (call.starts_with("pread "))
                                fs::resize_file(m_path, text.size());
                              return 0;
                            });
    EXPECT_FALSE(discovery->load());
    EXPECT_LE(1, std::count(calls.seen().begin(), calls.seen().end(), "pread 2 hostA hostB.xml"));
  }
  EXPECT_EQ(0, discovery->readError());
  EXPECT_TRUE(discovery->load());
}

TEST_F(Stored, OpeningThePayloadLocksTheMetadataAgain)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  close(open(m_path.c_str(), O_RDONLY)); // as another thread may
  ASSERT_EQ(F_UNLCK, lockSeenByOthers(m_path));
  for (bool const directly : {false, true})
  {
    if (directly)
      EXPECT_NE(0, discovery->getCollectionData()->open(OM_READ, ""));
    else
      EXPECT_EQ(DS_SUCCESS, discovery->open(OM_READ, ""));
    EXPECT_EQ(F_RDLCK, lockSeenByOthers(m_path));
    close(open(m_path.c_str(), O_RDONLY));
  }
}

TEST_F(Stored, OpeningThePayloadWaitsForAWriterThatGotIn)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  std::string const temporary = m_dir / "0.updating";
  writeText(temporary, "new");
  close(open(m_path.c_str(), O_RDONLY));
  OtherProcess writer(m_path, F_WRLCK, [&] { rename(temporary.c_str(), m_data.c_str()); });
  fs::remove(m_data);
  std::string payload;
  std::thread reader([&] { payload = payloadOf(*discovery); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  writer.leave();
  reader.join();
  EXPECT_EQ("new", payload);
}

TEST_F(Stored, ThePayloadOfADeletedRecordDoesNotOpen)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  fs::create_hard_link(m_path, m_dir / "snapshot");
  fs::remove(m_path);
  LogCapture log;
  EXPECT_EQ(DS_OPEN_FAILED, discovery->open(OM_READ, ""));
  EXPECT_EQ(1, log.count(1, "DBCollectionData::open", "Was deleted: " + m_path)) << log.text();
  writeText(m_path, document(FUTURE));
  EXPECT_EQ(DS_OPEN_FAILED, discovery->open(OM_READ, "")) << "another record's payload";
}

TEST_F(Stored, TheCheckReadsBesideOtherReadersAndWaitsForAWriter)
{
  writeText(m_path, document(FUTURE, 5));
  {
    OtherProcess const reader(m_path, F_RDLCK);
    EXPECT_TRUE(make(5)->canOverride());
  }
  OtherProcess writer(m_path, F_WRLCK);
  std::atomic<bool> done{false};
  std::thread checker(
      [&]
      {
        make(5)->canOverride();
        done = true;
      });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  EXPECT_FALSE(done);
  writer.leave();
  checker.join();
}

TEST_F(Stored, OpenForUpdateIsRefusedAgainstAHigherPriority)
{
  writeText(m_path, document(FUTURE, 6));
  LogCapture log;
  EXPECT_EQ(DS_DATA_EXISTS, make(5)->open(OM_UPDATE, ""));
  EXPECT_EQ(1, log.count(1, "DBDiscovery::open",
                         "Cannot open the db database, data with higher priority already exists."))
      << log.text();
  EXPECT_FALSE(fs::exists(m_dir / "0.updating"));
  EXPECT_EQ(DS_SUCCESS, make(6)->open(OM_UPDATE, ""));
}

TEST_F(Stored, OpenForReadingDoesNotAskForPriority)
{
  writeText(m_path, document(FUTURE, 6));
  DiscoveryPtr const discovery = held();
  EXPECT_EQ(DS_OPEN_FAILED, discovery->open(OM_READ, "")) << "there is no payload";
  writeText(m_data, "x");
  EXPECT_EQ(DS_SUCCESS, discovery->open(OM_READ, ""));
}

TEST_F(Stored, OpenNeedsAPayload)
{
  DiscoveryPtr const discovery = make(1);
  discovery->setCollectionData(nullptr);
  LogCapture log;
  EXPECT_THROW(discovery->open(OM_READ, ""), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "DBDiscovery::open", "Assertion failed: getCollectionData()"));
}

TEST_F(Stored, ExpireDeletesBothFilesAndLetsGo)
{
  DiscoveryPtr const discovery = loaded(PAST);
  EXPECT_EQ(DS_SUCCESS, discovery->expire());
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_FALSE(fs::exists(m_data));
  EXPECT_THROW(discovery->expire(), AssertionFailure) << "nothing is held any more";
}

TEST_F(Stored, ExpireOfARecordWithoutPayloadSucceeds)
{
  DiscoveryPtr const discovery = loaded(PAST);
  fs::remove(m_data);
  EXPECT_EQ(DS_SUCCESS, discovery->expire());
  EXPECT_FALSE(fs::exists(m_path));
}

TEST_F(Stored, ExpireDeletesNothingThatWasRefreshedMeanwhile)
{
  DiscoveryPtr const discovery = loaded(PAST);
  std::string const fresh = document(FUTURE, 3);
  { // in place and by another process, as a writer would
    OtherProcess const writer(m_dir / "unrelated", F_RDLCK,
                              [&]
                              {
                                int const fd = open(m_path.c_str(), O_WRONLY | O_TRUNC);
                                if (write(fd, fresh.data(), fresh.size()) < 0)
                                  _exit(1);
                              });
  }
  EXPECT_EQ(DS_NONE_FOUND, discovery->expire());
  EXPECT_EQ(fresh, readText(m_path));
  EXPECT_EQ("payload", readText(m_data));
  EXPECT_EQ(fresh, xmlOf(*discovery)) << "the record is the refreshed one";
  EXPECT_FALSE(isExpired(discovery.get()));
}

TEST_F(Stored, ARefreshedRecordGoesOnUnderAReadLock)
{
  DiscoveryPtr const discovery = loaded(FUTURE);
  EXPECT_EQ(DS_NONE_FOUND, discovery->expire());
  EXPECT_EQ(F_RDLCK, lockSeenByOthers(m_path));
}

TEST_F(Stored, ExpireGivesUpWhileAnotherProcessReads)
{
  DiscoveryPtr const discovery = loaded(PAST);
  OtherProcess const reader(m_path, F_RDLCK);
  LogCapture log;
  EXPECT_EQ(DS_LOGIC_ERROR, discovery->expire());
  EXPECT_EQ(1, log.count(1, EXPIRE_DISCOVERY,
                         "Unable to upgrade lock to expire file, errno: " + std::to_string(EBUSY)))
      << log.text();
  EXPECT_TRUE(fs::exists(m_path));
  EXPECT_TRUE(fs::exists(m_data));
}

TEST_F(Stored, ExpireOfAFileThatBecameUnreadableIsALogicError)
{
  DiscoveryPtr const discovery = loaded(PAST);
  fs::resize_file(m_path, 0);
  EXPECT_EQ(DS_LOGIC_ERROR, discovery->expire());
  EXPECT_TRUE(fs::exists(m_data));
}

TEST_F(Stored, ExpireNeverDeletesTheSuccessorOfADeletedFile)
{
  DiscoveryPtr const discovery = loaded(PAST);
  fs::remove(m_path);
  writeText(m_path, document(FUTURE));
  EXPECT_EQ(DS_LOGIC_ERROR, discovery->expire());
  EXPECT_TRUE(fs::exists(m_path));
  EXPECT_TRUE(fs::exists(m_data));
}

TEST_F(Stored, ExpireIsNotMisledByASnapshotOfHardLinks)
{
  DiscoveryPtr const discovery = loaded(PAST);
  fs::create_hard_link(m_path, m_dir / "snapshot");
  fs::remove(m_path);
  writeText(m_path, document(FUTURE));
  LogCapture log;
  EXPECT_EQ(DS_LOGIC_ERROR, discovery->expire());
  EXPECT_EQ(1, log.count(4, EXPIRE_DISCOVERY, "Was deleted: " + m_path)) << log.text();
  EXPECT_TRUE(fs::exists(m_path));
  EXPECT_TRUE(fs::exists(m_data));
}

TEST_F(Stored, ExpireNeedsAPayloadOfTheDatabase)
{
  class Foreign : public CollectionData
  {
    int open(OpenMode, char const*) override { return 1; }
    long readCollection(unsigned long, void*) const override { return 0; }
    long writeCollection(unsigned long, void const*) const override { return 1; }
  };
  DiscoveryPtr const discovery = loaded(PAST);
  discovery->setCollectionData(new Foreign);
  LogCapture log;
  EXPECT_THROW(discovery->expire(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, EXPIRE_DISCOVERY, "Assertion failed: collection")) << log.text();
  EXPECT_TRUE(fs::exists(m_path));
}

TEST_F(Stored, ExpireFailsWhenThePayloadCannotBeDeleted)
{
  DiscoveryPtr const discovery = loaded(PAST);
  fs::remove(m_data);
  fs::create_directory(m_data);
  EXPECT_EQ(DS_LOGIC_ERROR, discovery->expire());
  EXPECT_TRUE(fs::exists(m_path));
}

TEST_F(Stored, ExpireNeedsALock)
{
  LogCapture log;
  EXPECT_THROW(make(1)->expire(), AssertionFailure);
  EXPECT_EQ(1, log.count(1, EXPIRE_DISCOVERY, "Assertion failed: m_fileLock"));
}

TEST_F(Stored, AWriterThatWaitsThroughTheExpiryFindsNoFile)
{
  // Were the file unlocked before it is deleted, the writer could get in
  // between and lose what it writes.
  DiscoveryPtr const discovery = loaded(PAST);
  std::string const seen = m_dir / "seen";
  OtherProcess writer(m_dir / "unrelated", F_RDLCK,
                      [&]
                      {
                        int const fd = open(m_path.c_str(), O_RDWR);
                        lockByte0(fd, F_WRLCK, F_SETLKW);
                        if (access(m_path.c_str(), F_OK) == 0)
                          close(open(seen.c_str(), O_CREAT | O_WRONLY, 0644));
                      });
  std::thread leaving([&] { writer.leave(); });
  EXPECT_TRUE(eventually([&] { return someoneWaitsFor(m_path); }));
  EXPECT_EQ(DS_SUCCESS, discovery->expire());
  leaving.join();
  EXPECT_FALSE(fs::exists(seen));
}
