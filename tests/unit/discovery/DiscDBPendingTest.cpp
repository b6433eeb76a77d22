// What the start finishes of what a process that ended left half done.

#include "discovery/DiscDBPending.h"

#include "ozf/base/Digest.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gtest/gtest.h>

#include <sys/xattr.h>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char PENDING_XML[] = "2 hostA hostB.xml";
constexpr char PENDING_DAT[] = "2 hostA hostB.dat";
constexpr char NOTE[] = "user.tessarine.pending";
constexpr char SETUP_DB[] = "DiscoveryDBCreator::setupDB";
constexpr int ENDED = 77;

class Pending : public testing::Test
{
protected:
  Database m_db;
  std::string const m_path = m_db / PENDING_XML;
  std::string const m_data = m_db / PENDING_DAT;
  std::string const m_temporary = m_db / "0.updating";

  AutoDereference<DBDiscovery> ready(std::string const& text, std::size_t signatureSize) const
  {
    auto discovery = records::make(m_db.path(), "hostA", "hostB", 1);
    discovery->getAttributes()->setSignature(text + std::string(signatureSize, 's'));
    EXPECT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    EXPECT_TRUE(discovery->getCollectionData()->writeCollection(text.size(), text.data()));
    return discovery;
  }

  // Stores in a process that ends instead of that call, counted from 1. False
  // when there are not so many.
  bool endAt(int number, std::string const& text, std::size_t signatureSize) const
  {
    return endAt([number, calls = 0](std::string const& call) mutable
                 { return SystemCalls::changes(call) && ++calls == number; },
                 text, signatureSize);
  }

  bool endAt(std::function<bool(std::string const&)> const& isTheCall, std::string const& text,
             std::size_t signatureSize) const
  {
    pid_t const pid = fork();
    if (pid == 0)
    {
      auto const discovery = ready(text, signatureSize);
      SystemCalls const calls(m_db.path(),
                              [&](std::string const& call)
                              {
                                if (isTheCall(call))
                                  _exit(ENDED);
                                return 0;
                              });
      _exit(discovery->persist() == DS_SUCCESS ? 0 : 1);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WEXITSTATUS(status) == ENDED || WEXITSTATUS(status) == 0);
    return WEXITSTATUS(status) == ENDED;
  }

  bool endBeforeTheRename(std::string const& text) const
  {
    return endAt([](std::string const& call) { return call.starts_with("rename"); }, text, 0);
  }

  void restart() const { getDiscoveryDBDatabase()->setupDB(); }

  // "old/new": whose metadata and whose payload a reader finds.
  std::string found() const
  {
    AutoDereference<Discovery> const record(getDiscoveryDBDatabase()->getDiscovery(PENDING_XML));
    if (!record)
      return fs::exists(m_path) ? "unreadable" : fs::exists(m_data) ? "payload alone" : "none";
    return record->getAttributes()->getSignature().str().substr(0, 3) + "/" +
           (fs::exists(m_data) ? payloadOf(*record) : "none");
  }

  std::string noteOf(std::string const& path) const
  {
    char text[4096];
    ssize_t const size = getxattr(path.c_str(), NOTE, text, sizeof text);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
  }

  void note(std::string const& target, std::string const& size, std::string const& digest,
            std::string const& document = "") const
  {
    std::string const value = target + '\n' + size + '\n' + digest + '\n' + document;
    ASSERT_EQ(0, setxattr(m_temporary.c_str(), NOTE, value.data(), value.size(), 0));
  }

  void expectDeleted() const
  {
    LogCapture log;
    restart();
    EXPECT_FALSE(fs::exists(m_temporary));
    EXPECT_EQ(1, log.count(1, SETUP_DB, "Deleting temporary file " + m_temporary)) << log.text();
  }
};

} // namespace

TEST_F(Pending, MetadataThatSomebodyPlantedIsNotWrittenTo)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  ASSERT_TRUE(endBeforeTheRename("new"));
  TempDir elsewhere;
  fs::create_hard_link(m_path, elsewhere / "secret");
  LogCapture log;
  restart();
  EXPECT_EQ(1, log.count(1, SETUP_DB,
                         "Refused " + m_path + ": has 2 names, as a file of the database has not"))
      << log.text();
  EXPECT_FALSE(fs::exists(m_temporary));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Pending, AfterAProcessEndedAnywhereTheNextStartFindsPairsThatBelongTogether)
{
  for (std::size_t const oldSize : {0U, 300U})
    for (std::size_t const newSize : {0U, 300U})
    {
      int number = 1;
      for (bool ended = true; ended; ++number)
      {
        Database const fresh;
        ASSERT_EQ(DS_SUCCESS, ready("old", oldSize)->persist());
        ended = endAt(number, "new", newSize);
        restart();
        std::string const pair = found();
        EXPECT_TRUE(pair == "new/new" || (ended && pair == "old/old")) << number << ": " << pair;
        EXPECT_FALSE(fs::exists(m_temporary));
        if (!ended)
        {
          EXPECT_EQ("", noteOf(m_data));
        }
      }
      EXPECT_GT(number, 8) << "calls were missed";
    }
}

TEST_F(Pending, OfAFirstDiscoveryTheNextStartFindsAllOrNothing)
{
  int number = 1;
  for (bool ended = true; ended; ++number)
  {
    Database const fresh;
    ended = endAt(number, "new", 0);
    restart();
    std::string const pair = found();
    EXPECT_TRUE(pair == "new/new" || (ended && pair == "none")) << number << ": " << pair;
    EXPECT_EQ(DS_SUCCESS, ready("xyz", 0)->persist());
  }
  EXPECT_GT(number, 8) << "calls were missed";
}

TEST_F(Pending, WhatIsFinishedIsLoggedAndFlushed)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  ASSERT_TRUE(endBeforeTheRename("new"));
  LogCapture log;
  std::vector<std::string> changes;
  {
    SystemCalls const calls(m_db.path());
    restart();
    std::copy_if(calls.seen().begin(), calls.seen().end(), std::back_inserter(changes),
                 SystemCalls::changes);
  }
  EXPECT_EQ((std::vector<std::string>{"fdatasync 0.updating",
                                      std::string("fdatasync ") + PENDING_XML, "rename 0.updating",
                                      "fsync .", std::string("removexattr ") + PENDING_DAT}),
            changes);
  EXPECT_EQ(1,
            log.count(1, SETUP_DB,
                      "Finished what was left half done, renamed " + m_temporary + " to " + m_data))
      << log.text();
  EXPECT_EQ(0, log.count(1, SETUP_DB, "Deleting temporary file " + m_temporary));
}

TEST_F(Pending, WithoutAttributesTheTemporaryFileIsDeleted)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  pid_t const pid = fork();
  if (pid == 0)
  {
    auto const discovery = ready("new", 0);
    SystemCalls const calls(m_db.path(),
                            [](std::string const& call)
                            {
                              if (call.starts_with("rename"))
                                _exit(ENDED);
                              return call.starts_with("fsetxattr") ? ENOTSUP : 0;
                            });
    discovery->persist();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_EQ(ENDED, WEXITSTATUS(status));
  expectDeleted();
  EXPECT_EQ("new/old", found());

  auto const discovery = ready("xyz", 0);
  SystemCalls const calls(m_db.path(), [](std::string const& call)
                          { return call.starts_with("fsetxattr") ? ENOTSUP : 0; });
  EXPECT_EQ(DS_SUCCESS, discovery->persist());
}

TEST_F(Pending, ALongDocumentIsNotKeptButItsDigestIs)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  ASSERT_TRUE(
      endAt([](std::string const& call) { return call.starts_with("rename"); }, "new", 9000));
  EXPECT_LT(noteOf(m_temporary).size(), 200U);
  restart();
  EXPECT_EQ("new/new", found());
}

TEST_F(Pending, WhereTheDocumentFindsNoRoomTheDigestDoes)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  bool refused = false;
  ASSERT_TRUE(endAt([](std::string const& call) { return call.starts_with("rename"); }, "new", 0));
  auto const discovery = ready("xyz", 0);
  int attempts = 0;
  SystemCalls const calls(m_db.path(),
                          [&](std::string const& call)
                          {
                            bool const first = call.starts_with("fsetxattr") && ++attempts == 1;
                            refused |= first;
                            return first ? ENOSPC : 0;
                          });
  EXPECT_EQ(DS_SUCCESS, discovery->persist());
  EXPECT_TRUE(refused);
  EXPECT_EQ(2, attempts);
}

TEST_F(Pending, ADocumentThatIsNoneIsWrittenAgain)
{
  for (std::string const& damage : {std::string(), std::string(40, '\0'), std::string("<Disc")})
  {
    Database const fresh;
    ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
    ASSERT_TRUE(endBeforeTheRename("new"));
    std::string const document = readText(m_path);
    std::string damaged = damage;
    if (damage.find('\0') != std::string::npos) // as a power cut may leave it
      damaged = document.substr(0, 100) + damage;
    writeText(m_path, damaged);
    restart();
    EXPECT_EQ("new/new", found());
    EXPECT_EQ(document, readText(m_path));
  }
}

TEST_F(Pending, ADocumentOfAnotherWriterIsNeverReplaced)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  ASSERT_TRUE(endBeforeTheRename("new"));
  fs::rename(m_temporary, m_db / "7.updating");
  ASSERT_EQ(DS_SUCCESS, ready("xyz", 0)->persist());
  restart();
  EXPECT_EQ("xyz/xyz", found());
  EXPECT_FALSE(fs::exists(m_db / "7.updating"));

  // Nor is anything made where the discovery is gone.
  ASSERT_TRUE(endBeforeTheRename("new"));
  fs::remove(m_path);
  fs::remove(m_data);
  expectDeleted();
  EXPECT_EQ("none", found());
}

TEST_F(Pending, APayloadThatIsNotWholeIsDeleted)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  ASSERT_TRUE(endBeforeTheRename("new"));
  fs::resize_file(m_temporary, 2);
  expectDeleted();
  EXPECT_EQ("new/old", found());
}

TEST_F(Pending, ANoteNamesNothingButAPayloadFileOfTheDirectory)
{
  TempDir const elsewhere;
  fs::create_directory(m_db / "sub");
  std::string const text = document(FUTURE);
  std::string const digest = digestOf(text);
  for (std::string const& target :
       {std::string("../2 hostA hostB.dat"), "/" + elsewhere.path() + "/2 hostA hostB.dat",
        elsewhere / "2 hostA hostB.dat", std::string("sub/2 hostA hostB.dat"),
        std::string("2 sub/hostA hostB.dat"), std::string("2 hostA hostB.xml"),
        std::string("2 hostA .dat"), std::string("2  hostB.dat"), std::string("2 hostA.dat"),
        std::string("9 hostA hostB.dat"), std::string("12 hostA hostB.dat"),
        std::string("2 hostA hostB hostC.dat"), std::string("2 host\x01 hostB.dat"),
        std::string("Update.lock"), std::string(), std::string(300, '2') + ".dat"})
  {
    for (std::string const metadata :
         {PENDING_XML, "../2 hostA hostB.xml", "sub/2 hostA hostB.xml", "2 hostA .xml"})
      writeText(m_db / metadata, text);
    writeText(elsewhere / PENDING_XML, text);
    writeText(m_temporary, "x");
    note(target, "1", digest, text);
    expectDeleted();
    EXPECT_FALSE(fs::exists(elsewhere / PENDING_DAT)) << target;
    EXPECT_FALSE(fs::exists(m_db / std::string("../") + PENDING_DAT)) << target;
    EXPECT_FALSE(fs::exists(m_db / std::string("sub/") + PENDING_DAT)) << target;
    EXPECT_EQ(text, readText(m_path)) << target;
  }
}

TEST_F(Pending, ANoteThatMakesNoSenseIsNone)
{
  std::string const text = document(FUTURE);
  std::string const digest = digestOf(text);
  writeText(m_path, text);
  struct Odd
  {
    std::string size;
    std::string digest;
    std::string document;
  };
  for (Odd const& odd :
       {Odd{"2", digest, ""}, Odd{"", digest, ""}, Odd{"1x", digest, ""}, Odd{"-1", digest, ""},
        Odd{"99999999999999999999", digest, ""}, Odd{"1", "", ""}, Odd{"1", digest.substr(1), ""},
        Odd{"1", std::string(32, '0'), ""}, Odd{"1", digest, "<other/>"}})
  {
    writeText(m_temporary, "x");
    note(PENDING_DAT, odd.size, odd.digest, odd.document);
    expectDeleted();
    EXPECT_FALSE(fs::exists(m_data)) << odd.size << odd.digest;
  }
  writeText(m_temporary, "x");
  ASSERT_EQ(0, setxattr(m_temporary.c_str(), NOTE, "no line", 7, 0));
  expectDeleted();
  writeText(m_temporary, "x");
  note(PENDING_DAT, "1", digest);
  restart();
  EXPECT_EQ("x", readText(m_data)) << "in order it is followed";
}

TEST_F(Pending, ALinkIsNeitherRenamedNorFollowed)
{
  TempDir const elsewhere;
  std::string const text = document(FUTURE);
  writeText(m_path, text);
  writeText(elsewhere / "x", "x");
  writeText(m_temporary, "x");
  note(PENDING_DAT, "1", digestOf(text));
  fs::rename(m_temporary, elsewhere / "noted");
  fs::create_symlink(elsewhere / "noted", m_temporary);
  expectDeleted();
  EXPECT_FALSE(fs::exists(m_data));

  writeText(m_temporary, "x");
  note(PENDING_DAT, "1", digestOf(text), text);
  fs::remove(m_path);
  writeText(elsewhere / "metadata", "no document");
  fs::create_symlink(elsewhere / "metadata", m_path);
  expectDeleted();
  EXPECT_EQ("no document", readText(elsewhere / "metadata"));
}

TEST_F(Pending, AReaderOfAnotherProcessIsNotInTheWayAndAWriterIs)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  ASSERT_TRUE(endBeforeTheRename("new"));
  {
    OtherProcess const reader(m_path, F_RDLCK);
    restart();
    EXPECT_EQ("new", readText(m_data));
  }
  ASSERT_TRUE(endBeforeTheRename("xyz"));
  OtherProcess const writer(m_path, F_WRLCK);
  expectDeleted();
  EXPECT_EQ("new", readText(m_data));
}

TEST_F(Pending, WhatWasRefusedAfterAFailedRenameIsNotFinished)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  auto discovery = ready("new", 0);
  {
    SystemCalls const calls(m_db.path(), [](std::string const& call)
                            { return call.starts_with("rename") ? EIO : 0; });
    ASSERT_EQ(DS_OPEN_FAILED, discovery->persist());
  }
  discovery.reset();
  EXPECT_EQ("", noteOf(m_temporary));
  expectDeleted();
  EXPECT_EQ("old/old", found());
}

TEST_F(Pending, WhatCouldNotBePutBackIsFinished)
{
  ASSERT_EQ(DS_SUCCESS, ready("old", 0)->persist());
  auto discovery = ready("new", 0);
  {
    bool renamed = false;
    SystemCalls const calls(m_db.path(),
                            [&](std::string const& call)
                            {
                              renamed |= call.starts_with("rename");
                              return renamed && SystemCalls::changes(call) ? EIO : 0;
                            });
    ASSERT_EQ(DS_OPEN_FAILED, discovery->persist());
  }
  EXPECT_EQ("new/old", found());
  discovery.reset();
  restart();
  EXPECT_EQ("new/new", found());
}
