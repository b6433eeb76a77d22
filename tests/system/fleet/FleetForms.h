// The forms in which every test of a fleet runs.

#pragma once

#include "tests/support/Fleet.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <iostream>

namespace tqtest
{

enum class Form
{
  LOOPBACK,
  NAMESPACES,
  TLS // on loopback; nobody is called, or answered, without a certificate, and each may do
      // what the names of his certificate stand for
};

// As the names of the tests have it.
inline std::string nameOf(Form form)
{
  switch (form)
  {
  case Form::LOOPBACK:
    return "loopback";
  case Form::NAMESPACES:
    return "namespaces";
  default:
    return "tls";
  }
}
inline void PrintTo(Form form, std::ostream* out) { *out << nameOf(form); }

class FleetTest : public testing::TestWithParam<Form>
{
protected:
  using Words = FleetHost::Words;

  // No fleet where the machine lacks the right to namespaces: the same test on
  // loopback addresses stands in.
  void SetUp() override
  {
    std::string reason;
    auto network = GetParam() == Form::NAMESPACES ? makeNamespaceNetwork(Fleet::HOSTS, reason)
                                                  : makeLoopbackNetwork();
    if (network)
    {
      m_fleet = std::make_unique<Fleet>(std::move(network),
                                        GetParam() == Form::TLS ? Fleet::PROVEN : Fleet::EVERYBODY);
      configureRoles();
    }
    else
      std::cout << "Not run: " << reason << ". The same test on loopback stands in.\n";
  }

  // Every test ends with an orderly stop.
  void TearDown() override
  {
    if (!m_fleet)
      return;
    EXPECT_THAT(m_fleet->stop(), testing::IsEmpty()) << "exit code not 0, or temporary files left";
    if (HasFailure())
      std::cout << m_fleet->logs();
  }

  // With certificates the lists hold patterns of their names alone, and no more of them
  // than the hosts do for each other and the tests ask for: all but 125mail read, all
  // report to the master, and the master's own host restarts everybody's passes.
  virtual void configureRoles()
  {
    if (GetParam() != Form::TLS)
      return;
    std::string const readers = "ALLOW_READ = *master, *media, *web, *last\n";
    for (char const* const name : OTHERS)
      host(name).addEntries(readers + "ALLOW_WRITE = nobody\nALLOW_CONTROL = nobody\n");
    master().addEntries(readers + "ALLOW_WRITE = *master, *media, *mail, *web, *last\n" +
                        "ALLOW_CONTROL = *master\nALLOW_WRITE_AS = nobody\n");
  }

  static constexpr char const* OTHERS[] = {Fleet::MEDIA, Fleet::MAIL, Fleet::WEB, Fleet::LAST};

  FleetHost& host(std::string const& name) { return (*m_fleet)[name]; }
  FleetHost& master() { return m_fleet->master(); }

  // Whether the master knows a discovery of that authority about that subject.
  bool known(std::string const& subject, std::string const& authority)
  {
    return master()
               .tqdiscoctl(
                   {"query", "--subject", subject, "--authority", authority, "--type", "client"})
               .exitCode == 0;
  }

  // Starts a host and waits until the master has heard of it.
  bool startAndAwait(std::string const& name, Process::Environment const& more = {})
  {
    host(name).launch(more);
    return eventually([&] { return known(name, "service"); }, LONG);
  }

  // The fact "Host" of each item in the answer to "show --json": who made it.
  static std::vector<std::string> makersIn(Outcome const& outcome)
  {
    std::vector<std::string> makers;
    auto const collection = nlohmann::json::parse(outcome.output, nullptr, false);
    if (collection.is_object())
      for (auto const& item : collection["items"])
        if (item["facts"].contains("Host"))
          makers.push_back(item["facts"]["Host"]);
    return makers;
  }

  static constexpr std::chrono::seconds LONG{120};

  std::unique_ptr<Fleet> m_fleet;
};

} // namespace tqtest

#define TQ_FLEET_FORMS(suite)                                                                      \
  INSTANTIATE_TEST_SUITE_P(Fleet, suite,                                                           \
                           testing::Values(Form::LOOPBACK, Form::NAMESPACES, Form::TLS),           \
                           [](auto const& form) { return nameOf(form.param); })
