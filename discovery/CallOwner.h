// Whose an object is that a call from the network made.

#pragma once

#include "discovery/Export.h"
#include "ozf/orb/Peer.h"

#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Made in the call that makes the object, and keeps whom that call's peer has proven
// to be by its certificate, or its address where it has proven nothing; the connection
// may be another by the next call. Any thread.
//
// A proven owner is known by the names of its certificate, wherever it calls from.
// Where it has proven nothing, all who share an address are one to this service. And
// where both hosts have several addresses, the object's reference may name
// another address of this host than the one that was asked for the object, and
// its owner then comes from another of its own. So a call by way of another
// address of this host, when it is the first of all on the object, makes its
// peer's address one of the owner's, too.
class TQ_EXPORT CallOwner
{
public:
  CallOwner();

  // Returns when the call that this thread serves is the owner's, or one of
  // this process to itself. Raises NO_PERMISSION otherwise, with a line that
  // names peer and operation.
  void require(char const* operation);

private:
  bool accepts(Peer const& peer);

  Peer m_peer;        // without an address: this process
  std::mutex m_mutex; // the two below
  bool m_used = false;
  std::string m_otherAddress; // empty: none
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
