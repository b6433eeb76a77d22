// What an explorer plug-in implements. docs/writing-an-explorer.md shows how.

#pragma once

#include "discovery/DiscData.h"
#include "discovery/DiscoveryFactory.h"
#include "ozf/plugin/EngineContext.h"

#include <iosfwd>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Finds facts about a subject. Lives as long as it is registered. What its
// operations throw is logged with its name and counts as a failure; the service
// and the other explorers go on. The arguments are not the explorer's and are
// valid for the call only, except where it says so.
class TQ_EXPORT Explorer : public virtual OZFRefCounted
{
public:
  // Called once when the service starts, before the first explore of the
  // explorer, and once when it stops, with the authority and subject of the
  // registration. Start and stop of the whole service wait for them. The stop
  // comes after the last explore, but a collection may still be on its way.
  // context is the registration's own object: the explorer may set it, and
  // gets it back in every call. factory outlives the explorer's registration.
  // Default: nothing.
  virtual void startExploration(EngineContext const& ctx, Authority const& authority,
                                Subject const& subject, AutoDereference<OZFRefCounted>& context,
                                DiscoveryFactory* factory);
  virtual void stopExploration(Authority const& authority, Subject const& subject,
                               AutoDereference<OZFRefCounted>& context);

  // The name that its ExplorerData elements carry; constant, and valid as long
  // as the explorer is. Any thread.
  virtual char const* getExplorerName() const = 0;

  // Wrap what the explorer writes: <ExplorerData Name="..."> with the name
  // escaped for the encoding, and </ExplorerData>. The first returns os, with
  // failbit set when there is no such encoding.
  std::ostream& appendExplorerDataStartTag(std::ostream& os, XmlStr::Encoding encoding) const;
  void appendExplorerDataEndTag(std::ostream& os) const;

protected:
  ~Explorer() override = default;
};

// Runs on a timer: every polling interval the push timer calls explore. All its
// calls come one at a time on the reactor's thread, which the other explorers
// and timers share, so an exploration must not block for long. One that takes
// longer than its budget (EXPLORER_BUDGET_SECONDS) keeps that thread, and the
// next calls, which come after it, are another's.
class TQ_EXPORT ExplorerPush : public virtual Explorer
{
public:
  // One exploration: create discoveries through factory, open, write and
  // persist them, and report the outcome in result, which says success
  // beforehand. attributes are fit for what is found: this moment, the polling
  // interval as validity, the priority of the registration. The interval to
  // the next run is the polling interval, whatever result asks for.
  virtual void explore(Authority const& authority, Subject const& subject,
                       CollectionAttributes const& attributes,
                       AutoDereference<OZFRefCounted>& context, DiscoveryFactory* factory,
                       DiscoveryResult& result) = 0;

  // The time of the last run, zero when there was none, which the push timer
  // sets just before explore, and the whole seconds after it at which the next
  // is due.
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
  // Writes the collection into target, which need not be opened (to open it for
  // update does no harm), and returns true, or false when nothing was produced:
  // the reader then fails to open it. query says whether the facts or what can
  // be asked for are wanted; DQ_UNDEFINED, from another host, wants the facts.
  // filterText is the filter parameters text of the request (FilterParameters),
  // empty when there is none, never null. The reader waits, and gives up after
  // the request time-out when it is another host. Several threads may call at
  // the same time.
  virtual bool collectionRequested(DiscoveryQuery query, Authority const& authority,
                                   Subject const& subject, AutoDereference<OZFRefCounted>& context,
                                   char const* filterText, CollectionData* target) = 0;

protected:
  ~ExplorerPull() override = default;
};

// What a parser made of one ExplorerData element. Not locked; once made it does
// not change.
class TQ_EXPORT ExplorerData : public virtual OZFRefCounted
{
public:
  // False when the element could not be understood. Default: true.
  virtual bool isParsed() const;

  // Writes the inside of the element again; returns os. Default: nothing.
  virtual std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const;

protected:
  ~ExplorerData() override = default;
};

// Reads back what one explorer wrote. One parser serves all readers of the
// process, several at a time: what it reads lies in the context, not in the
// parser.
class TQ_EXPORT ExplorerDataParser : public virtual OZFRefCounted, public virtual XmlInterface
{
public:
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override = 0;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override = 0;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override = 0;

  // The context, the caller's, for one ExplorerData element of that explorer;
  // parent outlives it. The element's events follow, and the parser is done
  // when xmlEndElement returns 0, at the element's own end.
  virtual XmlObjParseContext* getParseContext(OzfString const& explorerName,
                                              XMLCh const* elementName,
                                              XmlObjParseContext const* parent) = 0;

  // The result of a finished context, with one reference for the caller.
  virtual ExplorerData* getExplorerData(XmlObjParseContext* context) = 0;

  // The name of the explorer whose data it reads; constant, and valid as long
  // as the parser is.
  virtual char const* getExplorerParserName() const = 0;

protected:
  ~ExplorerDataParser() override = default;
};

// The name of the parser for explorers without one of their own.
inline constexpr char const* DFLT_EXPLORER_DATA_PARSER = "DefaultExplorerParser";

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
