// Reading discoveries without knowing where they are kept.
//
// A component of the product brings the research API up once, asks for the
// discoveries of a subject and an authority, and walks through them:
//
//   initDiscoveryResearch();
//   AutoDereference<AuthSubIterator> discoveries =
//     getAuthSubIterator(DQ_DISCOVERY_DATA, "*", "filesystem", AT_ANYANDALL);
//   while (discoveries) // once for each discovery
//   {
//     AutoDereference<CollectionItemIterator> items(
//       discoveries->getNextCollectionItemIterator(nullptr));
//     ...
//   }
//   deinitDiscoveryResearch();
//
// One iterator is used by one thread at a time. Release every iterator before
// deinitDiscoveryResearch: it may hold references to objects of other hosts.
//
// What fails is answered with null or false, never with an exception, and a
// line in the log says why: where lines go is for LoggerFactory to say.
// Programs that are wrong, such as a query without initDiscoveryResearch, meet
// an AssertionFailure. The master is the one that the configuration names
// (SERVER in tq.conf). COLLECTION_PAGE_SIZE and DISCOVERY_PAGE_SIZE should be set
// there, or with overrideConfiguration: without them payloads travel in pages of
// a few bytes, and lists in pages of a few records.

#pragma once

#include "discovery/ResearcherItems.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <xercesc/sax/InputSource.hpp>
#include <xercesc/util/BinInputStream.hpp>

namespace Quillon::Tessarine::Ozf
{
class Orb;
}

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class FilterParameters;

// The ORB that the research API is to use, null at first. A process with an
// ORB of its own sets it before initDiscoveryResearch; it is not owned and must
// outlive deinitDiscoveryResearch. Any thread.
TQ_EXPORT void setOrb(Orb* orb);
TQ_EXPORT Orb* getOrb();

// Makes the process ready to read discoveries; nothing when it is. Without an
// ORB set, an ORB of the API's own is brought up, on threads of its own. Not
// for a process that runs the discovery service: that is ready already, and
// would lose its place as this process's framework. Calls no other host yet. An
// ORB that cannot be started, for whatever reason, is a line in the log, and
// queries then find nothing. Any thread, but not at the same time as
// deinitDiscoveryResearch.
TQ_EXPORT void initDiscoveryResearch();

// Takes down what initDiscoveryResearch brought up, waiting for calls in
// progress; nothing when there is none. initDiscoveryResearch may follow. Call
// it before main ends, when no other thread uses the API, and not in a call
// from the ORB. Without it an ORB of the API's own is left as it is at exit.
// An ORB that the caller set stays up, but its evictor, when it has one, is shut
// down: what was added to it is gone, and nothing more can be added.
TQ_EXPORT void deinitDiscoveryResearch();

using CollectionItems = std::vector<AutoDereference<CollectionItem>>;

// The items of one discovery, in document order. It stays usable whatever the
// iterator that made it does.
class TQ_EXPORT CollectionItemIterator : public virtual OZFRefCounted
{
public:
  // attributes are copied and may be null. parsed: whether the discovery's
  // collection was read to its end.
  CollectionItemIterator(Authority const& authority, Subject const& subject,
                         CollectionAttributes const* attributes,
                         std::shared_ptr<CollectionItems const> items, bool parsed);
  CollectionItemIterator(CollectionItemIterator const& other);

  // The next item, with one reference for the caller; null at the end. An
  // element of the list that is null is returned as null too, although items
  // may follow: a caller that stops at the first null stops early there.
  CollectionItem* getNextCollectionItem();

  Authority const& getAuthority() const noexcept { return m_authority; }
  Subject const& getSubject() const noexcept { return m_subject; }
  // Null when the discovery has none.
  CollectionAttributes const* getAttributes() const noexcept
  {
    return m_attributes ? &*m_attributes : nullptr;
  }
  // False when the items are only those that were read before the mistake.
  bool isParsed() const noexcept { return m_parsed; }

protected:
  ~CollectionItemIterator() override;

private:
  Authority m_authority;
  Subject m_subject;
  std::optional<CollectionAttributes> m_attributes;
  std::shared_ptr<CollectionItems const> m_items;
  bool m_parsed;
  unsigned m_next = 0;
};

// Walks discoveries forward, once, and reads the collection of each.
class TQ_EXPORT AuthSubIterator : public virtual OZFRefCounted, public XmlDocumentInterface
{
public:
  // Takes over the caller's reference to discoveries, which is not null.
  explicit AuthSubIterator(DiscoveryIterator* discoveries);

  // The items of the next discovery, with one reference for the caller; null
  // when there are no more discoveries. A collection that cannot be read, or
  // not to its end, gives an iterator over the items read so far whose
  // isParsed() is false. filter may be null; it is sent along with the request
  // for the collection. Blocks as long as the store, or the host that has the
  // collection, takes.
  CollectionItemIterator* getNextCollectionItemIterator(FilterParameters const* filter);

  // Whether discoveries that match may be missing, because a disk or a host
  // failed or memory ran out; the log says why. Settled once there are no more discoveries.
  bool isIncomplete() const noexcept;

  // For callers that want to know what there is and need no items: from now on
  // collections are read as ever, with the same end and the same lines, but their
  // items are dropped as they are complete, so that a collection of any size takes
  // the memory of one item.
  void dropItems() noexcept { m_keepsItems = false; }

  // A collection may have at most so many items, and an item so many attributes
  // and elements; what else bounds it is in docs/collection-data.md. One that goes
  // beyond ends as one that is not well-formed, with a line that names it.
  static constexpr std::size_t MOST_ITEMS = 1'000'000;
  static constexpr std::size_t MOST_FACTS = 1'000'000;

  // Reads one collection into the list of items of the discovery in hand.
  // False, with log lines, when that fails.
  bool parseDiscovery(CollectionData* data, FilterParameters const* filter);

  XmlObjParseContext* getObjParseContext(XMLCh const* rootTag) override;
  DocumentLimits limits() const override;
  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;

  // Writes nothing.
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

protected:
  ~AuthSubIterator() override;

  // The items read so far of the discovery in hand. A class that overrides
  // xmlEndElement may take them out as they come, so that a large collection
  // is never in memory as a whole.
  CollectionItems& itemsInHand() { return *m_items; }

private:
  Discovery* nextDiscovery();
  bool parseCollection(CollectionData& data);
  void finishItem(AutoDereference<CollectionItem> item);
  std::string name() const; // of the discovery in hand

  AutoDereference<DiscoveryIterator> m_discoveries;
  std::optional<Authority> m_authority;
  std::optional<Subject> m_subject;
  std::optional<CollectionAttributes> m_attributes;
  std::shared_ptr<CollectionItems> m_items;
  bool m_keepsItems = true;
  bool m_brokenOff = false; // the list, for want of memory

  // Of the collection that is read.
  DocumentTally m_tally;
  std::size_t m_itemCount = 0;
};

// The discoveries whose names match the patterns ('*' is the wildcard; an empty
// pattern stands for "*"), of that type unless it is AT_ANYANDALL. Names are
// compared as shown (URI_SHOWN), letter case included; a pattern that begins
// with '*', or one that an explorer on demand answers, may find more than it
// says. The collections are not read yet. Null, with a log line, when nothing
// could be queried; null is not "no discoveries", which is an iterator without
// any. Asserts that this process has a discovery framework. Asks the master,
// page by page, unless this process is its service; each page blocks for the
// request time-out (30 seconds unless Orb::setRequestTimeout says otherwise)
// at worst. Any thread.
TQ_EXPORT AutoDereference<AuthSubIterator> getAuthSubIterator(DiscoveryQuery query,
                                                              std::string const& subject,
                                                              std::string const& authority,
                                                              AuthorityType type);

// A collection, opened for reading, as a source of the XML parser. The
// collection is not owned, and is read once: in the pieces that the parser
// asks for. Making one throws xercesc::OutOfMemoryException when memory runs out.
class TQ_EXPORT DiscoverySetInputSource : public xercesc::InputSource
{
public:
  DiscoverySetInputSource(CollectionData& data, XMLCh const* systemId);

  // The caller's.
  xercesc::BinInputStream* makeStream() const override;

private:
  CollectionData& m_data;
};

class TQ_EXPORT DiscoverySetBinInputStream : public xercesc::BinInputStream
{
public:
  explicit DiscoverySetBinInputStream(CollectionData& data) : m_data(&data) {}

  XMLFilePos curPos() const override { return m_position; }

  // The number of bytes read, 0 at the end. A failed read after the first
  // raises the XML parser's own exception, so that what it cut off is not
  // taken for the end of the data; a failed first read is 0.
  XMLSize_t readBytes(XMLByte* buffer, XMLSize_t maxToRead) override;

  XMLCh const* getContentType() const override { return nullptr; }

private:
  CollectionData* m_data;
  XMLFilePos m_position = 0;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
