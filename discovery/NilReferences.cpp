// The stubs make the nil reference of an interface when it is first asked for, and look
// whether it is there without a lock. So that no two threads do, each is asked for here,
// when the library is loaded.

#include <DiscoveryServiceC.h>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

[[maybe_unused]] bool const NILS_ARE_MADE = []
{
  Remote::DiscoveryIterator::_nil();
  Remote::CollectionDataIterator::_nil();
  Remote::RemoteWriter::_nil();
  Remote::DiscoveryService::_nil();
  return true;
}();

} // namespace

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
