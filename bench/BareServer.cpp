#include "bench/BareServer.h"

#include "bench/BareMaster.h"
#include "bench/Bench.h"

#include "ozf/orb/Orb.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace tqbench
{
namespace
{

using namespace Quillon::Tessarine::Ozf;
namespace Remote = DiscoverySvc::Remote;
namespace Skeletons = POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

constexpr std::size_t DEFAULT_RECORDS = 8;

// What lies ready in items, one page after the other.
template <class Sequence, class Item>
Sequence* pageOf(std::vector<Item>& items, std::size_t& next, std::size_t size)
{
  std::size_t const count = std::min(size, items.size() - next);
  std::size_t const first = std::exchange(next, count == 0 ? 0 : next + count);
  auto const length = static_cast<CORBA::ULong>(count);
  return new Sequence(length, length, items.data() + first, false);
}

class Records : public Skeletons::DiscoveryIterator
{
public:
  explicit Records(std::vector<Remote::Discovery> records) : m_records(std::move(records)) {}

  CORBA::Long pageSize() override { return static_cast<CORBA::Long>(m_pageSize); }
  void pageSize(CORBA::Long size) override { m_pageSize = static_cast<std::size_t>(size); }
  Remote::DiscoverySeq* getNextPage() override
  {
    // A page of the service holds one record more than its page size says.
    return pageOf<Remote::DiscoverySeq>(m_records, m_next, m_pageSize + 1);
  }
  void release() override {}

private:
  std::vector<Remote::Discovery> m_records;
  std::size_t m_pageSize = DEFAULT_RECORDS;
  std::size_t m_next = 0;
};

class Payload : public Skeletons::CollectionDataIterator
{
public:
  explicit Payload(std::string const& payload) : m_bytes(payload.begin(), payload.end()) {}

  CORBA::Long pageSize() override { return static_cast<CORBA::Long>(m_pageSize); }
  void pageSize(CORBA::Long size) override { m_pageSize = static_cast<std::size_t>(size); }
  Remote::CollectionDataSeq* getNextPage() override
  {
    return pageOf<Remote::CollectionDataSeq>(m_bytes, m_next, m_pageSize);
  }
  void release() override {}

private:
  std::vector<CORBA::Octet> m_bytes;
  std::size_t m_pageSize = 8;
  std::size_t m_next = 0;
};

CORBA::Object_ptr advertise(Orb& orb, char const* name, PortableServer::Servant servant)
{
  CORBA::Object_var reference = orb.activateObject(servant);
  orb.advertiseObject(name, reference);
  return reference._retn();
}

// Serves until the other end of the pipe is closed.
void serve(std::vector<Remote::Discovery> const& records, std::string const& payload, int pipe)
{
  Orb orb(0, "", BareServer::SERVICE, 0, 0);
  require(orb.init() && orb.run(0) == 0, "no ORB for the bare server");
  auto* const recordServant = new Records(records);
  auto* const payloadServant = new Payload(payload);
  PortableServer::ServantBase_var const holders[] = {recordServant, payloadServant};
  CORBA::Object_var object = advertise(orb, BareServer::RECORDS, recordServant);
  object = advertise(orb, BareServer::PAYLOAD, payloadServant);
  auto* const masterServant = makeBareMaster(orb, object);
  PortableServer::ServantBase_var const masterHolder(masterServant);
  object = advertise(orb, BareServer::MASTER, masterServant);
  char nothing = 0;
  require(::read(pipe, &nothing, 1) == 0, "the pipe to the reader broke");
  orb.shutdown();
}

} // namespace

BareServer::BareServer(std::vector<Record> const& records, std::string const& payload)
{
  int ends[2];
  require(::pipe2(ends, O_CLOEXEC) == 0, "no pipe");
  m_pid = ::fork();
  require(m_pid >= 0, "no process");
  if (m_pid != 0)
  {
    ::close(ends[0]);
    m_life = ends[1];
    return;
  }
  ::close(ends[1]);
  int status = 0;
  try
  {
    serve(records, payload, ends[0]);
  }
  catch (...)
  {
    status = 1; // the reader finds nobody to answer
  }
  ::_exit(status);
}

BareServer::~BareServer()
{
  ::close(m_life);
  ::waitpid(m_pid, nullptr, 0);
}

} // namespace tqbench
