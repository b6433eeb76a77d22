// The writers that callers have open on this service: how many, whose, and
// which of them have to go.

#pragma once

#include "discovery/Export.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/Corba.h"
#include "ozf/orb/Peer.h"

#include <DiscoveryTypesC.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

// A writer as the registry knows it: a counted servant.
class TQ_EXPORT OpenWriter : public virtual PortableServer::ServantBase
{
public:
  // Lets the discovery go; every later call meets OBJECT_NOT_EXIST. Waits for a
  // call in progress.
  virtual void abandon() = 0;

  // Whether a call is in progress.
  virtual bool isBusy() = 0;

  // Subject and authority, for log lines.
  virtual std::string names() const = 0;
};

// What the audit log says of a discovery that was to be stored: "stored", or "not
// stored: " and the status.
TQ_EXPORT std::string resultText(DiscoveryStatus status);

// A writer holds a temporary file, and only close ends it, which callers owe to
// nobody: after a failed put they need not call it, and they may die. So
//
// - their number is bounded, in all and for each peer (LIMIT_WRITERS,
//   LIMIT_PEER_WRITERS);
// - those of whom a put failed go when there are more than a few, the one that
//   failed first before the others, and when the connection is gone over which
//   they were opened;
// - others go when nothing was put for some minutes. They outlive their
//   connection: callers close it when they have nothing to send for a while.
//
// A writer that goes is deactivated, so that later calls meet OBJECT_NOT_EXIST,
// and lets its discovery go, the temporary file with it.
//
// All operations may be called from any thread; none holds the mutex while it
// lets a writer go.
class TQ_EXPORT OpenWriters
{
public:
  static constexpr std::size_t MOST_FAILED = 16;
  static constexpr std::chrono::minutes MOST_IDLE{10};

  using TimePoint = std::chrono::steady_clock::time_point;
  using Clock = std::function<TimePoint()>;

private:
  struct Entry
  {
    Peer opener; // without an address: this process itself
    OpenWriter* writer = nullptr;
    PortableServer::ServantBase_var keeper;
    CORBA::Object_var reference;
    TimePoint lastPut;
    std::uint64_t failed = 0; // its number among those that failed
  };
  using Entries = std::list<Entry>;

public:
  // A place for a writer that is being opened; free again at its end, unless a
  // writer took it.
  class Place
  {
  public:
    ~Place();
    Place(Place const&) = delete;
    Place& operator=(Place const&) = delete;

    // The writer's reference is active. Adds references to both. False at the end
    // of the service, when nobody would let the writer go any more.
    bool take(OpenWriter& writer, CORBA::Object_ptr reference);

  private:
    friend class OpenWriters;
    Place(OpenWriters& all, Entries::iterator entry) : m_all(all), m_entry(entry) {}

    OpenWriters& m_all;
    Entries::iterator m_entry;
    bool m_taken = false;
  };

  // For a writer of the peer, null for this process. Null, with a line that
  // names the peer, when there are too many.
  std::unique_ptr<Place> reserve(Peer const* peer, AuditedCall const& call);

  // What has become of a put. Nothing for a writer that is not known.
  void notePut(OpenWriter const& writer);
  void noteFailed(OpenWriter const& writer);

  // The writer has ended by itself.
  void remove(OpenWriter const& writer);

  // Lets those go whose time has come. The service calls it every second.
  void dropIdle();

  // Lets all go, at the end of the service, and lets none in until it is opened
  // again.
  void close();
  void open();

  std::size_t size() const;

  // For tests: another clock; empty restores the steady clock.
  void setClock(Clock clock);

private:
  Entries::iterator find(OpenWriter const& writer);
  // Moves the entry to where it can be dropped without the mutex.
  Entries::iterator take(Entries::iterator entry, Entries& taken);
  static void drop(Entries& entries);

  mutable std::mutex m_mutex;
  Clock m_clock = &std::chrono::steady_clock::now;
  Entries m_entries;
  bool m_closed = false;
  std::uint64_t m_failures = 0;
};

// The process's one registry, made on first use.
TQ_EXPORT OpenWriters& getOpenWriters();

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
