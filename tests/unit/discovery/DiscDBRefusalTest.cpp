// A discovery that is refused, for whatever reason, costs nothing of what is
// stored and leaves nothing behind.

#include "discovery/DiscDBDiscovery.h"

#include "discovery/DiscDBFiles.h"
#include "tests/support/FailingXmlMemory.h"
#include "tests/support/LogCapture.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/Records.h"
#include "tests/unit/discovery/SystemCalls.h"

#include <gmock/gmock.h>

using namespace records;
namespace fs = std::filesystem;

namespace
{

constexpr char REFUSED_XML[] = "2 hostA hostB.xml";
constexpr char REFUSED_DAT[] = "2 hostA hostB.dat";

class Refusal : public testing::Test
{
protected:
  TempDir m_dir;
  std::string const m_path = m_dir / REFUSED_XML;
  std::string const m_data = m_dir / REFUSED_DAT;
  LogCapture m_log;

  AutoDereference<DBDiscovery> make(unsigned priority) const
  {
    return records::make(m_dir.path(), "hostA", "hostB", priority);
  }

  AutoDereference<DBDiscovery> ready(unsigned priority, std::string const& payload) const
  {
    auto discovery = make(priority);
    EXPECT_EQ(DS_SUCCESS, discovery->open(OM_UPDATE, ""));
    EXPECT_TRUE(discovery->getCollectionData()->writeCollection(payload.size(), payload.data()));
    return discovery;
  }

  bool has(std::string const& operation, std::string const& text) const
  {
    return m_log.count(1, operation, text) == 1;
  }

  std::vector<std::string> files() const
  {
    std::vector<std::string> names;
    for (auto const& entry : fs::directory_iterator(m_dir.path()))
      names.push_back(entry.path().filename());
    return names;
  }
};

using Fault = std::function<int(std::string const&)>;

} // namespace

TEST_F(Refusal, ARenameThatFailsPutsTheOldMetadataBackAndSaysWhy)
{
  ASSERT_EQ(DS_SUCCESS, ready(1, "old")->persist());
  std::string const before = readText(m_path);
  auto const discovery = ready(1, "new");
  discovery->getAttributes()->setSignature(std::string(700, 's'));
  std::vector<std::string> changes;
  {
    SystemCalls const calls(m_dir.path(), [](std::string const& call)
                            { return call == "rename 0.updating" ? EDQUOT : 0; });
    EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
    changes = calls.seen();
  }
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
  EXPECT_EQ(std::string("fsync ") + REFUSED_XML, changes.at(changes.size() - 2))
      << "it is the old one for good";
  EXPECT_EQ("removexattr 0.updating", changes.back()) << "no start shall finish it";
  std::string const temporary = m_dir / "0.updating";
  EXPECT_EQ(2, m_log.count(1, "DBCollectionData::persist", "Unable to delete " + m_data))
      << "the first had nothing to delete\n"
      << m_log.text();
  EXPECT_TRUE(has("DBCollectionData::persist", "Unable to rename " + temporary + " to " + m_data));
  EXPECT_TRUE(has("DBCollectionData::persist", temporary + ": Disk quota exceeded (122)"));
  EXPECT_TRUE(has("DBDiscovery::persist", "Collection data update failed"));
  EXPECT_TRUE(fs::exists(temporary)) << "it waits for the next start";
  EXPECT_EQ(DS_SUCCESS, ready(1, "next")->persist());
}

TEST_F(Refusal, AnOldDocumentThatCannotBePutBackIsTold)
{
  ASSERT_EQ(DS_SUCCESS, ready(1, "old")->persist());
  auto const discovery = ready(1, "new");
  bool renamed = false;
  SystemCalls const calls(m_dir.path(),
                          [&](std::string const& call)
                          {
                            renamed |= call.starts_with("rename");
                            bool const writes = call.starts_with("pwrite");
                            return renamed && (writes || call.starts_with("rename")) ? EIO : 0;
                          });
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_TRUE(has("DBDiscovery::persist",
                  "Unable to put the old document back: " + m_path + ": Input/output error (5)"))
      << m_log.text();
}

TEST_F(Refusal, AHugeFileThatWasNoDocumentIsGoneAfterAFailedRename)
{
  writeText(m_path, document(FUTURE) + std::string(LARGEST_METADATA, ' '));
  auto const discovery = ready(1, "new");
  SystemCalls const calls(m_dir.path(), [](std::string const& call)
                          { return call.starts_with("rename") ? EIO : 0; });
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_FALSE(fs::exists(m_path)) << "new metadata without its payload";
}

TEST_F(Refusal, PersistAfterAFailureFailsAndTouchesNothing)
{
  std::string const line = "Refused to persist again what failed before: " + m_path;
  ASSERT_EQ(DS_SUCCESS, ready(5, "good")->persist());
  std::string const before = readText(m_path);
  std::vector<Fault> const faults = {
      [](std::string const& call) { return call.starts_with("rename") ? EIO : 0; },
      [](std::string const& call) { return call.starts_with("fsync") ? ENOSPC : 0; },
      [](std::string const& call) { return call.starts_with("fcntl setlk write") ? ENOLCK : 0; },
      [](std::string const& call) { return call.starts_with("pwrite") ? EIO : 0; }};
  for (std::size_t n = 0; n < faults.size(); ++n)
  {
    auto const discovery = ready(5, "new");
    {
      SystemCalls const calls(m_dir.path(), faults[n]);
      ASSERT_EQ(DS_OPEN_FAILED, discovery->persist()) << n;
    }
    LogCapture log;
    SystemCalls const calls(m_dir.path());
    EXPECT_EQ(DS_OPEN_FAILED, discovery->persist()) << n;
    EXPECT_EQ(1, log.count(1, "DBDiscovery::persist", line)) << log.text();
    EXPECT_TRUE(calls.seen().empty()) << calls.seen().front();
    EXPECT_EQ("good", readText(m_data)) << n;
    EXPECT_EQ(before, readText(m_path)) << n;
  }
}

TEST_F(Refusal, PersistAfterARefusalFailsEvenWhenNothingIsInTheWayAnyMore)
{
  auto const discovery = ready(1, "lesser");
  ASSERT_EQ(DS_SUCCESS, ready(5, "good")->persist());
  ASSERT_EQ(DS_DATA_EXISTS, discovery->persist());
  fs::remove(m_path);
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_EQ("good", readText(m_data));

  // Opened and written anew, it may try anew.
  EXPECT_EQ(DS_SUCCESS, records::store(*discovery, "again"));
  EXPECT_EQ("again", readText(m_data));
}

TEST_F(Refusal, APayloadWhoseRenameFailedIsNotStoredAsAnEmptyOne)
{
  writeText(m_data, "good");
  DBCollectionData data(OzfPathname(m_dir / ""));
  ASSERT_NE(0, data.open(OM_UPDATE, ""));
  {
    SystemCalls const calls(m_dir.path(), [](std::string const& call)
                            { return call.starts_with("rename") ? EIO : 0; });
    EXPECT_FALSE(data.persist(OzfPathname(m_data)));
  }
  EXPECT_FALSE(data.persist(OzfPathname(m_data)));
  EXPECT_TRUE(
      has("DBCollectionData::persist", "Refused to persist again what failed before: " + m_data))
      << m_log.text();
  EXPECT_EQ("good", readText(m_data));
  EXPECT_NE(0, data.open(OM_UPDATE, ""));
  EXPECT_TRUE(data.persist(OzfPathname(m_data)));
}

TEST_F(Refusal, AStoredDocumentThatCannotBeReadIsNotReplaced)
{
  writeText(m_path, document(FUTURE, 50));
  writeText(m_data, "greater");
  for (int const error : {EIO, ENOMEM})
  {
    LogCapture log;
    SystemCalls const calls(m_dir.path(), [&](std::string const& call)
                            { return call == std::string("pread ") + REFUSED_XML ? error : 0; });
    EXPECT_TRUE(make(10)->canOverride());
    EXPECT_EQ(DS_OPEN_FAILED, records::store(*make(10), "lesser")) << error;
    EXPECT_GE(log.count(1, "DBDiscovery::canOverride",
                        "Unable to read " + m_path +
                            (error == EIO ? ": Input/output error (5)"
                                          : ": Cannot allocate memory (12)")),
              1)
        << log.text();
  }
  EXPECT_EQ(document(FUTURE, 50), readText(m_path));
  EXPECT_EQ("greater", readText(m_data));
}

TEST_F(Refusal, AStoredDocumentThatCannotBeReadUnderTheWriteLockIsNotReplaced)
{
  ASSERT_EQ(DS_SUCCESS, ready(1, "old")->persist());
  std::string const before = readText(m_path);
  auto const discovery = ready(1, "new");
  bool locked = false;
  SystemCalls const calls(m_dir.path(),
                          [&](std::string const& call)
                          {
                            locked |= call == std::string("fcntl setlk write ") + REFUSED_XML;
                            return locked && call == std::string("pread ") + REFUSED_XML ? EIO : 0;
                          });
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_TRUE(has("DBDiscovery::persist", "Unable to read " + m_path + ": Input/output error (5)"))
      << m_log.text();
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Refusal, AStoredDocumentThatCannotBeOpenedIsNoPermission)
{
  writeText(m_path, document(FUTURE, 50));
  writeText(m_data, "greater");
  auto const writing = ready(50, "equal");
  for (int const error : {EMFILE, EIO, ENOMEM, EACCES})
  {
    LogCapture log;
    SystemCalls const calls(m_dir.path(), [&](std::string const& call)
                            { return call == std::string("open ") + REFUSED_XML ? error : 0; });
    EXPECT_FALSE(make(90)->canOverride()) << error;
    EXPECT_EQ(1, log.count(1, "DBDiscovery::canOverride", "Unable to open " + m_path));
    EXPECT_EQ(DS_OPEN_FAILED, make(90)->open(OM_UPDATE, "")) << error;
  }
  SystemCalls const calls(m_dir.path(), [&](std::string const& call)
                          { return call == std::string("open ") + REFUSED_XML ? EMFILE : 0; });
  EXPECT_EQ(DS_OPEN_FAILED, writing->persist());
  EXPECT_EQ("greater", readText(m_data));
}

TEST_F(Refusal, ADocumentWhoseNameCannotBeLookedUpIsNoPermission)
{
  writeText(m_path, document(FUTURE, 50));
  auto const discovery = make(90);
  SystemCalls const calls(m_dir.path(), [](std::string const& call)
                          { return call.starts_with("fstat") ? EIO : 0; });
  EXPECT_FALSE(discovery->canOverride());
  EXPECT_TRUE(
      has("DBDiscovery::canOverride", "Unable to examine " + m_path + ": Input/output error (5)"))
      << m_log.text();
}

TEST_F(Refusal, AnEndOfMemoryIsNoPermission)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  writeText(m_path, document(FUTURE, 50));
  writeText(m_data, "greater");
  auto const writing = ready(50, "equal");
  auto const opening = make(10);
  long refused = 0;
  // A thread that has read no XML yet needs memory for its parser.
  std::thread(
      [&]
      {
        memory.failAfter(0);
        EXPECT_FALSE(opening->canOverride());
        refused = memory.failed();
        EXPECT_EQ(DS_OPEN_FAILED, opening->open(OM_UPDATE, ""));
        EXPECT_EQ(DS_OPEN_FAILED, writing->persist());
        memory.recover();
      })
      .join();
  ASSERT_GT(refused, 0) << "the memory was given in vain";
  EXPECT_GE(m_log.count(1, "DBDiscovery::persist", "Out of memory, nothing was stored") +
                m_log.count(1, "DBDiscovery::canOverride", "Out of memory, nothing was stored"),
            3)
      << m_log.text();
  EXPECT_EQ(document(FUTURE, 50), readText(m_path));
  EXPECT_EQ("greater", readText(m_data));
}

TEST_F(Refusal, AnEndOfMemoryOnTheWayIsAFailureThatTouchesNothing)
{
  ASSERT_EQ(DS_SUCCESS, ready(1, "old")->persist());
  std::string const before = readText(m_path);
  auto const discovery = ready(1, "new");
  discovery->getAttributes()->setSignature("new");
  class Exhausted : public DBCollectionData
  {
  public:
    using DBCollectionData::DBCollectionData;
    int open(OpenMode, char const*) override { throw std::bad_alloc(); }
  };
  discovery->setCollectionData(new Exhausted(OzfPathname(m_dir / "")));
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_EQ(before, readText(m_path));
  EXPECT_EQ("old", readText(m_data));
}

TEST_F(Refusal, AFirstDiscoveryThatIsRefusedLeavesNoFile)
{
  std::vector<Fault> const faults = {
      [](std::string const& call)
      { return call == std::string("fcntl setlk write ") + REFUSED_XML ? ENOLCK : 0; },
      [](std::string const& call) { return call == std::string("fstat ") + REFUSED_XML ? EIO : 0; },
      [reads = 0](std::string const& call) mutable
      { return call == std::string("fstat ") + REFUSED_XML && ++reads == 2 ? EIO : 0; },
      [](std::string const& call) { return call == std::string("pread ") + REFUSED_XML ? EIO : 0; },
      [](std::string const& call)
      { return call == std::string("pwrite ") + REFUSED_XML ? ENOSPC : 0; },
  };
  for (std::size_t n = 0; n < faults.size(); ++n)
  {
    {
      auto const discovery = ready(1, "first");
      SystemCalls const calls(m_dir.path(), faults[n]);
      EXPECT_EQ(DS_OPEN_FAILED, discovery->persist()) << n;
    }
    EXPECT_THAT(files(), testing::ElementsAre("Update.lock")) << n;
  }
}

TEST_F(Refusal, WhatAnotherWroteIntoANewFileStays)
{
  auto const discovery = ready(1, "first");
  std::string const text = document(FUTURE, 50);
  SystemCalls const calls(m_dir.path(),
                          [&](std::string const& call)
                          {
                            if (call != std::string("fcntl setlk write ") + REFUSED_XML)
                              return 0;
                            writeText(m_path, text);
                            return ENOLCK;
                          });
  EXPECT_EQ(DS_OPEN_FAILED, discovery->persist());
  EXPECT_EQ(text, readText(m_path));
}

TEST_F(Refusal, AnExpiryThatCannotLookForThePayloadDeletesItAllTheSame)
{
  for (int const error : {EACCES, EIO, ENOMEM})
  {
    writeText(m_data, "x");
    SystemCalls const calls(m_dir.path(), [&](std::string const& call)
                            { return call.starts_with("access") ? error : 0; });
    EXPECT_TRUE(DBCollectionData(OzfPathname(m_data)).expire()) << error;
    EXPECT_FALSE(fs::exists(m_data)) << error;
  }
  writeText(m_data, "x");
  SystemCalls const calls(
      m_dir.path(), [&](std::string const& call)
      { return call.starts_with("access") || call.starts_with("unlink") ? EIO : 0; });
  EXPECT_FALSE(DBCollectionData(OzfPathname(m_data)).expire()) << "it is still there";
}
