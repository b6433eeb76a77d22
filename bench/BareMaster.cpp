#include "bench/BareMaster.h"

#include "ozf/orb/Orb.h"

namespace tqbench
{
namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
namespace Skeletons = POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

class Writer : public Skeletons::RemoteWriter
{
public:
  CORBA::Boolean put(Remote::CollectionDataSeq const&) override { return true; }
  DiscoveryResult close() override { return {DS_SUCCESS, 0}; }
};

[[noreturn]] void refuse() { throw CORBA::NO_IMPLEMENT(0, CORBA::COMPLETED_NO); }

class Master : public Skeletons::DiscoveryService
{
public:
  Master(Orb& orb, CORBA::Object_ptr payload)
      : m_payload(Remote::CollectionDataIterator::_narrow(payload))
  {
    auto* const servant = new Writer;
    PortableServer::ServantBase_var const holder(servant);
    CORBA::Object_var const object = orb.activateObject(servant);
    m_writer = Remote::RemoteWriter::_narrow(object);
  }

  DiscoveryResult putCollection(Remote::Discovery const&, Remote::RemoteWriter_out writer) override
  {
    writer = Remote::RemoteWriter::_duplicate(m_writer);
    return {DS_SUCCESS, 0};
  }
  Remote::DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery, AuthorityType, char const*,
                                                 char const*) override
  {
    refuse();
  }
  DiscoveryStatus getCollectionData(Remote::Discovery const&, char const*,
                                    Remote::CollectionDataIterator_out iterator) override
  {
    iterator = Remote::CollectionDataIterator::_duplicate(m_payload);
    return DS_SUCCESS;
  }
  void registerExplorer(char const*, char const*, char const*, char const*, AuthorityType,
                        CORBA::Short) override
  {
    refuse();
  }
  CORBA::Boolean terminate() override { refuse(); }
  void restartLocalPushTimer() override { refuse(); }
  CORBA::Boolean restartAllPushTimers() override { refuse(); }

private:
  Remote::RemoteWriter_var m_writer;
  Remote::CollectionDataIterator_var m_payload;
};

} // namespace

PortableServer::ServantBase* makeBareMaster(Orb& orb, CORBA::Object_ptr payload)
{
  return new Master(orb, payload);
}

} // namespace tqbench
