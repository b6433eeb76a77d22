// What hosts do for each other while every list holds no more than it must.

#include "tests/system/fleet/FleetForms.h"

namespace
{

using namespace tqtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class FleetRolesTest : public FleetTest
{
protected:
  bool areApart() const { return GetParam() == Form::NAMESPACES; }

  // On loopback all calls come from one address, which is local to every host.
  std::string lists(std::string const& read, std::string const& write,
                    std::string const& control) const
  {
    auto const line = [this](char const* key, std::string const& entries)
    { return std::string(key) + " = " + (areApart() ? entries : "local") + '\n'; };
    // Nor can it tell who writes.
    return line("ALLOW_READ", read) + line("ALLOW_WRITE", write) + line("ALLOW_CONTROL", control) +
           (areApart() ? "" : "ALLOW_WRITE_AS = local\n");
  }

  void configure()
  {
    std::string writers = "local "; // "push --now" stores a request
    for (char const* const name : {Fleet::MEDIA, Fleet::MAIL, Fleet::WEB, Fleet::LAST})
    {
      writers += host(name).address() + " ";
      host(name).addEntries(lists("none", "none", "none"));
    }
    master().addEntries(lists("local, " + host(Fleet::MEDIA).address(), writers, "local"));
  }

  Outcome show(std::string const& on, std::string const& subject)
  {
    return host(on).tqdiscoctl({"show", subject, "volume", "--json", "--verbose"});
  }
};

TEST_P(FleetRolesTest, hostsDoAllThatTheyDoForEachOtherUnderTheStrictestLists)
{
  if (!m_fleet)
    return;
  configure();
  // All have announced themselves and have reported.
  ASSERT_TRUE(m_fleet->start());

  // The host asks the master back, in whose list it is not.
  Outcome shown = show(Fleet::MEDIA, Fleet::LAST);
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(makersIn(shown), ElementsAre(Fleet::LAST, Fleet::LAST));
  // The master's own command asks the host itself.
  shown = show(Fleet::MASTER, Fleet::MAIL);
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(shown.errors, HasSubstr("asking the service on \"125mail\" itself"));

  Outcome const pushed = master().tqdiscoctl({"push", "--now", "--all"});
  EXPECT_EQ(pushed.exitCode, 0) << pushed.errors;
  for (char const* const name : {Fleet::MEDIA, Fleet::MAIL, Fleet::WEB, Fleet::LAST})
    EXPECT_TRUE(host(name).awaitLog("Obeying the request refresh about all")) << name;
  for (char const* const name : {Fleet::MASTER, Fleet::MEDIA, Fleet::MAIL, Fleet::WEB, Fleet::LAST})
    EXPECT_THAT(host(name).log(), Not(HasSubstr("Refused a call of "))) << name;

  if (!areApart())
    return;
  EXPECT_EQ(host(Fleet::WEB).tqdiscoctl({"query"}).exitCode, 6);
  EXPECT_EQ(host(Fleet::WEB).tqdiscoctl({"stop"}).exitCode, 6);
  EXPECT_EQ(host(Fleet::WEB).tqdiscoctl({"stop", "--host", Fleet::MAIL}).exitCode, 6);
  EXPECT_EQ(master().tqdiscoctl({"stop", "--host", Fleet::MAIL}).exitCode, 6);
  EXPECT_THAT(master().log(), HasSubstr("Refused a call of " + host(Fleet::WEB).address() +
                                        ": queryDiscoveries is for ALLOW_READ = local, "));
}

TQ_FLEET_FORMS(FleetRolesTest);

} // namespace
