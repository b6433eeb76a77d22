// Collections on demand, asked for on one host and made on another.

#include "tests/system/fleet/FleetForms.h"

namespace
{

using namespace tqtest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char ITSELF[] = "asking the service on ";

class FleetPullTest : public FleetTest
{
protected:
  // Run on the host "on".
  Outcome show(std::string const& on, std::string const& subject, Words const& more = {})
  {
    Words words{"show", subject, "volume", "--json", "--verbose"};
    words.insert(words.end(), more.begin(), more.end());
    return host(on).tqdiscoctl(words);
  }
};

TEST_P(FleetPullTest, theLastHostsVolumesComeThroughTheMaster)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  Outcome const shown = show(Fleet::MEDIA, Fleet::LAST);
  EXPECT_EQ(shown.exitCode, 0) << shown.errors;
  EXPECT_THAT(makersIn(shown), ElementsAre(Fleet::LAST, Fleet::LAST));
  EXPECT_THAT(shown.errors, Not(HasSubstr(ITSELF)));
  // The master opens the collection there twice.
  EXPECT_THAT(host(Fleet::LAST).notes("requests"), ElementsAre("", ""));
}

TEST_P(FleetPullTest, anyOtherHostsVolumesComeFromThatHost)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  for (char const* const on : {Fleet::LAST, Fleet::MASTER})
  {
    Outcome const shown = show(on, Fleet::MAIL);
    EXPECT_EQ(shown.exitCode, 0) << shown.errors;
    EXPECT_THAT(makersIn(shown), ElementsAre(Fleet::MAIL, Fleet::MAIL));
    EXPECT_THAT(shown.errors, HasSubstr(std::string(ITSELF) + "\"125mail\" itself"));
  }
  EXPECT_THAT(master().log(), HasSubstr("Fount too many matching discoveries for subject 125mail"));
  EXPECT_THAT(host(Fleet::MAIL).notes("requests"), ElementsAre("", ""));
}

// Through the master it would not: what that copies is whole.
TEST_P(FleetPullTest, theQueryIsAppliedByTheHostThatHasTheVolumes)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  for (char const* const subject : {Fleet::MAIL, Fleet::LAST})
  {
    Outcome const shown = show(Fleet::MEDIA, subject, {"--where", "size > 1000"});
    EXPECT_EQ(shown.exitCode, 0) << shown.errors;
    EXPECT_THAT(makersIn(shown), ElementsAre(subject));
    EXPECT_THAT(shown.output, HasSubstr("volume2000000"));
    EXPECT_THAT(host(subject).notes("requests"),
                ElementsAre(HasSubstr("<QueryString>size &gt; 1000</QueryString>")));

    Outcome const none = show(Fleet::MEDIA, subject, {"--where", "size > 1T"});
    EXPECT_EQ(none.exitCode, 3) << none.errors;
    EXPECT_THAT(makersIn(none), IsEmpty());
  }
}

// The registrations are kept with the database, so that a master that starts
// anew need not wait for its clients; they do not know that it was away.
TEST_P(FleetPullTest, theMasterKnowsTheVolumesOfAllAfterItsRestart)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  ASSERT_EQ(master().stop(), 0);
  ASSERT_TRUE(master().start());
  for (char const* const subject : {Fleet::LAST, Fleet::MAIL, Fleet::WEB, Fleet::MEDIA})
  {
    Outcome const shown = show(Fleet::WEB, subject);
    EXPECT_EQ(shown.exitCode, 0) << shown.errors;
    EXPECT_THAT(makersIn(shown), ElementsAre(subject, subject)) << shown.output;
    EXPECT_EQ(occurrences(host(subject).log(), "Registering 1 explorers"), 1U);
  }
}

TEST_P(FleetPullTest, aNewerRegistrationReplacesOneOfNoHigherPriority)
{
  if (!m_fleet)
    return;
  auto const registered = [this]
  {
    return master()
        .tqdiscoctl({"show", Fleet::LAST, "volume", "--type", "remotepull", "--raw"})
        .output;
  };
  ASSERT_TRUE(master().start());
  ASSERT_TRUE(startAndAwait(Fleet::LAST));
  EXPECT_THAT(registered(), HasSubstr("<Priority>20</Priority>"));
  // From here on against what was kept.
  ASSERT_EQ(master().stop(), 0);
  ASSERT_TRUE(master().start());

  struct
  {
    char const* priority;
    char const* kept;
  } const steps[] = {{"20", "20"}, {"30", "30"}, {"10", "30"}, {"30", "30"}};
  for (auto const& step : steps)
  {
    ASSERT_EQ(host(Fleet::LAST).stop(), 0);
    host(Fleet::LAST).launch({{"TQ_FIXTURE_PULL_PRIORITY", step.priority}});
    ASSERT_TRUE(host(Fleet::LAST).awaitLog("Successfully registered explorers with master"));
    EXPECT_THAT(registered(), HasSubstr("<Priority>" + std::string(step.kept) + "</Priority>"))
        << "after one of " << step.priority;
  }
  Outcome const shown = show(Fleet::MASTER, Fleet::LAST);
  EXPECT_THAT(makersIn(shown), ElementsAre(Fleet::LAST, Fleet::LAST)) << shown.errors;
}

TQ_FLEET_FORMS(FleetPullTest);

} // namespace
