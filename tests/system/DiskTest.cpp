// A disk that is full, or that may not be written to. What is stored stays; a
// log line says which file and why.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

#include <csignal>
#include <iostream>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
namespace fs = std::filesystem;

class DiskTest : public testing::Test
{
protected:
  // Stores what a later, failing write must leave alone.
  void storeOld()
  {
    ASSERT_TRUE(m_service.start()) << m_service.log();
    {
      client::Client client(m_service.root(), LiveService::NAME);
      ASSERT_TRUE(client.connected());
      ASSERT_EQ(client.store("old", "kept", OLD), client::DS_SUCCESS);
    }
    ASSERT_EQ(m_service.stop(), 0) << m_service.log();
  }

  // A limit on the size of each file meets a writer where a full disk meets
  // it. The service inherits that the signal which comes with it is ignored.
  void startWithFileSizeLimit(std::string const& bytes)
  {
    auto const before = std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_TRUE(m_service.start({}, {"/usr/bin/prlimit", "--fsize=" + bytes + ":" + bytes}))
        << m_service.log();
    std::signal(SIGXFSZ, before);
  }

  // Permissions do not stop root, so the database and the service are then
  // somebody else's.
  void startAsOrdinaryUser()
  {
    constexpr uid_t NOBODY = 65534;
    LiveService::Words wrapper;
    if (geteuid() == 0)
    {
      ASSERT_EQ(chown((m_service / "db").c_str(), NOBODY, NOBODY), 0);
      for (auto const& entry : fs::recursive_directory_iterator(m_service / "db"))
        ASSERT_EQ(chown(entry.path().c_str(), NOBODY, NOBODY), 0);
      m_service.shareProgramsWithEverybody();
      wrapper = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }
    ASSERT_TRUE(m_service.start({}, wrapper)) << m_service.log();
  }

  void expectWhole(std::string const& count)
  {
    Outcome const verified = m_service.tqdiscoctl({"db", "verify"});
    EXPECT_EQ(verified.exitCode, 0) << verified.output;
    EXPECT_EQ(verified.output, count + " sound, 0 problems\n");
  }

  static constexpr char OLD[] = "<old/>";
  std::string m_large = "<large>" + std::string(200000, 'x') + "</large>";
  LiveService m_service;
};

} // namespace

TEST_F(DiskTest, aPayloadThatDoesNotFitIsRefusedAndTheOldOneStays)
{
  storeOld();
  startWithFileSizeLimit("100000");
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.store("old", "kept", m_large), client::DS_OPEN_FAILED);
    EXPECT_EQ(client.store("new", "kept", m_large), client::DS_OPEN_FAILED);
    EXPECT_EQ(client.read("old", "kept"), OLD);
    EXPECT_EQ(client.subjects(), (std::multiset<std::string>{"old"}));
    // What fits is taken as before.
    EXPECT_EQ(client.store("small", "kept", "<small/>"), client::DS_SUCCESS);
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("Unable to write " + m_service.database() +
                                         "/0.updating: File too large (27)"));
  EXPECT_THAT(m_service.log(), HasSubstr("Abandoned a discovery of which a part could not be "
                                         "written, subject old & authority kept"));
  expectWhole("2");
}

TEST_F(DiskTest, metadataThatDoesNotFitLeavesTheOldDocumentReadable)
{
  storeOld();
  std::string const file = m_service.database() + "/2 kept old.xml";
  std::string const before = readText(file);
  startWithFileSizeLimit("100");
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.store("old", "kept", "<newer/>"), client::DS_OPEN_FAILED);
    EXPECT_EQ(client.read("old", "kept"), OLD);
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_EQ(readText(file), before);
  EXPECT_THAT(m_service.log(), HasSubstr("Unable to write metadata"));
  EXPECT_THAT(m_service.log(), HasSubstr("Metadata update to " + file + " failed"));
  expectWhole("1");
}

// Needs root and a mount namespace; aPayloadThatDoesNotFitIsRefusedAndTheOldOneStays
// and metadataThatDoesNotFitLeavesTheOldDocumentReadable are its twins for
// everybody.
TEST_F(DiskTest, aFullFileSystemCostsOnlyTheNewDiscovery)
{
  fs::create_directories(m_service.database());
  LiveService::Words const unshare{"/usr/bin/unshare", "--mount", "--propagation", "private"};
  if (geteuid() != 0 ||
      runProgram(unshare[0], {unshare[1], unshare[2], unshare[3], "/bin/true"}).exitCode != 0)
  {
    std::cout << "Not run: a small file system of its own takes root. The tests with a limit on "
                 "the size of files stand in.\n";
    return;
  }
  LiveService::Words wrapper(unshare);
  for (auto const& word : {std::string("/bin/sh"), std::string("-c"),
                           std::string("mount -t tmpfs -o size=96k tmpfs \"$0\" && exec \"$@\""),
                           m_service.database()})
    wrapper.push_back(word);
  ASSERT_TRUE(m_service.start({}, wrapper)) << m_service.log();
  std::string const inside =
      "/proc/" + std::to_string(m_service.process().pid()) + "/root" + m_service.database();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(client.store("old", "kept", OLD), client::DS_SUCCESS);
    EXPECT_EQ(client.store("old", "kept", m_large), client::DS_OPEN_FAILED);
    EXPECT_EQ(client.read("old", "kept"), OLD);

    // Small ones until there is no room for the next.
    int fitted = 0;
    client::DiscoveryStatus status = client::DS_SUCCESS;
    for (; fitted < 100 && status == client::DS_SUCCESS; ++fitted)
      status = client.store("filler" + std::to_string(fitted), "kept", "<filler/>");
    EXPECT_GT(fitted, 2);
    EXPECT_EQ(status, client::DS_OPEN_FAILED);
    EXPECT_EQ(client.read("old", "kept"), OLD);
    EXPECT_EQ(client.read("filler0", "kept"), "<filler/>");

    // With room again, everything can be stored again.
    fs::remove(inside + "/2 kept filler1.xml");
    fs::remove(inside + "/2 kept filler1.dat");
    EXPECT_EQ(client.store("old", "kept", "<newer/>"), client::DS_SUCCESS);
    EXPECT_EQ(client.read("old", "kept"), "<newer/>");
  }
  EXPECT_THAT(m_service.log(), HasSubstr("Unable to write " + m_service.database() +
                                         "/0.updating: No space left on device (28)"));
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// Since before the start it would not have been served.
TEST_F(DiskTest, aDirectoryThatMayOnlyBeReadSinceTheStartIsServedAndWritesAreRefused)
{
  storeOld();
  startAsOrdinaryUser();
  fs::permissions(m_service.database(), fs::perms(0555));
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.store("new", "kept", "<new/>"), client::DS_OPEN_FAILED);
    EXPECT_EQ(client.store("old", "kept", "<new/>"), client::DS_OPEN_FAILED);
    EXPECT_EQ(client.subjects(), (std::multiset<std::string>{"old"}));
    EXPECT_EQ(client.read("old", "kept"), OLD);
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("Last error13"));
  EXPECT_THAT(m_service.log(),
              HasSubstr(m_service.database() + "/999.updating: Permission denied"));
  fs::permissions(m_service.database(), fs::perms(0755));
  expectWhole("1");
  EXPECT_EQ(readText(m_service.database() + "/2 kept old.dat"), OLD);
}
