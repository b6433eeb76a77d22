// A service, a client that asks it for things while something fails in it, and the
// judgement of what came of it.

#pragma once

#include "tests/support/LiveService.h"
#include "tests/support/RemoteClient.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace tqtorture
{

// What happens to the service during an operation.
struct Blow
{
  bool kills = false;
  // Nobody can tell whether what was written is there: the disk did not say.
  bool leavesDoubt = false;
  bool leavesFiles = false; // a temporary one may stay until the next start
};

// The service runs from the beginning. Throws std::runtime_error, and
// CORBA::Exception, when what must work without a blow does not.
class ServedOperations
{
public:
  explicit ServedOperations(Process::Environment environment = {});
  ~ServedOperations();
  ServedOperations(ServedOperations const&) = delete;
  ServedOperations& operator=(ServedOperations const&) = delete;

  struct Operation
  {
    char const* name;
    std::string (ServedOperations::*act)();
    char const* done; // its answer when nothing fails
    bool ends = true; // with its answer; or goes on in the service
  };
  static std::vector<Operation> const& all();

  // What there is before each operation.
  void prepare();

  // How it ends: its answer, or "exception NAME".
  std::string perform(Operation const& operation);

  // Without a blow now: whether the answer was true, and everything is whole and
  // can be had. A service that has died is to be started again before.
  void judge(std::string const& name, std::string const& answer, std::string const& done,
             Blow const& blow, std::vector<std::string>& flaws);

  // Whether what was stored last can be had, and why not.
  std::string readAgain();

  void begin();
  // One that does not end when it is told to is killed.
  void end();
  void restart();
  // With what it ended when it was last told to; -1 when it did not end, and 0 when there
  // was nobody to tell.
  int lastEnd() const { return m_lastEnd; }

  tqtest::LiveService& service() { return m_service; }
  std::uint64_t number() const { return m_number; } // of what is stored
  static char const* subject();

private:
  Quillon::Tessarine::Ozf::DiscoverySvc::DiscoveryStatus
  storeNumber(std::string const& subject, std::uint64_t number, std::uint64_t lifetime);
  std::string put();
  std::string putFirst();
  std::string read();
  std::string list();
  std::string registerPull();
  std::string connectAnew();
  std::string refresh();

  std::string firstName() const;
  void judgeFirst(std::string const& answer, std::string const& done, Blow const& blow,
                  std::vector<std::string>& flaws);
  void removeFirst() const;
  void mend();

  Process::Environment const m_environment;
  tqtest::LiveService m_service;
  std::unique_ptr<tqtest::client::Client> m_client;
  std::uint64_t m_number = 0;
  int m_lastEnd = 0;
};

} // namespace tqtorture
