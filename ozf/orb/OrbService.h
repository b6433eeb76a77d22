// The base of services that a service host runs.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/log/Logger.h"
#include "ozf/orb/Orb.h"

#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf
{

// A service goes through its hooks once, on the host's control thread:
// doShouldStart, doInit, doRun, then, after stopByEvent, doStop and doExit.
// The Orb is up and serving before doInit and is shut down after doExit.
class OZF_EXPORT OrbService
{
public:
  // name: under which the service's Orb runs, and its port is looked up.
  // originator: of its log lines. log: another logger, or null. debug: the
  // host runs for debugging (isDebug). exclusive: changes nothing, since a port
  // is never shared. capacity: of the evictor. timerQueue: for the reactor, as
  // Orb::setTimerQueue. Throws std::system_error when no descriptor is left.
  OrbService(std::string const& name, int originator, OzfLogger* log, bool debug,
             std::string const& description, bool exclusive, long capacity,
             ACE_Timer_Queue* timerQueue);
  virtual ~OrbService();
  OrbService(OrbService const&) = delete;
  OrbService& operator=(OrbService const&) = delete;

  // The service of this process; null when there is none.
  static OrbService* Instance() noexcept;

  // What main returns.
  enum Outcome : int
  {
    ORDERLY = 0,      // stopped in order, or doShouldStart said no
    START_FAILED = 1, // the ORB, doInit or doRun
    STOP_FAILED = 3   // doStop, doExit or the end of the ORB
  };

  // Runs the whole life of the service on the calling thread, once. A hook
  // that fails or throws is logged at level 1; after a failed doInit or doRun
  // doStop and doExit are called all the same. ready is called once the
  // service serves (started is then true), and stopping when the stop begins.
  struct Events
  {
    void (*ready)() = nullptr;
    void (*stopping)() = nullptr;
    void (*status)(std::string const& text) = nullptr; // of tellStatus, on its thread
  };
  int main(Events const& events, bool& started);

  // Whether the stop has left threads behind that would not end. They may be anywhere, so
  // the object must not be destroyed and the process has to end without its clean-up.
  bool leavesThreads() const noexcept { return m_leavesThreads; }

  // Asks the service to stop: wakes main. Any thread, upcalls and signal
  // handlers included. immediate is noted and changes nothing here. A second
  // call changes nothing.
  void stopByEvent(bool immediate);

  // Tells the host what the service is waiting for, in a few words; an empty text
  // when for nothing. From doInit on; any thread.
  void tellStatus(std::string const& text) const;

  std::string const& getServiceName() const noexcept { return m_name; }
  std::string const& getDescription() const noexcept { return m_description; }
  bool isDebug() const noexcept { return m_debug; }
  Orb& getOrb() noexcept { return *m_orb; }

protected:
  // Non-zero means failure.
  virtual int doInit();
  virtual int doRun();
  virtual int doStop();
  virtual int doExit();
  virtual bool doShouldStart();

  // In doStop or doExit: the ORB is then not stopped, since that would wait for them.
  void leaveThreads() noexcept { m_leavesThreads = true; }

private:
  bool runHook(char const* hook, int (OrbService::*operation)());
  int shouldStartHook();
  int startOrbHook();
  int stopOrbHook();
  void waitForStop() const;

  std::string const m_name;
  std::string const m_description;
  OzfLogger* const m_logger;
  bool const m_debug;
  bool m_shouldStart = false;
  bool m_leavesThreads = false;
  Events m_events; // of main, set before the hooks run
  std::unique_ptr<Orb> m_orb;
  int m_stopEvent; // an eventfd
};

} // namespace Quillon::Tessarine::Ozf

// What a service library exports under the name "createOrbService": the
// service's object, which the host deletes.
using CreateOrbService = Quillon::Tessarine::Ozf::OrbService* (*)(bool debug);
