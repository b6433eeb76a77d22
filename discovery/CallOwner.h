// Whose an object is that a call from the network made.

#pragma once

#include "discovery/Export.h"

#include <mutex>
#include <string>

namespace Quillon::Tessarine::Ozf
{
struct Peer;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Made in the call that makes the object, and keeps the address of that call's
// peer; the connection may be another by the next call. Any thread.
//
// Where both hosts have several addresses, the object's reference may name
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

  std::string m_address; // empty: this process
  std::string m_reached;
  std::mutex m_mutex; // the two below
  bool m_used = false;
  std::string m_otherAddress; // empty: none
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
