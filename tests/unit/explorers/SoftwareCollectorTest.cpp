#include "explorers/SoftwareCollector.h"

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/unit/explorers/ExplorerTesting.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <sys/stat.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers;
using ExplorerTesting::fixture;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

std::optional<std::string> noRpm()
{
  ADD_FAILURE() << "there is no database of rpm";
  return std::nullopt;
}

std::vector<std::string> packageLines(Software const& software)
{
  std::vector<std::string> lines;
  for (auto const& package : software.packages)
    lines.push_back(package.manager + ' ' + package.name + ' ' + package.version + ' ' +
                    package.architecture + ' ' +
                    (package.size ? std::to_string(*package.size) : "-") + ' ' + package.state);
  return lines;
}

// A root with a database of dpkg.
class DpkgRoot
{
public:
  DpkgRoot() { std::filesystem::create_directories(m_root / "var/lib/dpkg"); }

  std::string database() const { return m_root / "var/lib/dpkg/status"; }
  Software collect() const { return collectSoftware(m_root.path(), noRpm); }

private:
  TempDir m_root;
};

} // namespace

TEST(SoftwareCollector, readsThePackagesOfARecordedHost)
{
  auto const software = collectSoftware(fixture("server"),
                                        []
                                        {
                                          return std::optional<std::string>(
                                              "bash\t5.1.8-9.el9\tx86_64\t7738778\n"
                                              "gpg-pubkey\t8483c65d-5ccc5b19\t(none)\t0\n"
                                              "dbus\t1:1.12.20-8.el9\tx86_64\t0\n"
                                              "big\t1-1\tnoarch\t5000000000\n");
                                        });
  EXPECT_THAT(packageLines(software),
              ElementsAre("dpkg libexample1 2.36-9+deb12u14 amd64 13333504 ",
                          "dpkg libexample1 2.36-9+deb12u14 i386 11264000 ",
                          "dpkg waiting 1:4.0~rc1 all - half-configured",
                          "rpm bash 5.1.8-9.el9 x86_64 7738778 ",
                          "rpm dbus 1:1.12.20-8.el9 x86_64 0 ", "rpm big 1-1 noarch 5000000000 "));
  EXPECT_EQ("dpkg rpm", software.managers);
  EXPECT_TRUE(software.complete);
}

TEST(SoftwareCollector, aHostWithoutEitherDatabaseHasNoManager)
{
  TempDir const dir;
  LogCapture const log(1);
  auto const software = collectSoftware(dir.path(), noRpm);
  EXPECT_EQ("", software.managers);
  EXPECT_TRUE(software.packages.empty());
  EXPECT_EQ("", log.text());
}

TEST(SoftwareCollector, aDatabaseThatIsCutShortGivesThePackagesThatAreWhole)
{
  LogCapture const log(1);
  auto const software = collectSoftware(fixture("damaged"), noRpm);
  EXPECT_THAT(packageLines(software),
              ElementsAre("dpkg <odd>&\x1b[31m\xff 1.0\x07 \"amd64\" - ",
                          "dpkg whole 2  " +
                              std::to_string(std::numeric_limits<std::uint64_t>::max()) + " "));
  EXPECT_FALSE(software.complete);
  EXPECT_THAT(log.text(), HasSubstr("the last package of dpkg's database, which is cut short,"));
}

TEST(SoftwareCollector, whatRpmDoesNotTellIsMissed)
{
  LogCapture const log(1);
  auto software = collectSoftware(fixture("server"), [] { return std::optional<std::string>(); });
  EXPECT_EQ(3U, software.packages.size());
  EXPECT_FALSE(software.complete);
  EXPECT_THAT(log.text(), HasSubstr("what rpm installed, which it does not tell,"));
  software = collectSoftware(fixture("server"),
                             [] { return std::optional<std::string>("good\t1\tx\t1\nbad\t1\n"); });
  EXPECT_EQ(4U, software.packages.size());
  EXPECT_FALSE(software.complete);
}

// Most of it is a hole in the file, which costs no space.
TEST(SoftwareCollector, aDatabaseOfAGigabyteIsReadUpToALimitInLittleMemory)
{
  DpkgRoot const root;
  writeText(root.database(), "Package: first\nStatus: install ok installed\nVersion: 1\n\n");
  std::filesystem::resize_file(root.database(), 1ULL << 30U);
  LogCapture const log(1);
  auto const software = root.collect();
  EXPECT_THAT(packageLines(software), ElementsAre("dpkg first 1  - "));
  EXPECT_FALSE(software.complete);
  EXPECT_THAT(log.text(), HasSubstr("what is beyond the first 256 MiB of dpkg's database"));
}

TEST(SoftwareCollector, packagesWithoutEndAreCountedUpToALimit)
{
  DpkgRoot const root;
  std::ofstream file(root.database());
  for (int i = 0; i < 50'100; ++i)
    file << "Package: p" << i << "\nStatus: install ok installed\nVersion: 1\n\n";
  file.close();
  LogCapture const log(1);
  auto const software = root.collect();
  EXPECT_EQ(50'000U, software.packages.size());
  EXPECT_FALSE(software.complete);
  EXPECT_THAT(log.text(), HasSubstr("all packages beyond 50,000"));
}

TEST(SoftwareCollector, aPackageWithATextWithoutEndIsLeftOut)
{
  DpkgRoot const root;
  writeText(root.database(),
            "Package: a\nStatus: install ok installed\nVersion: " + std::string(300'000, '1') +
                "\n\nPackage: b\nStatus: install ok installed\n\n");
  LogCapture const log(1);
  auto const software = root.collect();
  EXPECT_THAT(packageLines(software), ElementsAre("dpkg b   - "));
  EXPECT_FALSE(software.complete);
}

TEST(SoftwareCollector, aPipeInThePlaceOfTheDatabaseHoldsNobodyUp)
{
  DpkgRoot const root;
  ASSERT_EQ(0, mkfifo(root.database().c_str(), 0600));
  EXPECT_TRUE(root.collect().packages.empty());
}

TEST(SoftwareCollector, thisHostHasThePackagesThatItsDatabaseSays)
{
  LogCapture const log(1);
  auto const software = collectSoftware("/");
  EXPECT_EQ(std::filesystem::exists("/var/lib/dpkg/status"), software.managers.starts_with("dpkg"));
  EXPECT_EQ(!software.managers.empty(), !software.packages.empty());
  for (auto const& package : software.packages)
    EXPECT_NE("", package.name);
  EXPECT_EQ(software.complete, log.text().empty()) << log.text();
}
