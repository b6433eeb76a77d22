// What an explorer plug-in implements. docs/writing-an-explorer.md shows how.

#pragma once

#include "discovery/DiscData.h"
#include "discovery/DiscoveryFactory.h"
#include "ozf/plugin/EngineContext.h"

#include <iosfwd>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Finds facts about a subject. Lives as long as it is registered.
class TQ_EXPORT Explorer : public virtual OZFRefCounted
{
public:
  // Called when the service starts and stops, with the authority and subject
  // of the registration. context is the registration's own object: the
  // explorer may set it, and gets it back in every call. factory outlives the
  // explorer's registration. Default: nothing.
  virtual void startExploration(EngineContext const& ctx, Authority const& authority,
                                Subject const& subject,
                                AutoDereference<OZFRefCounted>& context,
                                DiscoveryFactory* factory);
  virtual void stopExploration(Authority const& authority, Subject const& subject,
                               AutoDereference<OZFRefCounted>& context);

  // The name that its ExplorerData elements carry; constant.
  virtual char const* getExplorerName() const = 0;

  // Wrap what the explorer writes: <ExplorerData Name="..."> with the name
  // escaped for the encoding, and </ExplorerData>. The first returns os.
  std::ostream& appendExplorerDataStartTag(std::ostream& os, XmlStr::Encoding encoding) const;
  void appendExplorerDataEndTag(std::ostream& os) const;

protected:
  ~Explorer() override = default;
};

// Runs on a timer: every polling interval the push timer calls explore on the
// reactor's thread, so an exploration must not block for long.
class TQ_EXPORT ExplorerPush : public virtual Explorer
{
public:
  // One exploration: create discoveries through factory, open, write and
  // persist them, and report the outcome in result.
  virtual void explore(Authority const& authority, Subject const& subject,
                       CollectionAttributes const& attributes,
                       AutoDereference<OZFRefCounted>& context, DiscoveryFactory* factory,
                       DiscoveryResult& result) = 0;

  // The time of the last run, which the push timer sets just before explore,
  // and the whole seconds after it at which the next is due.
  virtual OzfObjTime getLastExplorationTime() = 0;
  virtual void setLastExplorationTime(OzfObjTime const& time) = 0;
  virtual PollingInterval getPollingInterval() = 0;

protected:
  ~ExplorerPush() override = default;
};

// Produces its data when asked.
class TQ_EXPORT ExplorerPull : public virtual Explorer
{
public:
  // Writes the collection into target and returns true, or false when nothing
  // was produced. filterText is the filter parameters text of the request,
  // empty when there is none. Several threads may call at the same time.
  virtual bool collectionRequested(DiscoveryQuery query, Authority const& authority,
                                   Subject const& subject,
                                   AutoDereference<OZFRefCounted>& context,
                                   char const* filterText, CollectionData* target) = 0;

protected:
  ~ExplorerPull() override = default;
};

// What a parser made of one ExplorerData element.
class TQ_EXPORT ExplorerData : public virtual OZFRefCounted
{
public:
  virtual bool isParsed() const;                                                     // true
  virtual std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const; // nothing

protected:
  ~ExplorerData() override = default;
};

// Reads back what one explorer wrote.
class TQ_EXPORT ExplorerDataParser : public virtual OZFRefCounted, public virtual XmlInterface
{
public:
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override = 0;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override = 0;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override = 0;

  // The context, the caller's, for one ExplorerData element of that explorer.
  virtual XmlObjParseContext* getParseContext(OzfString const& explorerName,
                                              XMLCh const* elementName,
                                              XmlObjParseContext const* parent) = 0;

  // The result of a finished context, with one reference for the caller.
  virtual ExplorerData* getExplorerData(XmlObjParseContext* context) = 0;

  // The name of the explorer whose data it reads.
  virtual char const* getExplorerParserName() const = 0;

protected:
  ~ExplorerDataParser() override = default;
};

// The name of the parser for explorers without one of their own.
inline constexpr char const* DFLT_EXPLORER_DATA_PARSER = "DefaultExplorerParser";

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
