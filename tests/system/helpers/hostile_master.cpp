// Answers as the service of a master that means no good: lists as many discoveries
// as it is told, a few a page, with a pause before each page. Each discovery has
// a collection that comes a byte a page with the same pause, without end; or one
// of about a mebibyte:
//
//   items       small items with long names
//   statuses    an item with a status of a long text
//   paths       an item whose elements have long names and lie in one another
//   attributes  filter data
//   few         filter data, of a kilobyte
//   described   an item with one fact; each discovery is by another authority, and
//               has filter data besides
//   announced   an item with one fact; every other discovery is a note of which host
//               has an explorer
//
// With lists, those beyond so many have no end. Says "serving" when it does, and
// waits to be killed.
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

bool isDescribed() { return collections == "described"; }

class Names : public Pages<Skeletons::DiscoveryIterator>
{
public:
  Names(unsigned long count, AuthorityType type) : m_number(count), m_type(type) {}

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
      std::string const which = std::to_string(m_given++);
      record.subject = ("host" + which).c_str();
      record.authority = ("service" + (isDescribed() ? which : "")).c_str();
      record.authType = collections == "announced" && m_given % 2 == 0 ? AT_REMOTEPULL : m_type;
      record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 1, 3600, 1000};
      record.sourceHost = "127.0.0.1";
      record.sourceServiceName = "DiscoveryService";
    }
    return page._retn();
  }

private:
  unsigned long const m_number;
  AuthorityType const m_type;
  unsigned long m_given = 0;
};

// Of the items themselves, or of what tells of them.
std::string makeItems(std::size_t size, std::string const& prefix)
{
  constexpr char BEGIN[] = "<DISCOVERED Name=\"a\">";
  constexpr char FACTS[] = "<ExplorerData Name=\"x\">";
  constexpr char END[] = "</ExplorerData></DISCOVERED>";
  std::string text;
  if (collections == "described" || collections == "announced")
    text = BEGIN + std::string(FACTS) + "<Colour>red</Colour>" + END;
  else if (collections == "statuses")
    text = BEGIN + ("<StatusMsg><Code>3</Code><Text>" + std::string(size, 't')) +
           "</Text></StatusMsg>" + FACTS + END;
  else if (collections == "paths")
  {
    std::string const name(20'000, 'n');
    std::string inside;
    for (int i = 0; i < 3000; ++i)
      inside += "<a/>";
    for (int i = 0; i < 10; ++i)
      inside = '<' + name + '>' + inside + "</" + name + '>';
    text = BEGIN + (FACTS + inside) + END;
  }
  else
    for (unsigned long i = 0; text.size() < size; ++i)
      text += "<DISCOVERED Name=\"" + prefix + std::to_string(i) + std::string(200, 'x') + "\"/>";
  return "<DiscoveredItems>" + text + "</DiscoveredItems>";
}

// Attributes whose names no other collection has; where discoveries are described,
// one of many words.
std::string makeAttributes(std::size_t size, std::string const& prefix)
{
  std::string const words(isDescribed() ? size : 0, 'w');
  std::string text;
  for (unsigned long i = 0; text.size() < size; ++i)
    text += "<Attribute Name=\"" + prefix + std::to_string(i) + std::string(200, 'x') +
            "\" Description=\"" + words + "\"/>";
  return "<FilterData><QueryDescription>" + text + "</QueryDescription></FilterData>";
}

std::string makeDocument(AuthorityType type)
{
  static std::atomic<unsigned long> made{0};
  std::size_t const size = collections == "few" ? 1000 : std::size_t(1) << 20;
  std::string const prefix = "a" + std::to_string(made++) + "_";
  bool const attributes = collections == "attributes" || collections == "few" || type == AT_EXTSRC;
  return attributes ? makeAttributes(size, prefix) : makeItems(size, prefix);
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
  explicit Document(AuthorityType type) : m_text(makeDocument(type)) {}

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
  std::string m_text;
};

class Master : public Skeletons::DiscoveryService
{
public:
  Remote::DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery kind, AuthorityType, char const*,
                                                 char const*) override
  {
    bool const endless = lists != 0 && m_lists++ >= lists;
    return serve<Remote::DiscoveryIterator>(new Names(
        endless ? 0 : number, isDescribed() && kind == DQ_FILTER_DATA ? AT_EXTSRC : AT_TQUCLIENT));
  }
  DiscoveryStatus getCollectionData(Remote::Discovery const& record, char const*,
                                    Remote::CollectionDataIterator_out iterator) override
  {
    if (collections.empty())
      iterator = serve<Remote::CollectionDataIterator>(new Bytes);
    else
      iterator = serve<Remote::CollectionDataIterator>(new Document(record.authType));
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
