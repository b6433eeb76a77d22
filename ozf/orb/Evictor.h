// Servants that come and go.
//
// Short-lived servants (iterators) live in a POA whose servant locator is the
// evictor: it keeps object id, servant, time-out, last use and the number of
// calls in progress. Every dispatched call counts as use. A servant is dropped
// when it was idle for its time-out and no call is in progress, when it is
// removed, when the capacity is exceeded (the one idle longest goes first, of the
// peer for whose calls most were made, of those that have an idle one, with a line at
// level 1), and at shut-down.
// A call on an object that was dropped meets OBJECT_NOT_EXIST.
//
// The time-out comes with each servant, from whoever activates it; that of the
// discovery service's iterators is ITERATOR_TIMEOUT.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/orb/Corba.h"

#include <ace/Time_Value.h>

#include <chrono>
#include <functional>
#include <memory>

namespace Quillon::Tessarine::Ozf
{

class Limit;

// What a servant says besides that is worth being dropped early.
class OZF_EXPORT EvictionCost
{
public:
  virtual ~EvictionCost() = default;

  // What it holds, 0 for nothing to speak of. Asked while no call is in
  // progress on the servant, under the evictor's lock.
  virtual std::size_t evictionCost() const noexcept = 0;
};

// All operations may be called from any thread, upcalls included; none waits
// for a call in progress.
class OZF_EXPORT Evictor
{
public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // poa has the policies of a servant locator; capacity is the greatest number
  // of servants kept, 0 for no limit.
  Evictor(PortableServer::POA_ptr poa, std::size_t capacity);

  // The capacity is what the limit says at the time, from now on. The limit has to
  // outlive the Evictor.
  void setLimit(Limit const& limit);

  ~Evictor();
  Evictor(Evictor const&) = delete;
  Evictor& operator=(Evictor const&) = delete;

  // Takes in a servant under a fresh id, adding a reference to it, and returns
  // the id, which is the caller's. Until addObject gives it a time-out it is
  // never idle. Raises TRANSIENT after shutdown, and NO_RESOURCES when the
  // capacity is exhausted by objects none of which is idle.
  CORBA::OctetSeq* activate(PortableServer::Servant servant);

  // Starts the idle time of an activated servant. tag is not used. Raises
  // OBJECT_NOT_EXIST when the id is not known.
  void addObject(ACE_Time_Value const& timeout, PortableServer::POA_ptr poa,
                 CORBA::OctetSeq const& objectId, CORBA::OctetSeq const& tag);

  // Forgets the id (deactivate; nothing happens without it) and drops the
  // evictor's reference to the servant (destroy; without it the reference
  // becomes the caller's); with calls in progress, when the last of them ends.
  // Returns whether the id was known.
  bool removeObject(CORBA::OctetSeq const& objectId, bool deactivate, bool destroy);

  // Drops what has been idle for its time-out. The ORB calls it every second.
  void evictIdle();

  // Drops the one idle longest of those that have a cost; false when there is
  // none.
  bool dropCostlyIdleLongest();

  // Drops everything; activate is refused from now on. Idempotent.
  void shutdown();

  std::size_t size() const;

  // For tests: another clock; empty restores the steady clock.
  void setClock(Clock clock);

private:
  class Locator;
  std::unique_ptr<Locator, void (*)(Locator*)> m_locator;
};

} // namespace Quillon::Tessarine::Ozf
