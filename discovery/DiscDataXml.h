// The metadata document: its priority, which a record that is read has lost, and
// what the readers remember, which is for DiscDataXml.cpp and its tests.

#pragma once

#include "discovery/DiscData.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// What the document says of its priority; nothing when it says none, or, with a
// log line, when it is not well-formed. Throws std::bad_alloc when memory runs
// out: that says nothing of the document.
TQ_EXPORT std::optional<unsigned> storedPriority(std::string& document);

// Where in the document the reader is.
enum class MetadataNode
{
  DOCUMENT,
  AUTHORITY,
  SUBJECT,
  ATTRIBUTES,
  PRIORITY,
  DISCOVERY_TIME,
  EXPIRES_TIME,
  SIGNATURE,
  IGNORED // unknown at its place, or skipped, with everything in it
};

// Of a Description that is being read.
class TQ_EXPORT DescriptionContext final : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  AutoDereference<StatusMsg> m_status; // being read
  std::unique_ptr<XmlObjParseContext> m_subContext;
  int m_ignored = 0; // depth inside an element that is ignored
};

// Of a Discovery that is being read.
class TQ_EXPORT DiscoveryDocContext final : public XmlObjParseContext
{
public:
  using XmlObjParseContext::XmlObjParseContext;

  std::vector<MetadataNode> m_nodes;
  std::optional<DescriptionContext> m_subContext; // of the description being read
  XmlInterface* m_subInterface = nullptr;         // that description; not owned
  bool m_mistaken = false;                        // something cost a log line
  bool m_expiryMissing = false;                   // of the last attributes
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
