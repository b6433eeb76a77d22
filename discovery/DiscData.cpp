// Records, their comparison and their expiry. Their XML is in DiscDataXml.cpp.

#include "discovery/DiscData.h"

#include "discovery/DiscoveryLog.h"
#include "ozf/base/AsciiCase.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{
namespace
{

constexpr char SOURCE[] = "DiscData";

// An empty code page name asks for the default narrow converter.
CodePage narrowCodePage() { return findCodePage({}); }

// Filters are file keys, but of names that may be patterns. The records made
// and thrown away assert that there is a name.
std::string filterOf(std::string const& subject)
{
  Subject const named(subject);
  return Uri::percentEncode(subject, URI_FILE_PATTERN);
}

std::string filterOf(UriAuthority const& authority)
{
  Authority const named(authority, AT_ANYANDALL);
  return authority.getUriEncoding(URI_FILE_PATTERN);
}

bool isNameFilter(std::string const& name) { return !name.empty() && name.front() != '*'; }

} // namespace

Description::Description(StatusMsg const* status)
    : m_status(AutoDereference<StatusMsg const>::retain(status))
{
}

Description::~Description() = default;

Subject::Subject(std::string const& name, StatusMsg const* status)
    : Description(status), m_codePage(narrowCodePage())
{
  m_subject = OzfString(Uri::percentEncode(name, URI_SHOWN), m_codePage);
  m_fileKey = OzfString(Uri::percentEncode(name, URI_FILE_KEY), m_codePage);
  OZF_ASSERT(!m_subject.empty(), "m_subject.size()", SOURCE, "Subject::Subject");
}

Subject::Subject(Uri const& uri, StatusMsg const* status)
    : Subject(uri.getScheme().getSchemeName(), status)
{
}

Subject::Subject(EncodedName const& name) : m_codePage(narrowCodePage())
{
  OZF_ASSERT(!name.shown.empty(), "m_subject.size()", SOURCE, "Subject::Subject");
  m_subject = OzfString(std::string(name.shown), m_codePage);
  m_fileKey = OzfString(std::string(name.fileKey), m_codePage);
}

bool Subject::operator==(Subject const& other) const
{
  return equalIgnoringCase(m_subject.str(), other.m_subject.str());
}

bool Subject::operator>(Subject const& other) const
{
  return compareIgnoringCase(m_subject.str(), other.m_subject.str()) > 0;
}

Authority::Authority(std::string const& name, AuthorityType type, StatusMsg const* status)
    : Description(status), m_codePage(narrowCodePage()), m_type(type)
{
  OZF_ASSERT(!name.empty(), "name.size()", SOURCE, "Authority::Authority");
  // What its parts are makes no difference to either encoding of the whole.
  setNames(Uri::percentEncode(name, URI_SHOWN), Uri::percentEncode(name, URI_FILE_KEY));
}

Authority::Authority(Uri const& uri, AuthorityType type, StatusMsg const* status)
    : Authority(uri.getAuthority(), type, status)
{
}

Authority::Authority(UriAuthority const& authority, AuthorityType type, StatusMsg const* status)
    : Description(status), m_codePage(narrowCodePage()), m_type(type)
{
  setNames(authority.getUriEncoding(URI_SHOWN), authority.getUriEncoding(URI_FILE_KEY));
}

Authority::Authority(EncodedName const& name, AuthorityType type)
    : m_codePage(narrowCodePage()), m_type(type)
{
  OZF_ASSERT(!name.shown.empty(), "m_name.size()", SOURCE, "Authority::Authority");
  m_name = OzfString(std::string(name.shown), m_codePage);
  m_fileKey = OzfString(std::string(name.fileKey), m_codePage);
}

void Authority::setNames(std::string shown, std::string fileKey)
{
  m_name = OzfString(std::move(shown), m_codePage);
  m_fileKey = OzfString(std::move(fileKey), m_codePage);
  OZF_ASSERT(!m_name.empty(), "m_name.size()", SOURCE, "Authority::Authority");
}

bool Authority::operator==(Authority const& other) const
{
  return m_type == other.m_type && equalIgnoringCase(m_name.str(), other.m_name.str());
}

bool Authority::operator>(Authority const& other) const
{
  if (compareIgnoringCase(m_name.str(), other.m_name.str()) > 0)
    return true;
  return static_cast<int>(m_type) > static_cast<int>(other.m_type);
}

CollectionAttributes::CollectionAttributes(CollectionType type, CollectionStorage storage,
                                           OzfObjTime const& discoveryTime,
                                           OzfObjTime const& validityInterval,
                                           ExplorerPriority priority)
    : m_type(type),
      m_storage(storage),
      m_discoveryTime(discoveryTime),
      m_validityInterval(validityInterval),
      m_expiresTime(OzfObjTime::now() + validityInterval + validityInterval.quarter()),
      m_priority(priority)
{
}

Discovery::Discovery(CollectionData* data, DiscoveryQuery query)
    : m_collectionData(data), m_query(query)
{
}

Discovery::~Discovery()
{
  delete m_collectionData;
  delete m_attributes;
  delete m_subject;
  delete m_authority;
}

void Discovery::setAuthority(Authority* authority)
{
  delete m_authority;
  m_authority = authority;
}

void Discovery::setSubject(Subject* subject)
{
  delete m_subject;
  m_subject = subject;
}

void Discovery::setAttributes(CollectionAttributes* attributes)
{
  delete m_attributes;
  m_attributes = attributes;
}

void Discovery::setCollectionData(CollectionData* data)
{
  delete m_collectionData;
  m_collectionData = data;
}

DiscoveryIterator::DiscoveryIterator(AuthorityType type, std::string subject, std::string authority)
    : m_authorityType(type), m_subject(std::move(subject)), m_authority(std::move(authority))
{
}

DiscoveryIterator::~DiscoveryIterator() = default;

void DiscoveryIterator::setAuthority(std::string const& name, AuthorityType type)
{
  m_authorityType = type;
  if (!isNameFilter(name))
    return;
  UriAuthority authority;
  authority.setAuthority(name, nullptr, nullptr, -1);
  m_authority = filterOf(authority);
}

void DiscoveryIterator::setAuthority(Uri const& uri, AuthorityType type)
{
  m_authorityType = type;
  m_authority = filterOf(uri.getAuthority());
}

void DiscoveryIterator::setAuthority(UriAuthority const& authority, AuthorityType type)
{
  m_authorityType = type;
  m_authority = filterOf(authority);
}

void DiscoveryIterator::setSubject(std::string const& name)
{
  if (isNameFilter(name))
    m_subject = filterOf(name);
}

void DiscoveryIterator::setSubject(Uri const& uri)
{
  m_subject = filterOf(uri.getScheme().getSchemeName());
}

ListedDiscovery ListedDiscovery::of(Discovery const& discovery)
{
  Authority const& authority = *discovery.getAuthority();
  return {discovery.getSubject()->getName().str(), authority.getName().str(), authority.getType(),
          discovery.getAttributes(), &discovery};
}

bool DiscoveryIterator::list(Taker const& take)
{
  while (AutoDereference<Discovery> const discovery{getNext()})
    if (!take(ListedDiscovery::of(*discovery)))
      return true;
  return false;
}

bool isExpired(Discovery const* discovery)
{
  CollectionAttributes const* const attributes = discovery->getAttributes();
  return attributes != nullptr && !attributes->getExpiresTime().isZero() &&
         attributes->getExpiresTime() < OzfObjTime::now();
}

bool isSuccess(DiscoveryResult const& result) { return result.discStatus == DS_SUCCESS; }

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
