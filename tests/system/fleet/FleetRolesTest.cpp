// What hosts do for each other while every list holds no more than it must.

#include "tests/system/fleet/FleetForms.h"

namespace
{

using namespace tqtest;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// The lists hold the hosts' addresses, or where hosts have certificates patterns of
// their names. No list says "local", and no host is that to another one.
class FleetRolesTest : public FleetTest
{
protected:
  void configureRoles() override
  {
    std::string writers;
    for (char const* const name : OTHERS)
    {
      writers += entryOf(name) + " ";
      host(name).addEntries("ALLOW_READ = none\nALLOW_WRITE = none\nALLOW_CONTROL = none\n");
    }
    // "push --now" stores a request.
    master().addEntries("ALLOW_READ = " + entryOf(Fleet::MASTER) + ", " + entryOf(Fleet::MEDIA) +
                        "\nALLOW_WRITE = " + entryOf(Fleet::MASTER) + " " + writers +
                        "\nALLOW_CONTROL = " + entryOf(Fleet::MASTER) + "\n");
  }

  // "*media", or the address.
  std::string entryOf(std::string const& name)
  {
    return GetParam() == Form::TLS ? "*" + name.substr(name.find_first_not_of("0123456789"))
                                   : host(name).address();
  }

  // As refusals name the host.
  std::string peerOf(std::string const& name)
  {
    return host(name).address() + (GetParam() == Form::TLS ? " (" + name + ")" : "");
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
  for (char const* const name : OTHERS)
    EXPECT_TRUE(host(name).awaitLog("Obeying the request refresh about all")) << name;
  for (char const* const name : OTHERS)
    EXPECT_THAT(host(name).log(), Not(HasSubstr("Refused a call of "))) << name;
  EXPECT_THAT(master().log(), Not(HasSubstr("Refused a call of ")));

  EXPECT_EQ(host(Fleet::WEB).tqdiscoctl({"query"}).exitCode, 6);
  EXPECT_EQ(host(Fleet::WEB).tqdiscoctl({"stop"}).exitCode, 6);
  EXPECT_EQ(host(Fleet::WEB).tqdiscoctl({"stop", "--host", Fleet::MAIL}).exitCode, 6);
  EXPECT_EQ(master().tqdiscoctl({"stop", "--host", Fleet::MAIL}).exitCode, 6);
  EXPECT_EQ(host(Fleet::MAIL).tqdiscoctl({"stop", "--host", Fleet::MAIL}).exitCode, 6)
      << "not even from there";
  EXPECT_THAT(master().log(),
              AllOf(HasSubstr("Refused a call of " + peerOf(Fleet::WEB) +
                              ": queryDiscoveries is for ALLOW_READ = " + entryOf(Fleet::MASTER)),
                    HasSubstr("Refused a call of " + peerOf(Fleet::WEB) +
                              ": terminate is for ALLOW_CONTROL = " + entryOf(Fleet::MASTER))));
  EXPECT_THAT(host(Fleet::MAIL).log(), HasSubstr("Refused a call of " + peerOf(Fleet::MASTER) +
                                                 ": terminate is for ALLOW_CONTROL = none"));
}

TQ_FLEET_FORMS(FleetRolesTest);

// Of the address that somebody calls from nothing is left: it takes the certificate.
class FleetCertificateRolesTest : public FleetTest
{
protected:
  void configureRoles() override
  {
    for (char const* const name : OTHERS)
      host(name).addEntries("ALLOW_READ = *.auditor.fleet\nALLOW_WRITE = *.relay.fleet\n"
                            "ALLOW_CONTROL = *.operator.fleet\n");
    master().addEntries("ALLOW_READ = *.auditor.fleet, *.operator.fleet\nALLOW_WRITE = *web\n"
                        "ALLOW_WRITE_AS = *.relay.fleet\nALLOW_CONTROL = *.operator.fleet\n");
    for (char const* const role : {"auditor", "relay", "operator", "guest"})
      host(Fleet::WEB).issue(role, std::string("ann.") + role + ".fleet", m_fleet->authority());
  }

  // All of them from one address, that of 95web.
  int exitCodeOf(std::string const& role, Words const& words)
  {
    return host(Fleet::WEB).tqdiscoctlAs(role, words).exitCode;
  }
};

TEST_P(FleetCertificateRolesTest, whatACertificateNamesDecidesWhatItsOwnerMayDo)
{
  ASSERT_TRUE(master().start());
  host(Fleet::WEB).launch();
  // Its own service reports, by the host's certificate.
  ASSERT_TRUE(host(Fleet::WEB).awaitLog("Successfully registered explorers with master", LONG));
  ASSERT_TRUE(eventually(
      [this]
      {
        return exitCodeOf("auditor", {"query", "--subject", Fleet::WEB, "--authority", "service",
                                      "--type", "client"}) == 0;
      },
      LONG));
  // Without a type it would look what is there.
  Words const put{"put", "rack7", "rack", "Row=7", "--type", "external"};
  struct
  {
    char const* role; // empty: the host's own
    int query;
    int write;
    int push;
  } const rows[] = {{"auditor", 0, 6, 6}, {"relay", 6, 0, 6}, {"guest", 6, 6, 6}, {"", 6, 0, 6}};
  for (auto const& row : rows)
  {
    EXPECT_EQ(exitCodeOf(row.role, {"query"}), row.query) << row.role;
    EXPECT_EQ(exitCodeOf(row.role, put), row.write) << row.role;
    EXPECT_EQ(exitCodeOf(row.role, {"push"}), row.push) << row.role;
    EXPECT_EQ(exitCodeOf(row.role, {"stop"}), 6) << row.role;
  }
  EXPECT_EQ(exitCodeOf("operator", {"push"}), 0);
  EXPECT_EQ(exitCodeOf("operator", put), 6);
  EXPECT_THAT(master().log(),
              AllOf(HasSubstr("Refused a call of " + host(Fleet::WEB).address() +
                              " (ann.auditor.fleet): terminate is for ALLOW_CONTROL = "
                              "*.operator.fleet"),
                    HasSubstr("Refused a call of " + host(Fleet::WEB).address() +
                              " (95web): terminate is for ALLOW_CONTROL = *.operator.fleet")));
  EXPECT_EQ(exitCodeOf("operator", {"stop", "--host", Fleet::WEB}), 0);
  EXPECT_TRUE(host(Fleet::WEB).process().wait());
  EXPECT_EQ(exitCodeOf("operator", {"stop"}), 0);
  EXPECT_TRUE(master().process().wait());
}

INSTANTIATE_TEST_SUITE_P(Fleet, FleetCertificateRolesTest, testing::Values(Form::TLS),
                         [](auto const& form) { return nameOf(form.param); });

} // namespace
