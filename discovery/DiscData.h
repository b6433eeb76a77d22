// The record model: what a discovery is made of.
//
// Records are not locked. A Discovery may be shared between threads through
// its count, but its parts are changed only by the thread that builds or loads
// it.

#pragma once

#include "discovery/Export.h"
#include "ozf/base/CodePage.h"
#include "ozf/base/OzfObjTime.h"
#include "ozf/base/OzfString.h"
#include "ozf/base/Uri.h"
#include "ozf/sync/AutoDereference.h"
#include "ozf/sync/OZFRefCounted.h"
#include "ozf/xml/StatusMsg.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <DiscoveryTypesC.h>

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What the descriptive parts have in common: an optional status message.
class TQ_EXPORT Description : public XmlInterface
{
public:
  // Keeps a reference of its own to status, which may be null.
  explicit Description(StatusMsg const* status = nullptr);
  ~Description() override;

  // Read what stands inside the element of a subject or an authority; the
  // context is a DescriptionContext.
  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;

  // Writes the status message, or nothing when there is none.
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

  StatusMsg const* getStatusMsg() const noexcept { return m_status.get(); }

protected:
  Description(Description const&) = default;

private:
  AutoDereference<StatusMsg const> m_status;
};

// Both encodings of a name, as some record had them.
struct EncodedName
{
  std::string_view shown;
  std::string_view fileKey;
};

// What a discovery is about. The name is kept as shown (URI_SHOWN) and as a
// file key (URI_FILE_KEY); an empty name fails an assertion.
class TQ_EXPORT Subject : public Description
{
public:
  explicit Subject(std::string const& name, StatusMsg const* status = nullptr);
  // Named after the scheme of the URI.
  explicit Subject(Uri const& uri, StatusMsg const* status = nullptr);
  // Takes both encodings as they are.
  explicit Subject(EncodedName const& name);
  Subject(Subject const&) = default;
  Subject& operator=(Subject const&) = default;

  OzfString const& getName() const noexcept { return m_subject; }
  OzfString const& getFileKey() const noexcept { return m_fileKey; }

  // ASCII letters compare without regard to case.
  bool operator==(Subject const& other) const;
  bool operator>(Subject const& other) const;

  // <DiscoverySubject Name="...">status</DiscoverySubject>
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

private:
  OzfString m_subject;
  OzfString m_fileKey;
  CodePage m_codePage;
};

// Who produced a discovery, and of which kind that is. An empty name fails an
// assertion.
class TQ_EXPORT Authority : public Description
{
public:
  Authority(std::string const& name, AuthorityType type, StatusMsg const* status = nullptr);
  // Named after the authority part of the URI.
  Authority(Uri const& uri, AuthorityType type, StatusMsg const* status = nullptr);
  Authority(UriAuthority const& authority, AuthorityType type, StatusMsg const* status = nullptr);
  // Takes both encodings as they are.
  Authority(EncodedName const& name, AuthorityType type);
  Authority(Authority const&) = default;
  Authority& operator=(Authority const&) = default;

  OzfString const& getName() const noexcept { return m_name; }
  OzfString const& getFileKey() const noexcept { return m_fileKey; }
  AuthorityType getType() const noexcept { return m_type; }

  // Same name, without regard to the case of ASCII letters, and same type.
  bool operator==(Authority const& other) const;

  // Greater by name, or else, whatever the names, greater by type. So two
  // authorities can each be greater than the other; the registry's order
  // relies on it.
  bool operator>(Authority const& other) const;

  // <DiscoveryAuthority Name="..." Type="2">status</DiscoveryAuthority>
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

private:
  void setNames(std::string shown, std::string fileKey);

  OzfString m_name;
  OzfString m_fileKey;
  CodePage m_codePage;
  AuthorityType m_type;
};

// How, when and with which weight a collection was made.
class TQ_EXPORT CollectionAttributes : public XmlInterface
{
public:
  // discoveryTime is a point in time, validityInterval an interval; other hosts
  // learn both in whole seconds. The expiry is now + interval + a quarter of
  // it, counted from this moment and not from the discovery time.
  CollectionAttributes(CollectionType type, CollectionStorage storage,
                       OzfObjTime const& discoveryTime, OzfObjTime const& validityInterval,
                       ExplorerPriority priority);
  CollectionAttributes(CollectionAttributes const&) = default;
  CollectionAttributes& operator=(CollectionAttributes const&) = default;

  CollectionType getType() const noexcept { return m_type; }
  CollectionStorage getStorage() const noexcept { return m_storage; }
  OzfObjTime const& getDiscoveryTime() const noexcept { return m_discoveryTime; }
  OzfObjTime const& getValidityInterval() const noexcept { return m_validityInterval; }
  OzfObjTime const& getExpiresTime() const noexcept { return m_expiresTime; }
  OzfString const& getSignature() const noexcept { return m_signature; }
  ExplorerPriority getPriority() const noexcept { return m_priority; }

  void setDiscoveryTime(OzfObjTime const& time) { m_discoveryTime = time; }
  void setExpiresTime(OzfObjTime const& time) { m_expiresTime = time; }
  void setSignature(OzfString const& signature) { m_signature = signature; }
  void setPriority(ExplorerPriority priority) { m_priority = priority; }

  // <DiscoveryAttributes Type="2" Storage="1"><Priority>...
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

private:
  CollectionType m_type;
  CollectionStorage m_storage;
  OzfObjTime m_discoveryTime;
  OzfObjTime m_validityInterval;
  OzfObjTime m_expiresTime;
  OzfString m_signature;
  ExplorerPriority m_priority;
};

// The payload of a discovery. One object is used by one thread at a time. What
// lies on another host, or is to go there, is a call away: the operations then
// block for the request time-out at worst.
class TQ_EXPORT CollectionData
{
public:
  virtual ~CollectionData() = default;

  // Opens it for reading from its beginning, or as a new one for writing. name
  // carries the filter parameters text of a request, or is empty; not null.
  // Non-zero on success; otherwise a log line says why. Opening for reading
  // makes an explorer on demand produce the data.
  virtual int open(OpenMode mode, char const* name) = 0;

  // After open for reading. Reads at most len bytes; the number read, 0 at the
  // end, negative on error.
  virtual long readCollection(unsigned long len, void* buf) const = 0;

  // After open for update. Appends len bytes. Non-zero when all of them were
  // written; otherwise the discovery is not to be persisted.
  virtual long writeCollection(unsigned long len, void const* buf) const = 0;
};

// One record. As an XML document it is the metadata document; reading one
// makes the parts anew. The payload is never part of it.
class TQ_EXPORT Discovery : public XmlDocumentInterface, public virtual OZFRefCounted
{
public:
  // Takes the payload over; it may be null.
  Discovery(CollectionData* data, DiscoveryQuery query);
  ~Discovery() override;

  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override;

  // After open for update and the writing: makes the discovery visible in its
  // store, in the place of the one of the same names. DS_DATA_EXISTS when one
  // of higher priority is there; DS_COM_ERROR when the host of the store does
  // not answer. Readers see nothing of what was not persisted. Blocks as the
  // payload does, and for the disk.
  virtual DiscoveryStatus persist() = 0;

  // Opens the payload, as CollectionData::open: DS_SUCCESS, DS_OPEN_FAILED, or
  // what the store says (DS_DATA_EXISTS for an update that could not be
  // persisted).
  virtual DiscoveryStatus open(OpenMode mode, char const* name) = 0;

  // Each destroys the part held and takes the new one over; null is allowed,
  // the part already held is not.
  virtual void setAuthority(Authority* authority);
  virtual void setSubject(Subject* subject);
  virtual void setAttributes(CollectionAttributes* attributes);
  virtual void setCollectionData(CollectionData* data);

  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

  // Null when the record has no such part; not the caller's.
  Authority* getAuthority() const noexcept { return m_authority; }
  Subject* getSubject() const noexcept { return m_subject; }
  CollectionAttributes* getAttributes() const noexcept { return m_attributes; }
  CollectionData* getCollectionData() const noexcept { return m_collectionData; }
  DiscoveryQuery getQuery() const noexcept { return m_query; }

  // Whether the document that was read last says all that came of it, and said
  // it without a log line: every reading of it is the same.
  bool readsAlike() const noexcept { return m_readsAlike; }

protected:
  // The parts are those that such a document gave.
  void setReadsAlike() noexcept { m_readsAlike = true; }

private:
  Authority* m_authority = nullptr;
  Subject* m_subject = nullptr;
  CollectionAttributes* m_attributes = nullptr;
  CollectionData* m_collectionData;
  DiscoveryQuery m_query;
  bool m_readsAlike = false;
};

// What a list tells of a discovery; all of it is the discovery's, or the
// iterator's.
struct ListedDiscovery
{
  std::string const& subject; // the names, as shown
  std::string const& authority;
  AuthorityType authorityType;
  CollectionAttributes const* attributes; // null when it has none
  Discovery const* discovery;             // null when it was not opened for the list

  static ListedDiscovery of(Discovery const& discovery);
};

// Walks discoveries forward, once. How the filters apply is each iterator's
// own matter. One iterator is used by one thread at a time.
class TQ_EXPORT DiscoveryIterator : public virtual OZFRefCounted
{
public:
  // The next discovery, with one reference for the caller; null at the end.
  // One that cannot be read is passed over with a log line. Reads a file where
  // the discoveries are this host's; calls no other host. Throws std::bad_alloc
  // when memory runs out.
  virtual Discovery* getNext() = 0;

  // Hands what getNext would return next to take, one after the other, until
  // take says no; false when there are no more. For those who only list: a
  // discovery need not be opened for it, and its order may be another. An
  // iterator is read in one of the two ways. take copies what it wants and calls
  // nothing of the database, which may be locked.
  using Taker = std::function<bool(ListedDiscovery const&)>;
  virtual bool list(Taker const& take);

  // Set the filters from names or patterns of names, as URI_FILE_PATTERN. A
  // name that is empty or begins with '*' leaves the name filter as it was; the
  // type is always set.
  virtual void setAuthority(std::string const& name, AuthorityType type);
  virtual void setAuthority(Uri const& uri, AuthorityType type);
  virtual void setAuthority(UriAuthority const& authority, AuthorityType type);
  virtual void setSubject(std::string const& name);
  virtual void setSubject(Uri const& uri);

  ~DiscoveryIterator() override;

  AuthorityType getAuthorityType() const noexcept { return m_authorityType; }
  std::string const& getSubjectFilter() const noexcept { return m_subject; }
  std::string const& getAuthorityFilter() const noexcept { return m_authority; }

  // Whether discoveries that match may have been left out because the system, or
  // another host, failed to hand them out; the log says why. Not for those that
  // are gone, expired or damaged. Settled once getNext has returned null.
  bool isIncomplete() const noexcept { return m_incomplete; }

protected:
  // Keeps the filters as given.
  DiscoveryIterator(AuthorityType type, std::string subject, std::string authority);

  void setIncomplete() noexcept { m_incomplete = true; }

private:
  AuthorityType m_authorityType;
  std::string m_subject;
  std::string m_authority;
  bool m_incomplete = false;
};

// True when the discovery has attributes whose expiry is set and lies strictly
// before now.
TQ_EXPORT bool isExpired(Discovery const* discovery);

// Whether the status is DS_SUCCESS.
TQ_EXPORT bool isSuccess(DiscoveryResult const& result);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
