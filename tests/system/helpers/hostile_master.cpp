// Answers as the service of a master that means no good: lists as many discoveries
// as it is told, a few a page, with a pause before each page. Each discovery has
// a collection that comes a byte a page with the same pause, without end. Says
// "serving" when it does, and waits to be killed.
//
// Usage: hostile_master <product root> <number, 0 for no end> <a page> <milliseconds>

#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
namespace Skeletons = POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

unsigned long number = 0;
unsigned long inAPage = 0;
std::chrono::milliseconds pauseBefore{0};
Orb* servingOrb = nullptr;

template <class Interface, class Servant>
typename Interface::_ptr_type serve(Servant* servant)
{
  PortableServer::ServantBase_var const owner(servant);
  return Interface::_narrow(CORBA::Object_var(servingOrb->activateObject(servant)));
}

class Names : public Skeletons::DiscoveryIterator
{
public:
  CORBA::Long pageSize() override { return 8; }
  void pageSize(CORBA::Long) override {}
  void release() override {}

  Remote::DiscoverySeq* getNextPage() override
  {
    std::this_thread::sleep_for(pauseBefore);
    Remote::DiscoverySeq_var page = new Remote::DiscoverySeq;
    unsigned long const left = number == 0 ? inAPage : number - m_given;
    page->length(static_cast<CORBA::ULong>(std::min(left, inAPage)));
    for (CORBA::ULong i = 0; i < page->length(); ++i)
    {
      Remote::Discovery& record = page[i];
      record.queryType = DQ_UNDEFINED;
      record.subject = ("host" + std::to_string(m_given++)).c_str();
      record.authority = "service";
      record.authType = AT_TQUCLIENT;
      record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 1, 3600, 1000};
      record.sourceHost = "127.0.0.1";
      record.sourceServiceName = "DiscoveryService";
    }
    return page._retn();
  }

private:
  unsigned long m_given = 0;
};

class Bytes : public Skeletons::CollectionDataIterator
{
public:
  CORBA::Long pageSize() override { return 8; }
  void pageSize(CORBA::Long) override {}
  void release() override {}

  Remote::CollectionDataSeq* getNextPage() override
  {
    std::this_thread::sleep_for(pauseBefore);
    Remote::CollectionDataSeq_var page = new Remote::CollectionDataSeq;
    page->length(1);
    page[0] = ' ';
    return page._retn();
  }
};

class Master : public Skeletons::DiscoveryService
{
public:
  Remote::DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery, AuthorityType, char const*,
                                                 char const*) override
  {
    return serve<Remote::DiscoveryIterator>(new Names);
  }
  DiscoveryStatus getCollectionData(Remote::Discovery const&, char const*,
                                    Remote::CollectionDataIterator_out iterator) override
  {
    iterator = serve<Remote::CollectionDataIterator>(new Bytes);
    return DS_SUCCESS;
  }
  DiscoveryResult putCollection(Remote::Discovery const&, Remote::RemoteWriter_out writer) override
  {
    writer = Remote::RemoteWriter::_nil();
    return {DS_OPEN_FAILED, 0};
  }
  void registerExplorer(char const*, char const*, char const*, char const*, AuthorityType,
                        CORBA::Short) override
  {
  }
  CORBA::Boolean terminate() override { return false; }
  void restartLocalPushTimer() override {}
  CORBA::Boolean restartAllPushTimers() override { return false; }
};

} // namespace

int main(int argc, char** argv)
{
  if (argc != 5)
    return 2;
  setenv("TESSARINE_ROOT", argv[1], 1);
  number = std::strtoul(argv[2], nullptr, 10);
  inAPage = std::strtoul(argv[3], nullptr, 10);
  pauseBefore = std::chrono::milliseconds(std::strtoul(argv[4], nullptr, 10));

  Orb orb(0, "", "DiscoveryService", 1, 0);
  servingOrb = &orb;
  if (!orb.init() || orb.run(0) != 0)
    return 1;
  PortableServer::ServantBase_var const master(new Master);
  CORBA::Object_var const reference = orb.activateObject(master.in());
  orb.advertiseObject("DiscoveryService", reference);
  std::puts("serving");
  std::fflush(stdout);
  for (;;)
    pause();
}
