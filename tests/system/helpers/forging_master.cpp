// Answers as the service of a master whose every text is meant for the terminal of
// whoever asks. Says "serving" when it does, and waits to be killed.
//
// Usage: forging_master <product root>

#include "discovery/Peers.h"
#include "ozf/config/Configuration.h"
#include "ozf/orb/Orb.h"
#include "tests/support/HarmfulText.h"

#include <DiscoveryServiceC.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;
namespace Skeletons = POA_Quillon::Tessarine::Ozf::DiscoverySvc::Remote;

Orb* forgingOrb = nullptr;

template <class Interface, class Servant>
typename Interface::_ptr_type offer(Servant* servant)
{
  PortableServer::ServantBase_var const owner(servant);
  return Interface::_narrow(CORBA::Object_var(forgingOrb->activateObject(servant)));
}

// The authorities: of a service, whose items tell of it and its explorers; of what is
// no XML; and one that has to be escaped.
std::string const AUTHORITIES[] = {"service", "bytes", tqtest::harmfulText()};

std::string documentOf(std::string const& authority, AuthorityType type)
{
  std::string const text = tqtest::harmfulXml();
  if (authority == "bytes")
    return tqtest::harmfulText();
  if (type == AT_EXTSRC)
    return "<FilterData><QueryDescription><Attribute Name=\"" + text + "\" Type=\"size\" Unit=\"" +
           text + "\" Description=\"" + text + "\"/></QueryDescription></FilterData>";
  std::string facts;
  for (char const* const fact : {"Role", "Version", "StartTime", "StoredDiscoveries", "LastResult",
                                 "Type", "LastRun", "CertificateEnd", "Size", "State", "Reason"})
    facts += "<" + std::string(fact) + ">" + text + "</" + fact + ">";
  std::string const times = "<LastTry>2020-01-01T00:00:00Z</LastTry>"
                            "<NextTry>2020-01-01T00:00:00Z</NextTry>";
  std::string items;
  for (std::string const& kind : {std::string("service"), text})
    items += "<DISCOVERED Name=\"" + text + "\"><StatusMsg Code=\"3\" Severity=\"2\">" + text +
             "</StatusMsg><ExplorerData Name=\"" + text + "\"><Kind>" + kind + "</Kind>" + facts +
             times + "</ExplorerData></DISCOVERED>";
  return "<DiscoveredItems>" + items + "</DiscoveredItems>";
}

template <class Skeleton>
class Forgeries : public Skeleton
{
public:
  CORBA::Long pageSize() override { return 8; }
  void pageSize(CORBA::Long) override {}
  void release() override {}

protected:
  bool takeFirst() { return std::exchange(m_first, false); }

private:
  bool m_first = true;
};

class ForgedNames : public Forgeries<Skeletons::DiscoveryIterator>
{
public:
  explicit ForgedNames(AuthorityType type) : m_type(type) {}

  Remote::DiscoverySeq* getNextPage() override
  {
    Remote::DiscoverySeq_var page = new Remote::DiscoverySeq;
    if (!takeFirst())
      return page._retn();
    for (std::string const& authority : AUTHORITIES)
    {
      page->length(page->length() + 1);
      Remote::Discovery& record = page[page->length() - 1];
      record.queryType = DQ_UNDEFINED;
      record.subject = tqtest::harmfulText().c_str();
      record.authority = authority.c_str();
      record.authType = m_type;
      record.attributes = {CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, 1, 3600, 1000};
      // Who is not found gives no document.
      bool const found = authority != tqtest::harmfulText();
      record.sourceHost = found ? "127.0.0.1" : tqtest::harmfulText().c_str();
      record.sourceServiceName = found ? "DiscoveryService" : tqtest::harmfulText().c_str();
    }
    return page._retn();
  }

private:
  AuthorityType const m_type;
};

class ForgedDocument : public Forgeries<Skeletons::CollectionDataIterator>
{
public:
  explicit ForgedDocument(std::string text) : m_text(std::move(text)) {}

  Remote::CollectionDataSeq* getNextPage() override
  {
    Remote::CollectionDataSeq_var page = new Remote::CollectionDataSeq;
    if (!takeFirst())
      return page._retn();
    page->length(static_cast<CORBA::ULong>(m_text.size()));
    std::copy(m_text.begin(), m_text.end(), page->get_buffer());
    return page._retn();
  }

private:
  std::string const m_text;
};

class ForgingMaster : public Skeletons::DiscoveryService
{
public:
  Remote::DiscoveryIterator_ptr queryDiscoveries(DiscoveryQuery kind, AuthorityType type,
                                                 char const*, char const*) override
  {
    return offer<Remote::DiscoveryIterator>(new ForgedNames(type != AT_ANYANDALL ? type
                                                            : kind == DQ_FILTER_DATA
                                                                ? AT_EXTSRC
                                                                : AT_TQUCLIENT));
  }
  DiscoveryStatus getCollectionData(Remote::Discovery const& record, char const*,
                                    Remote::CollectionDataIterator_out iterator) override
  {
    iterator = offer<Remote::CollectionDataIterator>(
        new ForgedDocument(documentOf(record.authority.in(), record.authType)));
    return DS_SUCCESS;
  }
  DiscoveryResult putCollection(Remote::Discovery const&, Remote::RemoteWriter_out writer) override
  {
    writer = Remote::RemoteWriter::_nil();
    return {DS_DATA_EXISTS, 0};
  }
  void registerExplorer(char const*, char const*, char const*, char const*, AuthorityType,
                        CORBA::Short) override
  {
  }
  CORBA::Boolean terminate() override { throw CORBA::NO_PERMISSION(0, CORBA::COMPLETED_NO); }
  void restartLocalPushTimer() override {}
  CORBA::Boolean restartAllPushTimers() override { return false; }
};

} // namespace

int main(int argc, char** argv)
{
  if (argc != 2)
    return 2;
  setenv("TESSARINE_ROOT", argv[1], 1);
  Orb orb(0, "", "DiscoveryService", 1, 0);
  forgingOrb = &orb;
  if (!orb.init() || orb.run(0) != 0)
    return 1;
  PortableServer::ServantBase_var const master(new ForgingMaster);
  CORBA::Object_var const reference = orb.activateObject(master.in());
  orb.advertiseObject("DiscoveryService", reference);
  PortableServer::ServantBase_var const own(new ForgingMaster);
  CORBA::Object_var const ownReference = orb.activateObject(own.in());
  orb.advertiseObject(OWN_COLLECTIONS, ownReference);
  std::puts("serving");
  std::fflush(stdout);
  for (;;)
    pause();
}
