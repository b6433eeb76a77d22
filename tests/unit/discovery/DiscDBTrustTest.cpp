// Files that somebody else put into the database directory, and a directory that
// others may write to.

#include "discovery/DiscDBFiles.h"

#include "discovery/DiscDBDiscovery.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Records.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char XML_FILE[] = "2 a s.xml";
constexpr char DAT_FILE[] = "2 a s.dat";
constexpr char LINK[] = ": is a symbolic link";

class Trust : public testing::Test
{
protected:
  Trust() { EXPECT_EQ(DS_SUCCESS, store(m_db.path(), "a", "s", 5, "stored")); }

  // The file goes elsewhere, and a link to it comes in its place.
  void moveBehindALink(std::string const& name) const
  {
    fs::rename(m_db / name, m_elsewhere / name);
    fs::create_symlink(m_elsewhere / name, m_db / name);
  }
  void giveASecondName(std::string const& name) const
  {
    fs::create_hard_link(m_db / name, m_elsewhere / name);
  }
  static AutoDereference<Discovery> get()
  {
    return AutoDereference<Discovery>(getDiscoveryDBDatabase()->getDiscovery(XML_FILE));
  }

  Database m_db;
  TempDir m_elsewhere;
};

unsigned modeOf(std::string const& path)
{
  return static_cast<unsigned>(fs::status(path).permissions());
}

// The database of a root of its own; not the process's.
class TrustedDirectory : public testing::Test
{
protected:
  TrustedDirectory() { setenv("TESSARINE_ROOT", m_root.path().c_str(), 1); }

  // The database directory is a link to one that others may read.
  void linkElsewhere()
  {
    fs::create_directories(m_root / "elsewhere");
    fs::permissions(m_root / "elsewhere", fs::perms(0755));
    fs::create_directory(m_root / "db");
    fs::create_symlink(m_root / "elsewhere", m_directory);
  }

  TempDir m_root;
  std::string m_directory = m_root / "db/discovery";
};

} // namespace

TEST(RefusalOf, TakesRegularFilesOfOneNameThatBelongToTheUserOrRoot)
{
  struct stat status
  {
  };
  status.st_mode = S_IFREG | 0644;
  status.st_nlink = 1;
  status.st_uid = 7;
  EXPECT_EQ("", refusalOf(status, 7));
  EXPECT_EQ("belongs to user 7, not to root or user 8", refusalOf(status, 8));
  status.st_uid = 0;
  EXPECT_EQ("", refusalOf(status, 8));
  status.st_nlink = 0;
  EXPECT_EQ("", refusalOf(status, 8)) << "just deleted";
  status.st_nlink = 2;
  EXPECT_EQ("has 2 names, as a file of the database has not", refusalOf(status, 8));
  status.st_mode = S_IFIFO | 0644;
  EXPECT_EQ("is not a regular file", refusalOf(status, 8));
}

TEST(RefusalOf, FollowsLinksOfTheUserOrRoot)
{
  struct stat status
  {
  };
  status.st_mode = S_IFLNK | 0777;
  status.st_uid = 7;
  EXPECT_EQ("", refusalOfLink(status, 7));
  EXPECT_EQ("is a link of user 7", refusalOfLink(status, 8));
  status.st_uid = 0;
  EXPECT_EQ("", refusalOfLink(status, 8));
  status.st_mode = S_IFDIR | 0755;
  status.st_uid = 7;
  EXPECT_EQ("", refusalOfLink(status, 8)) << "no link";
}

TEST_F(Trust, MetadataBehindALinkIsNeitherReadNorWritten)
{
  moveBehindALink(XML_FILE);
  std::string const before = readText(m_elsewhere / XML_FILE);
  LogCapture log;
  EXPECT_FALSE(get());
  EXPECT_EQ(1,
            log.count(1, "DiscoveryDBCreator::getDiscovery", "Refused " + (m_db / XML_FILE) + LINK))
      << log.text();
  EXPECT_NE(DS_SUCCESS, store(m_db.path(), "a", "s", 9, "new"));
  EXPECT_EQ(before, readText(m_elsewhere / XML_FILE));
  EXPECT_EQ("stored", readText(m_db / DAT_FILE));
}

TEST_F(Trust, ALinkThatLeadsNowhereMakesNoFileElsewhere)
{
  fs::remove(m_db / XML_FILE);
  fs::create_symlink(m_elsewhere / "made", m_db / XML_FILE);
  EXPECT_NE(DS_SUCCESS, store(m_db.path(), "a", "s", 9, "new"));
  EXPECT_FALSE(fs::exists(m_elsewhere / "made"));
}

TEST_F(Trust, MetadataOfASecondNameIsNeitherReadNorWritten)
{
  giveASecondName(XML_FILE);
  std::string const before = readText(m_elsewhere / XML_FILE);
  LogCapture log;
  EXPECT_FALSE(get());
  EXPECT_EQ(1, log.count(1, "DBDiscovery::load",
                         "Refused " + (m_db / XML_FILE) +
                             ": has 2 names, as a file of the database has not"))
      << log.text();
  EXPECT_NE(DS_SUCCESS, store(m_db.path(), "a", "s", 9, "new"));
  EXPECT_EQ(before, readText(m_elsewhere / XML_FILE));
  fs::remove(m_elsewhere / XML_FILE);
  EXPECT_TRUE(get()) << "it was the second name alone";
}

TEST_F(Trust, APayloadBehindALinkOrOfASecondNameIsNotServed)
{
  giveASecondName(DAT_FILE);
  LogCapture log;
  EXPECT_EQ("(cannot be opened)", payloadOf(*get()));
  EXPECT_EQ(1, log.count(1, "DBCollectionData::open",
                         "Refused " + (m_db / DAT_FILE) +
                             ": has 2 names, as a file of the database has not"))
      << log.text();
  fs::remove(m_elsewhere / DAT_FILE);
  EXPECT_EQ("stored", payloadOf(*get()));

  moveBehindALink(DAT_FILE);
  EXPECT_EQ("(cannot be opened)", payloadOf(*get()));
  EXPECT_EQ(1, log.count(1, "DBCollectionData::open", "Refused " + (m_db / DAT_FILE) + LINK))
      << log.text();
  ASSERT_EQ(DS_SUCCESS, store(m_db.path(), "a", "s", 9, "new")) << "a writer replaces the link";
  EXPECT_EQ("stored", readText(m_elsewhere / DAT_FILE));
  EXPECT_EQ("new", payloadOf(*get()));
}

TEST_F(Trust, ALockFileBehindALinkIsNoLock)
{
  moveBehindALink("Update.lock");
  LogCapture log;
  CleanupLock const lock(m_db.path().c_str(), CleanupLock::SHARED);
  EXPECT_FALSE(lock.isLocked());
  EXPECT_EQ(1, log.count(1, "CleanupLock::CleanupLock", "Refused " + (m_db / "Update.lock") + LINK))
      << log.text();
}

TEST_F(Trust, ALockFileOfASecondNameOrThatIsNoFileIsNoLock)
{
  giveASecondName("Update.lock");
  std::string const path = m_db / "Update.lock";
  LogCapture log;
  EXPECT_FALSE(CleanupLock(m_db.path().c_str(), CleanupLock::SHARED).isLocked());
  EXPECT_EQ(1, log.count(1, "CleanupLock::CleanupLock",
                         "Refused " + path + ": has 2 names, as a file of the database has not"))
      << log.text();
  fs::remove(path);
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  EXPECT_FALSE(CleanupLock(m_db.path().c_str(), CleanupLock::SHARED).isLocked());
  EXPECT_EQ(1, log.count(1, "CleanupLock::CleanupLock", "Not a regular file: " + path))
      << log.text();
}

TEST_F(Trust, ATemporaryNameThatIsALinkIsWrittenAndFollowedByNobody)
{
  writeText(m_elsewhere / "kept", "kept");
  fs::create_symlink(m_elsewhere / "kept", m_db / "0.updating");
  fs::create_symlink(m_elsewhere / "made", m_db / "1.updating");
  fs::create_hard_link(m_elsewhere / "kept", m_db / "2.updating");
  EXPECT_EQ(DS_SUCCESS, store(m_db.path(), "a", "s", 9, "new"));
  EXPECT_EQ("new", payloadOf(*get()));
  getDiscoveryDBDatabase()->setupDB();
  EXPECT_EQ("kept", readText(m_elsewhere / "kept"));
  EXPECT_FALSE(fs::exists(m_elsewhere / "made"));
  for (char const* const name : {"0.updating", "1.updating", "2.updating"})
    EXPECT_FALSE(fs::is_symlink(m_db / name) || fs::exists(m_db / name)) << name;
}

TEST_F(Trust, FilesOfAnotherUserAreRefused)
{
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give files away; RefusalOf judges the same without";
  ASSERT_EQ(0, chown((m_db / DAT_FILE).c_str(), 12345, 12345));
  EXPECT_EQ("(cannot be opened)", payloadOf(*get()));
  ASSERT_EQ(0, chown((m_db / XML_FILE).c_str(), 12345, 12345));
  LogCapture log;
  EXPECT_FALSE(get());
  EXPECT_EQ(1, log.count(1, "DBDiscovery::load",
                         "Refused " + (m_db / XML_FILE) +
                             ": belongs to user 12345, not to root or user 0"))
      << log.text();
}

TEST_F(TrustedDirectory, OneThatIsThereIsClosedToOthersWithALine)
{
  fs::create_directories(m_directory);
  fs::permissions(m_directory, fs::perms(0777));
  LogCapture log;
  DiscoveryDBCreator creator;
  creator.init("");
  EXPECT_EQ(0750u, modeOf(m_directory));
  EXPECT_EQ(m_directory, creator.getDirectory());
  EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::setupDB",
                         "Closed the database directory to others: " + m_directory))
      << log.text();
  LogCapture again;
  DiscoveryDBCreator second;
  second.init("");
  EXPECT_EQ("", again.text()) << "once is enough";
}

TEST_F(TrustedDirectory, TheAdministratorsOwnLinkIsFollowed)
{
  linkElsewhere();
  DiscoveryDBCreator own;
  own.init("");
  EXPECT_EQ(m_directory, own.getDirectory());
  EXPECT_EQ(0750u, modeOf(m_root / "elsewhere"));
}

TEST_F(TrustedDirectory, ALinkOfAnotherUserIsNotFollowed)
{
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give the link away; RefusalOf judges the same without";
  linkElsewhere();
  ASSERT_EQ(0, lchown(m_directory.c_str(), 12345, 12345));
  LogCapture log;
  DiscoveryDBCreator creator;
  creator.init("");
  EXPECT_EQ(
      1, log.count(1, "DiscoveryDBCreator::setupDB",
                   "Refused the database directory: " + m_directory + " is a link of user 12345"))
      << log.text();
  EXPECT_EQ(0755u, modeOf(m_root / "elsewhere")) << "nothing there is touched";
  EXPECT_NE(DS_SUCCESS, store(creator.getDirectory(), "a", "s", 1, "x"));
}

TEST_F(TrustedDirectory, OneThatOthersMayWriteToIsRefused)
{
  if (geteuid() != 0)
    GTEST_SKIP() << "only root can give the directory away; isOnlyOurs judges the same without";
  fs::create_directories(m_directory);
  writeText(m_directory + "/7.updating", "somebody's");
  ASSERT_EQ(0, chown(m_directory.c_str(), 12345, 12345));
  LogCapture log;
  DiscoveryDBCreator creator;
  creator.init("");
  EXPECT_EQ(1, log.count(1, "DiscoveryDBCreator::setupDB",
                         "Refused the database directory: " + m_directory +
                             " belongs to user 12345, not to root or the running user"))
      << log.text();
  EXPECT_TRUE(fs::exists(m_directory + "/7.updating")) << "nothing in it is touched";
  AutoDereference<DiscoveryIterator> const iterator(creator.getIterator(DQ_DISCOVERY_DATA));
  EXPECT_EQ(nullptr, iterator->getNext());
  EXPECT_TRUE(iterator->isIncomplete());
  EXPECT_NE(DS_SUCCESS, store(creator.getDirectory(), "a", "s", 1, "x"));
  EXPECT_FALSE(fs::exists(m_directory + "/2 a s.xml"));
}
