// A service over a database with metadata files that are none.

#include "tests/support/LiveService.h"
#include "tests/support/Records.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <iostream>
#include <map>

namespace
{

using namespace tqtest;
using testing::HasSubstr;

using Subjects = std::multiset<std::string>;

class BadMetadataTest : public testing::Test
{
protected:
  BadMetadataTest() { std::filesystem::create_directories(m_service.database()); }

  std::string pathOf(std::string const& file) const { return m_service.database() + '/' + file; }

  void storeSoundOnes()
  {
    for (char const* const subject : {"sound1", "sound2"})
      ASSERT_EQ(records::store(m_service.database(), "host", subject, 1, "<x/>"),
                records::DS_SUCCESS);
  }

  // file: what tqdiscoctl must say of it.
  std::map<std::string, std::string> spoil()
  {
    std::string const good = records::document(records::FUTURE, 1, "host", "cut");
    writeText(pathOf("2 host empty.xml"), "");
    writeText(pathOf("2 host cut.xml"), good.substr(0, good.size() / 2));
    writeText(pathOf("2 host noxml.xml"), std::string("\0\1\2 no XML at all", 17));
    writeText(pathOf("2 host doctype.xml"),
              "<?xml version=\"1.0\"?><!DOCTYPE DiscoveryData [<!ENTITY e SYSTEM "
              "\"file:///etc/hostname\">]><DiscoveryData>&e;</DiscoveryData>");
    writeText(pathOf("2 host nosubject.xml"),
              "<?xml version=\"1.0\"?><DiscoveryData><DiscoveryAuthority Name=\"host\" "
              "Type=\"2\"></DiscoveryAuthority></DiscoveryData>");
    writeText(pathOf("2 host sparse.xml"), "");
    std::filesystem::resize_file(pathOf("2 host sparse.xml"), std::uintmax_t(1) << 30);
    std::filesystem::create_directory(pathOf("2 host directory.xml"));
    std::filesystem::create_symlink("nowhere", pathOf("2 host dangling.xml"));
    EXPECT_EQ(mkfifo(pathOf("2 host fifo.xml").c_str(), 0644), 0);
    return {{"2 host empty.xml", "is empty"},
            {"2 host cut.xml", "cannot be parsed: "},
            {"2 host noxml.xml", "cannot be parsed: "},
            {"2 host doctype.xml", "cannot be parsed: "},
            {"2 host nosubject.xml", "names no subject"},
            {"2 host sparse.xml", "cannot be read: File too large"},
            {"2 host directory.xml", "is not a regular file"},
            {"2 host dangling.xml", "is a symbolic link"},
            {"2 host fifo.xml", "is not a regular file"}};
  }

  LiveService m_service;
};

} // namespace

TEST_F(BadMetadataTest, queriesAnswerWithTheSoundRecordsAndEachBadFileIsNamedInTheLog)
{
  storeSoundOnes();
  auto const bad = spoil();
  ASSERT_TRUE(m_service.start()) << m_service.log();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(client.subjects(), (Subjects{"sound1", "sound2"}));
    // A name that leads straight to a bad file neither fails nor blocks.
    EXPECT_EQ(client.read("fifo", "host"),
              "(status " + std::to_string(records::DS_NONE_FOUND) + ")");
    EXPECT_EQ(client.read("sound1", "host"), "<x/>");
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  for (auto const& [file, reason] : bad)
    EXPECT_THAT(m_service.log(), HasSubstr(pathOf(file)));
}

TEST_F(BadMetadataTest, verifyReportsEachWithItsReason)
{
  storeSoundOnes();
  auto const bad = spoil();
  Outcome const outcome = m_service.tqdiscoctl({"db", "verify"});
  EXPECT_EQ(outcome.exitCode, 4);
  for (auto const& [file, reason] : bad)
    EXPECT_THAT(outcome.output, HasSubstr('"' + file + "\" " + reason));
  EXPECT_THAT(outcome.output, HasSubstr("2 sound, " + std::to_string(bad.size()) + " problems\n"));
}

TEST_F(BadMetadataTest, badFilesCanBeReplacedByNewDiscoveries)
{
  spoil();
  ASSERT_TRUE(m_service.start()) << m_service.log();
  client::Client client(m_service.root(), LiveService::NAME);
  ASSERT_TRUE(client.connected());
  for (char const* const subject : {"empty", "cut", "noxml", "doctype", "nosubject", "sparse"})
  {
    EXPECT_EQ(client.store(subject, "host", "<new/>"), client::DS_SUCCESS) << subject;
    EXPECT_EQ(client.read(subject, "host"), "<new/>") << subject;
  }
  // These are no files that can be rewritten; they are refused, and stay.
  for (char const* const subject : {"directory", "fifo"})
    EXPECT_EQ(client.store(subject, "host", "<new/>"), client::DS_OPEN_FAILED) << subject;
  EXPECT_EQ(client.subjects().size(), 6U);
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
}

// Permissions do not stop root, so the service then runs as somebody else; who
// runs the test as an ordinary user runs the service as himself.
TEST_F(BadMetadataTest, aFileWithoutRightsIsNamedAndLeftOut)
{
  storeSoundOnes();
  ASSERT_EQ(records::store(m_service.database(), "host", "secret", 1, "<x/>"), records::DS_SUCCESS);
  LiveService::Words wrapper;
  if (geteuid() == 0)
  {
    constexpr uid_t NOBODY = 65534;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(m_service / "db"))
      ASSERT_EQ(chown(entry.path().c_str(), NOBODY, NOBODY), 0);
    m_service.shareProgramsWithEverybody();
    wrapper = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  }
  std::filesystem::permissions(pathOf("2 host secret.xml"), std::filesystem::perms(0));
  ASSERT_TRUE(m_service.start({}, wrapper)) << m_service.log();
  {
    client::Client client(m_service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    bool incomplete = false;
    EXPECT_EQ(client.subjects("*", &incomplete), (Subjects{"sound1", "sound2"}));
    EXPECT_TRUE(incomplete) << "nobody knows what is in the other";
  }
  EXPECT_EQ(m_service.stop(), 0) << m_service.log();
  EXPECT_THAT(m_service.log(), HasSubstr("Unable to open " + pathOf("2 host secret.xml")));

  wrapper.push_back(m_service.program("tqdiscoctl"));
  std::string const program = wrapper.front();
  wrapper.erase(wrapper.begin());
  for (char const* const word : {"db", "verify"})
    wrapper.emplace_back(word);
  Outcome const outcome =
      runProgram(program, wrapper, {{"TESSARINE_ROOT", m_service.root()}, {"LSAN_OPTIONS", ""}});
  EXPECT_EQ(outcome.exitCode, 4) << outcome.errors;
  EXPECT_THAT(outcome.output,
              HasSubstr("\"2 host secret.xml\" cannot be opened: Permission denied"));
}
