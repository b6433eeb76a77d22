// Hosts that report under one name.

#include "tests/system/fleet/FleetForms.h"

namespace
{

using namespace tqtest;
using testing::HasSubstr;
using testing::Not;

class FleetCloneTest : public FleetTest
{
protected:
  static constexpr char const* FIRST = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa";
  static constexpr char const* SECOND = "bbbbbbbbbbbbbbbbbbbbbbbbbbbbbbbb";

  // Two hosts that report every few seconds, under one name; the master looks as often.
  // What was found holds for long, as it does when an hour lies between two reports.
  void SetUp() override
  {
    FleetTest::SetUp();
    master().addEntries("EXPLORER_INTERVAL.service = 1s\nEXPLORER_EXPIRY.service = 1h\n");
    for (char const* const name : {Fleet::WEB, Fleet::LAST})
      host(name).addEntries(std::string("CLIENT_NAME = ") + Fleet::WEB +
                            "\nEXPLORER_INTERVAL.host = 1s\nEXPLORER_EXPIRY.host = 1h\n");
    ASSERT_TRUE(master().start()) << master().log();
  }

  void launch(std::string const& name, std::string const& machine)
  {
    std::string const file = m_files / machine;
    writeText(file, machine + '\n');
    host(name).launch(
        {{"LD_PRELOAD", TQ_FIXTURE_DIR "/libother_machine.so"}, {"TQ_MACHINE_ID", file}});
  }

  // Until then the passes of all follow one another closely.
  template <class Condition>
  bool soon(Condition const& condition)
  {
    return eventually(
        [&]
        {
          for (char const* const name : {Fleet::MASTER, Fleet::WEB, Fleet::LAST})
            if (host(name).running())
              host(name).jumpAhead(std::chrono::seconds(5));
          return condition();
        },
        LONG);
  }

  std::string timeOf(std::string const& subject, std::string const& authority)
  {
    auto const records =
        nlohmann::json::parse(master()
                                  .tqdiscoctl({"query", "--subject", subject, "--authority",
                                               authority, "--type", "client", "--json"})
                                  .output,
                              nullptr, false);
    return records.is_array() && !records.empty() ? records[0].value("discoveryTime", "") : "";
  }

  // Whether the machine has reported once more from now on, and the master has looked
  // since.
  bool isRenewed(std::string const& machine)
  {
    std::string const authority = "machine." + machine;
    auto const changes = [this](std::string const& subject, std::string const& about)
    {
      std::string const before = timeOf(subject, about);
      return soon([&] { return timeOf(subject, about) != before; });
    };
    return changes(Fleet::WEB, authority) && changes(Fleet::MASTER, "service") &&
           changes(Fleet::MASTER, "service");
  }

  bool isLogged(std::string const& text) { return master().log().find(text) != std::string::npos; }

  TempDir m_files;
};

TEST_P(FleetCloneTest, aHostThatWasInstalledAnewIsToldOnceAndACopyOfOneUntilItIsGone)
{
  std::string const changed = std::string("The machine identifier of ") + Fleet::WEB +
                              " has changed from " + FIRST + " to " + SECOND;
  std::string const clones = std::string("Several hosts report as ") + Fleet::WEB +
                             ", with the machine identifiers " + FIRST + ' ' + SECOND;

  launch(Fleet::WEB, FIRST);
  ASSERT_TRUE(isRenewed(FIRST)) << master().log();
  ASSERT_EQ(host(Fleet::WEB).stop(), 0);

  // Installed anew, while what it said before still holds.
  launch(Fleet::LAST, SECOND);
  ASSERT_TRUE(soon([&] { return isLogged(changed); })) << master().log();
  ASSERT_TRUE(isRenewed(SECOND));
  EXPECT_FALSE(isLogged("Several hosts report")) << master().log();
  EXPECT_EQ(occurrences(master().log(), changed), 1U);
  EXPECT_THAT(master().tqdiscoctl({"status"}).errors, Not(HasSubstr("several hosts report")));

  // The old one is still there.
  launch(Fleet::WEB, FIRST);
  ASSERT_TRUE(soon([&] { return isLogged(clones); })) << master().log();
  EXPECT_TRUE(eventually(
      [&]
      {
        return master()
                   .tqdiscoctl({"status"})
                   .errors.find(
                       std::string("several hosts report under 1 name, and each replaces what the "
                                   "others have found: ") +
                       Fleet::WEB + " has " + FIRST + ' ' + SECOND) != std::string::npos;
      }))
      << master().tqdiscoctl({"status"}).errors;
  auto const status = nlohmann::json::parse(master().tqdiscoctl({"status", "--json"}).output);
  std::size_t told = 0;
  for (auto const& service : status["services"])
    for (auto const& clone : service["clones"])
    {
      EXPECT_EQ(service["subject"], Fleet::MASTER);
      EXPECT_EQ(clone["name"], Fleet::WEB);
      EXPECT_EQ(clone["facts"]["Machines"], std::string(FIRST) + ' ' + SECOND);
      ++told;
    }
  EXPECT_EQ(told, 1U);
  EXPECT_EQ(occurrences(master().log(), clones), 1U);
  EXPECT_EQ(occurrences(master().log(), changed), 1U);
}

INSTANTIATE_TEST_SUITE_P(Fleet, FleetCloneTest, testing::Values(Form::LOOPBACK),
                         [](auto const& form) { return nameOf(form.param); });

} // namespace
