#include "bench/EndlessHost.h"

#include "bench/Bench.h"
#include "bench/Service.h"

#include "tests/support/RemoteService.h"

#include <unistd.h>

#include <atomic>
#include <string>

namespace tqbench
{
namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

constexpr std::size_t RECORDS_OF_PAGE = 8;
constexpr std::size_t BYTES_OF_PAGE = 65536;

template <class Interface, class Servant>
typename Interface::_ptr_type activate(Orb& orb, Servant* servant)
{
  CORBA::Object_var const reference = orb.activateObject(servant);
  return Interface::_narrow(reference);
}

Remote::Discovery recordOf(char const* subject)
{
  Remote::Discovery record;
  record.queryType = DQ_UNDEFINED;
  record.subject = subject;
  record.authority = "volume";
  record.authType = AT_EXTSRC;
  record.attributes = {CT_POINT_IN_TIME, CS_LOCALONLY, 1, 400, 1000};
  record.sourceHost = HOST;
  record.sourceServiceName = EndlessHost::SERVICE;
  return record;
}

// Until it is killed.
void serve(int pipe)
{
  Orb orb(0, "", EndlessHost::SERVICE, 0, 0);
  require(orb.init() && orb.run(0) == 0, "no ORB for the host without end");
  auto* const service = new tqtest::TestService;
  auto* const payload = new tqtest::DataPages;
  payload->pages = {std::string(BYTES_OF_PAGE, 'x')};
  payload->endless = true;
  service->data = activate<Remote::CollectionDataIterator>(orb, payload);
  std::atomic<unsigned> lists{0};
  service->makeRecords = [&]
  {
    auto* const list = new tqtest::RecordPages;
    list->endless = lists++ % 2 == 0;
    list->pages.emplace_back(list->endless ? RECORDS_OF_PAGE : 1, recordOf("endless"));
    list->takePageSize = [](long) {};
    PortableServer::ServantBase_var const holder(list);
    return activate<Remote::DiscoveryIterator>(orb, list);
  };
  CORBA::Object_var const reference = orb.activateObject(service);
  orb.advertiseObject("DiscoveryService", reference);
  require(::write(pipe, "x", 1) == 1, "who is to be harmed has ended");
  ::close(pipe);
  for (;;)
    ::pause();
}

} // namespace

EndlessHost::EndlessHost() : m_process(serve, "the host without end does not serve") {}

} // namespace tqbench
