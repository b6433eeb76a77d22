#include "discovery/PullExplorerCache.h"

#include "discovery/DiscDB.h"
#include "discovery/DiscoveryLog.h"
#include "discovery/XMLHelper.h"
#include "ozf/base/AsciiCase.h"
#include "ozf/xml/XmlStr.h"

#include <sstream>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

// Readers of logs know the cache as the repository's.
constexpr char SOURCE[] = "DiscoveryRepository";
constexpr char STORE[] = "DiscoveryRepository::persistToDisk";
constexpr char RESTORE[] = "DiscoveryRepository::loadPullExplorerCache";

// A record is a few hundred bytes; anything near this is not ours.
constexpr std::size_t MAX_RECORD = 1 << 20;

// Names of hosts differ by case in spelling only.
bool isThisHost(OzfHostname const& host)
{
  OzfHostname local;
  return local.setLocal() && equalIgnoringCase(local.exportNarrow(), host.exportNarrow());
}

std::optional<std::string> readPayload(Discovery& record)
{
  CollectionData* const data = record.getCollectionData();
  if (data == nullptr || !data->open(OM_READ, ""))
    return std::nullopt;
  std::string text;
  char buffer[1024];
  long count;
  while ((count = data->readCollection(sizeof buffer, buffer)) > 0)
  {
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > MAX_RECORD)
      return std::nullopt;
  }
  return count == 0 ? std::optional(std::move(text)) : std::nullopt;
}

bool write(Discovery& record, std::string const& text)
{
  if (record.open(OM_UPDATE, "") != DS_SUCCESS)
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, STORE, "Failed to open collection");
    return false;
  }
  if (record.getCollectionData()->writeCollection(text.size(), text.data()) != 0 &&
      record.persist() == DS_SUCCESS)
    return true;
  OZF_LOG(getOzfLogger(), 1, SOURCE, STORE, "Failed to persist discovery record.");
  return false;
}

} // namespace

// ---- the document ----

std::string pullRegistrationText(PullRegistration const& registration)
{
  constexpr auto ENCODING = XmlStr::UTF_8;
  std::ostringstream document;
  auto const element = [&document](char const* name, OzfString const& value)
  {
    XmlStr::appendStart(document, name);
    document << XmlStr(value, ENCODING);
    XmlStr::appendEnd(document, name);
  };
  XmlStr::xmlProlog(document, ENCODING);
  XmlStr::appendStart(document, "DiscoveredItems");
  element("SourceHost", registration.sourceHost);
  element("ServiceName", registration.serviceName);
  element("Priority", std::to_string(registration.priority));
  element("OriginType", std::to_string(static_cast<int>(registration.originType)));
  XmlStr::appendEnd(document, "DiscoveredItems");
  document << '\n';
  return document.str();
}

std::optional<PullRegistration> readPullRegistration(std::string const& text)
{
  std::stringstream xml(text);
  PullRegistration registration;
  if (XMLHelper::parse(xml, registration.serviceName, registration.sourceHost,
                       registration.priority, registration.originType) != 0)
    return std::nullopt;
  return registration;
}

// ---- the records ----

bool storePullRegistration(DiscoveryFactory const& factory, CachedRegistrations& cached,
                           RemoteExplorerPull const& explorer, unsigned priority,
                           std::string const& subject, std::string const& authority)
{
  // A zero interval would make the record expire at once, and be deleted when
  // the cache is read: it stays until a newer registration replaces it.
  CollectionAttributes attributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(),
                                  OzfObjTime(), priority);
  attributes.setExpiresTime(OzfObjTime::max());

  AutoDereference<Discovery> record;
  factory.newDiscovery(record, DQ_UNDEFINED, Subject(subject), Authority(authority, AT_REMOTEPULL),
                       attributes);
  std::size_t most = 0;
  bool const isNew = !getDiscoveryDBDatabase()->isStored(*record);
  if (isNew && !cached.reserve(subject, most))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, STORE,
            "The registration of subject "
                << subject << " and authority " << authority
                << " is not kept for the next start: there are " << most
                << (cached.isFull() ? " already" : " of that subject already"));
    return false;
  }
  bool const written =
      write(*record, pullRegistrationText({explorer.getHost().toString(), explorer.getServiceName(),
                                           priority, explorer.getAuthorityType()}));
  if (!written && isNew)
    cached.giveBack(subject);
  return written;
}

void restorePullRegistrations(DiscoveryIterator& records, CachedRegistrations& cached,
                              RestoreRegistration const& restore)
{
  while (AutoDereference<Discovery> const record{records.getNext()})
  {
    cached.note(record->getSubject()->getName().str());
    auto const text = readPayload(*record);
    auto const registration = text ? readPullRegistration(*text) : std::nullopt;
    if (!registration)
      continue;

    OzfString const& subject = record->getSubject()->getName();
    OzfString const& authority = record->getAuthority()->getName();
    AutoDereference<RemoteExplorerPull> const explorer(
        new RemoteExplorerPull(registration->serviceName, registration->sourceHost, subject,
                               authority, registration->originType));
    // Left from the time when this host was a client: it would take the place
    // of every explorer that this host has just registered for the subject.
    if (isThisHost(explorer->getHost()))
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, RESTORE,
              "Passed over the cached registration of subject "
                  << subject << " and authority " << authority << ": it names this host, "
                  << explorer->getHost().exportNarrow());
      continue;
    }
    restore(*explorer, registration->priority, *record);
  }
  if (records.isIncomplete())
    OZF_LOG(getOzfLogger(), 1, SOURCE, RESTORE,
            "Some cached registrations are missing, they could not be read");
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
