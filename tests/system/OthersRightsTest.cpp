// What other users of the host may do with the service's files, and what the
// service says of it.

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

unsigned rightsOf(std::string const& path)
{
  return static_cast<unsigned>(fs::status(path).permissions());
}

constexpr char TOLD[] = "Others may change this service: ";

} // namespace

TEST(OthersRightsTest, theDatabaseIsForTheOwnerAndTheGroupAlone)
{
  LiveService service;
  fs::create_directories(service.database());
  fs::permissions(service.database(), fs::perms(0755));
  fs::permissions(service / "etc/tq.conf", fs::perms(0644));
  fs::permissions(service / "etc", fs::perms(0755));
  fs::permissions(service / "db", fs::perms(0755));
  ASSERT_TRUE(service.start()) << service.log();
  {
    client::Client client(service.root(), LiveService::NAME);
    ASSERT_TRUE(client.connected());
    ASSERT_EQ(client.store("subject", "kept", "<x/>"), client::DS_SUCCESS);
  }
  EXPECT_EQ(service.stop(), 0) << service.log();
  EXPECT_EQ(rightsOf(service.database()), 0750u);
  for (char const* const file : {"2 kept subject.xml", "2 kept subject.dat", "Update.lock"})
    EXPECT_EQ(rightsOf(service.database() + "/" + file), 0640u) << file;
  EXPECT_THAT(service.log(),
              HasSubstr("Closed the database directory to others: " + service.database()));
  EXPECT_THAT(service.log(), Not(HasSubstr(TOLD)));
}

TEST(OthersRightsTest, whatOthersMayChangeIsToldAtTheStart)
{
  LiveService service;
  fs::create_directories(service / "db");
  for (auto const& path :
       {service.root(), service / "etc", service / "etc/tq.conf", service / "db"})
    fs::permissions(path, fs::perms(0777));
  ASSERT_TRUE(service.start()) << service.log();
  EXPECT_EQ(service.stop(), 0) << service.log();
  for (auto const& path :
       {service.root(), service / "etc", service / "etc/tq.conf", service / "db"})
    EXPECT_THAT(service.log(),
                HasSubstr(TOLD + path + " may be written to by others than its owner"));
}
