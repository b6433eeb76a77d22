// Answers as the service of a master that means no good: lists as many discoveries
// as it is told, a few a page, with a pause before each page. Each discovery has
// a collection that comes a byte a page with the same pause, without end; or one
// of a mebibyte with "items", or with "attributes" as filter data, or with "few"
// of those. With lists, those beyond so many have no end. Says "serving" when it does, and waits to
// be killed.
//
// Usage: hostile_master <product root> <number, 0 for no end> <a page> <milliseconds>
//                       [<collections> [<lists>]]

#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <atomic>
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
unsigned long lists = 0; // 0: all alike
std::string collections;
std::chrono::milliseconds pauseBefore{0};
Orb* servingOrb = nullptr;

template <class Interface, class Servant>
typename Interface::_ptr_type serve(Servant* servant)
{
  PortableServer::ServantBase_var const owner(servant);
  return Interface::_narrow(CORBA::Object_var(servingOrb->activateObject(servant)));
}

// What all iterators have in common.
template <class Skeleton>
class Pages : public Skeleton
{
public:
  CORBA::Long pageSize() override { return 8; }
  void pageSize(CORBA::Long) override {}
  void release() override {}
};

class Names : public Pages<Skeletons::DiscoveryIterator>
{
public:
  explicit Names(unsigned long count) : m_number(count) {}

  Remote::DiscoverySeq* getNextPage() override
  {
    std::this_thread::sleep_for(pauseBefore);
    Remote::DiscoverySeq_var page = new Remote::DiscoverySeq;
    unsigned long const left = m_number == 0 ? inAPage : m_number - m_given;
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
  unsigned long const m_number;
  unsigned long m_given = 0;
};

// Items, or attributes whose names no other collection has.
std::string makeDocument()
{
  static std::atomic<unsigned long> made{0};
  std::size_t const size = collections == "few" ? 1000 : std::size_t(1) << 20;
  std::string const prefix = "a" + std::to_string(made++) + "_";
  std::string const padding(200, 'x');
  bool const items = collections == "items";
  std::string text = items ? "<DiscoveredItems>" : "<FilterData><QueryDescription>";
  for (unsigned long i = 0; text.size() < size; ++i)
    text += (items ? "<DISCOVERED Name=\"" : "<Attribute Name=\"") + prefix + std::to_string(i) +
            padding + "\"/>";
  return text + (items ? "</DiscoveredItems>" : "</QueryDescription></FilterData>");
}

class Bytes : public Pages<Skeletons::CollectionDataIterator>
{
public:
  Remote::CollectionDataSeq* getNextPage() override
  {
    std::this_thread::sleep_for(pauseBefore);
    Remote::CollectionDataSeq_var page = new Remote::CollectionDataSeq;
    page->length(1);
    page[0] = ' ';
    return page._retn();
  }
};

class Document : public Pages<Skeletons::CollectionDataIterator>
{
public:
  Remote::CollectionDataSeq* getNextPage() override
  {
    std::this_thread::sleep_for(pauseBefore);
    Remote::CollectionDataSeq_var page = new Remote::CollectionDataSeq;
    page->length(static_cast<CORBA::ULong>(m_text.size()));
    std::copy(m_text.begin(), m_text.end(), page->get_buffer());
    m_text.clear();
    return page._retn();
  }

private:
  std::string m_text = makeDocument();
};

class Master : public Skeletons::DiscoveryService
{
public:
  Remote::DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery, AuthorityType, char const*,
                                                 char const*) override
  {
    bool const endless = lists != 0 && m_lists++ >= lists;
    return serve<Remote::DiscoveryIterator>(new Names(endless ? 0 : number));
  }
  DiscoveryStatus getCollectionData(Remote::Discovery const&, char const*,
                                    Remote::CollectionDataIterator_out iterator) override
  {
    if (collections.empty())
      iterator = serve<Remote::CollectionDataIterator>(new Bytes);
    else
      iterator = serve<Remote::CollectionDataIterator>(new Document);
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

private:
  std::atomic<unsigned long> m_lists{0};
};

} // namespace

int main(int argc, char** argv)
{
  if (argc < 5)
    return 2;
  setenv("TESSARINE_ROOT", argv[1], 1);
  number = std::strtoul(argv[2], nullptr, 10);
  inAPage = std::strtoul(argv[3], nullptr, 10);
  pauseBefore = std::chrono::milliseconds(std::strtoul(argv[4], nullptr, 10));
  collections = argc > 5 ? argv[5] : "";
  lists = argc > 6 ? std::strtoul(argv[6], nullptr, 10) : 0;

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
