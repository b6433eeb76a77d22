// The product's view of an ORB.
//
// The process has one CORBA ORB; the Orb objects share it by count: the first
// init brings it up with every option the product relies on, the last shutdown
// takes it down, and a later init brings up another. Each Orb has POAs, a
// reactor with one thread, and a name of its own.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfHostname.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/Evictor.h"
#include "ozf/orb/OrbCore.h"

#include <ace/Time_Value.h>
#include <ace/Timer_Queuefwd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

class ACE_Reactor;

namespace Quillon::Tessarine::Ozf
{

class OZF_EXPORT Orb
{
public:
  // argumentCount and arguments are options for the ORB as one string, none
  // when it is empty. withEvictor gives the Orb an evictor of that capacity.
  // A name that is the name of a service (ORB_PORT.<name> or the services
  // database knows it, or "DiscoveryService") listens on the service's port at
  // the addresses of ORB_BIND, all addresses when there are none; others listen
  // on a port that the system picks, at the addresses of ORB_BIND or else at
  // 127.0.0.1. The first Orb of the process decides for all. Nothing happens
  // before init.
  Orb(int argumentCount, char const* arguments, std::string const& name, int withEvictor,
      long capacity);

  // Shuts down.
  ~Orb();
  Orb(Orb const&) = delete;
  Orb& operator=(Orb const&) = delete;

  // The queue for the reactor's timers, not owned; null (as without a call) for
  // one on a monotonic clock whose handlers are guarded as getReactor says.
  // Before init.
  void setTimerQueue(ACE_Timer_Queue* timerQueue) noexcept;

  // Brings the ORB up: transport options, POAs, reactor. Reads the product's
  // configuration. False, with a line at level 1 that says what and where (a
  // port in use, an address of ORB_BIND that is not there; the process's ORB up
  // without the port), when it cannot.
  bool init();

  // Starts serving and runs the reactor: with wait zero on threads of its own,
  // returning at once; otherwise until shutdown. Returns 0, or -1 before init.
  int run(int wait);

  // Stops the reactor and joins its thread, destroys the POAs (calls in
  // progress are waited for) and gives the CORBA ORB up. Not in an upcall or
  // on the reactor's thread. Idempotent.
  void shutdown();

  std::string const& name() const noexcept;

  // The port on which the process listens; 0 before init, and when the system
  // picked one.
  unsigned short port() const noexcept;

  // The reactor of this Orb (the "ORB's reactor"); its timers run on a
  // monotonic clock, and handle_timeout is told the time of OzfObjTime::now.
  // What a handler throws is logged at level 1 and stays without effect. Null
  // before init.
  ACE_Reactor* getReactor() const noexcept;
  OrbCore* getOrbCore() noexcept; // null while the Orb is down

  // For handlers on that reactor which may be held up. Each does nothing, and isReactorTurning
  // says yes, while the Orb is down.
  //
  // Lets another thread run the reactor beside the one that does and is held up, which
  // leaves it when its handler returns. False, with a line, when there can be none. Not on
  // the reactor's thread. A shutdown of the Orb waits for both.
  bool relieveReactor();
  // The handler that runs now may take that long. On the reactor's thread.
  void allowReactor(std::chrono::milliseconds time);
  // Whether the reactor comes round within the time, or may take longer just now. Blocks
  // for that time at most.
  bool isReactorTurning(std::chrono::milliseconds time);

  // Whole calls, sending and waiting for the answer. Connecting takes no longer
  // than that, and never longer than 10 seconds. Holds for the process; 30
  // seconds at first. While others call, whole seconds: the ORB has their fraction apart.
  void setRequestTimeout(ACE_Time_Value const& timeout);

  // "RootPOA" answers this Orb's own root, under which its POAs live: taking
  // it down leaves the other Orbs of the process alone. Raises what the ORB
  // raises.
  CORBA::Object_ptr resolveInitialReference(char const* identifier);

  // All operations from here on raise BAD_INV_ORDER before init and after
  // shutdown, except destroyObjectRef, which then does nothing. A call that
  // ends with a failed assertion or another C++ exception is answered with
  // INTERNAL (NO_MEMORY when memory ran out), and the service goes on.

  // Activates a servant that stays until destroyObjectRef: the POA takes a
  // reference. Its id cannot be guessed. The caller owns the result.
  CORBA::Object_ptr activateObject(PortableServer::Servant servant);

  // Activates a servant with the evictor; repositoryId is its most derived
  // interface. objectId receives the id for addObject and removeObject.
  CORBA::Object_ptr activateEvictable(PortableServer::Servant servant, char const* repositoryId,
                                      CORBA::OctetSeq_out objectId);

  // Makes an object of activateObject reachable as corbaloc::host:port/name
  // also. The last one to take a name has it.
  void advertiseObject(char const* name, CORBA::Object_ptr object);

  // Takes an object of activateObject out again, and what it was advertised
  // under. poa null: wherever it is. A reference that is not ours, or no
  // longer active, is left alone. May be called in an upcall of the object.
  void destroyObjectRef(CORBA::Object_ptr object, PortableServer::POA_ptr poa = nullptr);

  // The reference of the object called name that the service publishes on the
  // host. Nil when the service's port is not known; BAD_PARAM when the host's
  // name cannot be one. No call is made before the reference is used. A timeout
  // other than zero becomes the request time-out of calls on this reference;
  // one narrowed from it has the process's again, and the first call, which
  // connects, may take the time that connecting may take. Raises what the ORB
  // raises.
  CORBA::Object_ptr resolveObject(OzfHostname const& host, char const* service, char const* name,
                                  ACE_Time_Value const& timeout);

  // What is called about every second while the Orb runs with an evictor, on the
  // thread that drops idle objects: it must be brief. What it throws is logged.
  // Replaces the one before; an empty one takes it away. Waits for a call of it
  // that is in progress, so not within one.
  void setIdleTask(std::function<void()> task);

  bool isEvictorEnabled() const noexcept;
  Evictor& getEvictor();                    // only when enabled and after init
  PortableServer::POA_ptr getEvictingPOA(); // not the caller's

private:
  struct State;
  std::unique_ptr<State> m_state;
};

} // namespace Quillon::Tessarine::Ozf
