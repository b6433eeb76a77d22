// What a collection yields. docs/collection-data.md describes the documents.

#pragma once

#include "discovery/Explorer.h"
#include "ozf/xml/OzfQuery.h"
#include "ozf/xml/StatusMsg.h"
#include "ozf/xml/TquPolicy.h"
#include "ozf/xml/XmlDocumentInterface.h"

#include <iosfwd>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// One item. Not locked; once read it does not change.
class TQ_EXPORT CollectionItem : public virtual OZFRefCounted, public XmlDocumentInterface
{
protected:
  CollectionItem();
  ~CollectionItem() override;
};

// One thing that an explorer found. The results of the accessors are not the
// caller's, except where it says so, and are null when the document has none.
class TQ_EXPORT DiscoveredItem : public virtual CollectionItem
{
public:
  explicit DiscoveredItem(std::string name);

  std::string const& getName() const noexcept { return m_name; }
  StatusMsg const* getStatusMsg() const noexcept { return m_status.get(); }
  TquPolicy const* getPolicy() const noexcept { return m_policy.get(); }

  // With one reference for the caller.
  ExplorerData* getExplorerData() const;

  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;

  // The element is written as Discovered, while readers look for DISCOVERED:
  // what this writes is not read back as an item. Data of a plug-in's own that
  // throws is a log line and leaves failbit set.
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

protected:
  ~DiscoveredItem() override;

private:
  std::string m_name;
  AutoDereference<TquPolicy> m_policy;
  AutoDereference<StatusMsg> m_status;
  AutoDereference<ExplorerData> m_explorerData;
  AutoDereference<ExplorerDataParser> m_parser;
  OzfString m_explorerName; // of the explorer data
};

// What can be asked of one explorer.
class TQ_EXPORT FilterItem : public virtual CollectionItem
{
public:
  // Takes over the caller's reference to query, which is not null.
  explicit FilterItem(OzfQuery* query);

  OzfQuery const& getQuery() const noexcept { return *m_query; }

  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

protected:
  ~FilterItem() override;

private:
  AutoDereference<OzfQuery> m_query;
};

// Start reading an item from the element name: object becomes the new item
// with one reference for the caller. Return the context for its events, which
// the caller owns; null, with object null, when no query description can be
// made of the element.
TQ_EXPORT XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                              XmlObjParseContext const* parent,
                                              DiscoveredItem*& object);
TQ_EXPORT XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                              XmlObjParseContext const* parent,
                                              FilterItem*& object);

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
