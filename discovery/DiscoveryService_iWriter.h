// The servant through which a remote caller writes one discovery.

#pragma once

#include "discovery/CallOwner.h"
#include "discovery/DiscData.h"
#include "discovery/Export.h"
#include "discovery/OpenWriters.h"
#include "ozf/orb/CallAudit.h"
#include "ozf/orb/Corba.h"

#include <DiscoveryServiceC.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
class DiscoveryRepository;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
{

// Lives from putCollection to close, or until OpenWriters lets it go. What is
// written becomes visible only at close; the discovery of a writer that is never
// closed is never stored. Used by one caller at a time, and by no other peer
// than the one that opened it (NO_PERMISSION).
class TQ_EXPORT RemoteWriter_i
    : public POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote::RemoteWriter,
      public OpenWriter
{
public:
  // Copies the record, but for the names of its source: nothing needs them, and
  // they may be as long as a message.
  explicit RemoteWriter_i(Discovery const& record);
  RemoteWriter_i(Discovery const& record, std::uint64_t mostBytes); // 0: no limit

  // Callers from the network whose payload goes on to another host hold a thread
  // for as long as that host takes. One more waits a moment for one of these to
  // come back, and is a failure then.
  static constexpr int MOST_RELAYED = 64;
  static constexpr std::chrono::seconds RELAY_PATIENCE{2};

  // Appends at once; nothing is buffered. The first that fails abandons the
  // discovery, and so does one beyond LIMIT_PAYLOAD; all later ones fail. Raises
  // NO_RESOURCES when the peer has stored enough for the day.
  CORBA::Boolean put(CollectionDataSeq const& data) override;

  // Persists the discovery and ends the writer. After a put that failed the
  // discovery is abandoned instead: DS_OPEN_FAILED.
  DiscoveryResult close() override;

  virtual DiscoveryRepository& getDiscoveryRepository() const;

  // Creates the discovery and opens it for update.
  virtual DiscoveryResult open();

  void abandon() override;
  bool isBusy() override;
  std::string names() const override;

  // The writer's own reference, which close destroys; adds a reference.
  void setReference(CORBA::Object_ptr reference);

private:
  // The ORB may let a call through that arrives while close is still ending.
  void requireNotClosed() const;

  class Call;

  bool append(CollectionDataSeq const& data);
  DiscoveryStatus persist();
  AuditedCall audited(char const* operation) const;
  void audit(std::string_view result);

  CallOwner m_owner;
  Peer const m_opener;    // without an address: this process itself
  std::mutex m_oneCaller; // callers on the network need not keep to it
  CORBA::Object_var m_reference;
  std::uint64_t const m_mostBytes;
  std::uint64_t m_bytes = 0; // written
  bool m_incomplete = false; // a put failed
  bool m_closed = false;
  bool m_audited = false;             // what came of it
  bool m_relayed = false;             // what is written goes to another host
  std::atomic<bool> m_refused{false}; // a call, while another was in progress
  AutoDereference<Quillon::Tessarine::Ozf::DiscoverySvc::Discovery> m_discovery;
  Discovery m_record;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Remote
