// Hosts that are away, or there and do not answer.

#include "tests/system/fleet/FleetForms.h"

#include "discovery/DiscData.h"

#include <atomic>
#include <thread>

namespace
{

using namespace tqtest;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Ne;
using Clock = std::chrono::steady_clock;

class FleetAbsenceTest : public FleetTest
{
protected:
  static std::chrono::seconds since(Clock::time_point start)
  {
    return std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start);
  }

  // The outcomes of a host's writes but for the first ones.
  Words outcomes(std::string const& name, std::size_t from)
  {
    Words notes = host(name).notes("paced");
    notes.erase(notes.begin(), notes.begin() + static_cast<std::ptrdiff_t>(from));
    return notes;
  }

  static constexpr std::chrono::seconds REQUEST_TIMEOUT{30};
  static constexpr std::chrono::seconds HANDSHAKE_TIMEOUT{3};
  // Beyond the time-out, for a machine that is busy.
  static constexpr std::chrono::seconds SLACK{25};
};

TEST_P(FleetAbsenceTest, aRefreshReachesAllButTheClientThatIsAway)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  FleetHost& away = host(Fleet::MAIL); // the first one to be asked
  bool const cut = away.setLink(false);
  if (!cut)
    away.kill();
  Outcome const pushed = master().tqdiscoctl({"push", "--all"});
  EXPECT_EQ(pushed.exitCode, 0) << pushed.errors;
  for (char const* const name : {Fleet::MEDIA, Fleet::WEB, Fleet::LAST})
    EXPECT_TRUE(host(name).awaitLog("triggering push in ", LONG)) << name;
  EXPECT_THAT(master().log(), HasSubstr("Restarting push timers on client: 125mail"));
  EXPECT_THAT(master().log(), HasSubstr("Failed to connect to client discovery service"));
  EXPECT_EQ(occurrences(away.log(), "triggering push in "), 0U);
  if (cut)
    away.setLink(true);
}

// One attempt for each report that is due, and no more, until it is back.
TEST_P(FleetAbsenceTest, clientsGoOnWhenTheMasterIsBack)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  ASSERT_EQ(master().stop(), 0);
  std::size_t const before = host(Fleet::WEB).notes("paced").size();
  // A line of detail, which is written each time.
  std::string const attempt = std::string("connectToRemoteDS: Host: ") + Fleet::MASTER;
  std::size_t const failuresBefore = occurrences(host(Fleet::WEB).log(), attempt);
  auto const start = Clock::now();
  ASSERT_TRUE(eventually([&] { return outcomes(Fleet::WEB, before).size() >= 2; }, LONG));
  Words const failed = outcomes(Fleet::WEB, before);
  EXPECT_THAT(failed, Each(Ne(std::to_string(svc::DS_SUCCESS))));
  std::size_t const failures = occurrences(host(Fleet::WEB).log(), attempt) - failuresBefore;
  // The service's own report is due once a minute.
  auto const minutes = static_cast<std::size_t>(since(start).count()) / 60 + 1;
  EXPECT_GE(failures, failed.size());
  EXPECT_LE(failures, failed.size() + 1 + minutes);

  ASSERT_TRUE(master().start());
  for (char const* const name : {Fleet::MEDIA, Fleet::MAIL, Fleet::WEB, Fleet::LAST})
  {
    std::size_t const now = host(name).notes("paced").size();
    EXPECT_TRUE(eventually(
        [&]
        {
          Words const later = outcomes(name, now);
          return std::count(later.begin(), later.end(), std::to_string(svc::DS_SUCCESS)) > 0;
        },
        LONG))
        << name;
    EXPECT_TRUE(host(name).running());
  }
}

TEST_P(FleetAbsenceTest, aClientThatHangsCostsOneTimeOutAndNobodyElseWaits)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(m_fleet->start());
  host(Fleet::LAST).process().freeze();
  auto const start = Clock::now();
  std::thread asker(
      [this]
      {
        Outcome const shown =
            host(Fleet::MEDIA).tqdiscoctl({"--timeout", "2", "show", Fleet::LAST, "volume"});
        EXPECT_EQ(shown.exitCode, 1) << shown.output;
      });
  // The master's call fails; meanwhile it answers everybody else.
  std::chrono::seconds longest{0};
  bool failed = false;
  while (!failed && since(start) < REQUEST_TIMEOUT + SLACK)
  {
    failed = occurrences(master().log(), "RemotePullExplorer::collectionRequested: ") > 0;
    auto const asked = Clock::now();
    Outcome const shown = host(Fleet::WEB).tqdiscoctl({"show", Fleet::MAIL, "volume", "--json"});
    EXPECT_THAT(makersIn(shown), ElementsAre(Fleet::MAIL, Fleet::MAIL)) << shown.errors;
    longest = std::max(longest, since(asked));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  asker.join();
  EXPECT_TRUE(failed) << "one time-out, no more";
  // Who has to prove himself first has less time for that.
  EXPECT_GE(since(start), (GetParam() == Form::TLS ? HANDSHAKE_TIMEOUT : REQUEST_TIMEOUT) -
                              std::chrono::seconds(1));
  EXPECT_LT(longest, std::chrono::seconds(10));

  host(Fleet::LAST).process().sendSignal(SIGCONT);
  EXPECT_TRUE(eventually(
      [&]
      {
        Outcome const shown =
            host(Fleet::MEDIA).tqdiscoctl({"show", Fleet::LAST, "volume", "--json"});
        return makersIn(shown) == Words{Fleet::LAST, Fleet::LAST};
      },
      LONG));
}

// In one form only: a link that is cut, which the tests of writing have, looks
// the same to a client.
class FleetMasterTest : public FleetAbsenceTest
{
};

TEST_P(FleetMasterTest, aMasterThatHangsCostsAClientOneTimeOut)
{
  if (!m_fleet)
    return;
  ASSERT_TRUE(master().start());
  ASSERT_TRUE(startAndAwait(Fleet::WEB));
  // Every explorer writes in the first pass.
  ASSERT_TRUE(eventually([&] { return host(Fleet::WEB).notes("paced").size() > 1; }, LONG));
  master().process().freeze();
  auto const start = Clock::now();
  // The write that was on its way and the one after it, which is at most a
  // period of the push timer away.
  auto const failed = [this]
  {
    Words const notes = host(Fleet::WEB).notes("paced");
    return !notes.empty() && notes.back() != std::to_string(svc::DS_SUCCESS);
  };
  EXPECT_TRUE(eventually(failed, REQUEST_TIMEOUT + std::chrono::seconds(5) + SLACK));
  EXPECT_GE(since(start), REQUEST_TIMEOUT - std::chrono::seconds(1));
  master().process().sendSignal(SIGCONT);
  EXPECT_TRUE(eventually([&] { return !failed(); }, LONG));
}

TQ_FLEET_FORMS(FleetAbsenceTest);
INSTANTIATE_TEST_SUITE_P(Fleet, FleetMasterTest, testing::Values(Form::LOOPBACK, Form::TLS),
                         [](auto const& form) { return nameOf(form.param); });

} // namespace
