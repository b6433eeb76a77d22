#include "tools/Collections.h"

#include "discovery/FilterDataName.h"
#include "discovery/FilterDescription.h"
#include "discovery/FilterParameters.h"
#include "discovery/Researcher.h"
#include "ozf/base/AsciiCase.h"
#include "tools/ExitCodes.h"
#include "tools/Format.h"
#include "tools/Output.h"

#include <memory>
#include <sstream>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

// Gives one discovery to the research API.
class OneDiscovery : public virtual DiscoveryIterator
{
public:
  explicit OneDiscovery(AutoDereference<Discovery> const& discovery)
      : DiscoveryIterator(AT_ANYANDALL, "*", "*"), m_discovery(discovery)
  {
  }
  Discovery* getNext() override { return m_discovery.release(); }

private:
  AutoDereference<Discovery> m_discovery;
};

// Bytes that are in memory already.
class FetchedData : public CollectionData
{
public:
  explicit FetchedData(std::string_view left) : m_left(left) {}
  int open(OpenMode mode, char const*) override { return mode == OM_READ ? 1 : 0; }
  long readCollection(unsigned long length, void* buffer) const override
  {
    std::size_t const count = m_left.copy(static_cast<char*>(buffer), length);
    m_left.remove_prefix(count);
    return static_cast<long>(count);
  }
  long writeCollection(unsigned long, void const*) const override { return 0; }

private:
  mutable std::string_view m_left;
};

class FetchedDiscovery : public Discovery
{
public:
  FetchedDiscovery(Record const& record, std::string_view bytes)
      : Discovery(new FetchedData(bytes), record.queryType)
  {
    setAuthority(new Authority(record.authority, record.type));
    setSubject(new Subject(record.subject));
  }
  DiscoveryStatus persist() override { return DS_LOGIC_ERROR; }
  DiscoveryStatus open(OpenMode mode, char const* filter) override
  {
    return getCollectionData()->open(mode, filter) != 0 ? DS_SUCCESS : DS_OPEN_FAILED;
  }
};

Item makeItem(DiscoveredItem const& discovered)
{
  Item item;
  item.name = discovered.getName();
  if (StatusMsg const* const status = discovered.getStatusMsg())
    item.status = {status->code(), status->severity(), status->text().str()};
  if (TquPolicy const* const policy = discovered.getPolicy())
    item.policy = policy->name().str();
  readItemFacts(discovered, item.facts, item.text);
  return item;
}

// Passes each item on as soon as it was read.
class ItemStream : public AuthSubIterator
{
public:
  using Take = std::function<void(CollectionItem const&)>;

  ItemStream(AutoDereference<Discovery> const& discovery, Take take)
      : AuthSubIterator(new OneDiscovery(discovery)), m_take(std::move(take))
  {
  }

  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override
  {
    int const result = AuthSubIterator::xmlEndElement(context, name);
    for (auto const& item : itemsInHand())
      if (item)
        m_take(*item);
    itemsInHand().clear();
    return result;
  }

private:
  Take const m_take;
};

// A collection without its items, which go to take.
Collection readThrough(AutoDereference<Discovery> const& discovery, std::string const& query,
                       ItemSink const& take)
{
  Collection collection;
  FilterParameters const parameters(nullptr, query.c_str());
  OzfQuery description;
  std::size_t described = 0;
  bool all = true;
  AutoDereference<AuthSubIterator> const discoveries(new ItemStream(
      discovery,
      [&](CollectionItem const& item)
      {
        if (auto const* const discovered = dynamic_cast<DiscoveredItem const*>(&item))
          take(makeItem(*discovered));
        else if (auto const* const filter = dynamic_cast<FilterItem const*>(&item))
        {
          all = all && fitsDescription(description, described, filter->getQuery().attributes());
          if (all)
            description.merge(filter->getQuery());
        }
      }));
  AutoDereference<CollectionItemIterator> const items(
      discoveries->getNextCollectionItemIterator(query.empty() ? nullptr : &parameters));
  collection.complete = items && items->isParsed() && all;
  collection.attributes = description.attributes();
  return collection;
}

// False when they cannot be read to their end.
template <class Take>
bool readBytesThrough(Discovery& discovery, std::string const& query, Take const& take)
{
  std::ostringstream filter;
  if (!query.empty())
    FilterParameters(nullptr, query.c_str()).writeXml(filter, XmlStr::UTF_8);
  CollectionData* const data = discovery.getCollectionData();
  if (data == nullptr || data->open(OM_READ, filter.str().c_str()) == 0)
    return false;
  char buffer[65536];
  long count;
  while ((count = data->readCollection(sizeof buffer, buffer)) > 0)
    take(std::string_view(buffer, static_cast<std::size_t>(count)));
  return count == 0;
}

// Whether the item answers the query, by what is written of it.
bool isAnswer(Item const& item, OzfQuery const& query)
{
  return query.evaluate(
      [&item](std::string_view name) -> std::optional<std::string>
      {
        std::string const* const value = item.find(name);
        return value == nullptr ? std::nullopt : std::optional(*value);
      });
}

// The collection as its host has it by itself.
template <class Read>
bool readOwn(Record const& record, Announcement const& place, Read const& read)
{
  tell("asking the service on \"" + shown(place.host) + "\" for its own collection of subject \"" +
       shown(record.subject) + "\", authority \"" + shown(record.authority) + "\"");
  return read(ownCollection(record, place), false);
}

// Tries the places that may have the collection until one gives it: the master;
// on demand, since the master answers for one host's explorer only while no
// other host's comes after it, the host that has the explorer, which may be the
// master itself, and what that host has by itself; and where the
// master could not be asked under the record's own type, the master again, for
// users who cannot reach that host.
//
// What the master copies from another host is whole, whatever the query, so with
// a query that host comes first: its explorer applies it, and may know
// attributes that it does not write. read is told whether a query is still to
// be applied.
template <class Read>
bool readAnywhere(Record const& record, bool query, Read read)
{
  if (!record.onDemand())
    return read(record.open(), query);
  std::optional<Announcement> announcement;
  bool const ownerFirst = query || record.restored();
  if (ownerFirst)
    announcement = announcementOf(record);
  if (!announcement && !record.restored() && read(record.open(), false))
    return true;
  if (!ownerFirst)
    announcement = announcementOf(record);
  if (!announcement)
    return !record.restored() &&
           readOwn(record, {record.source->host, record.source->service, record.type}, read);
  tell("asking the service on \"" + shown(announcement->host) + "\" itself for subject \"" +
       shown(record.subject) + "\", authority \"" + shown(record.authority) +
       "\", which it announced to the master");
  if (read(elsewhere(record, *announcement), false) || readOwn(record, *announcement, read))
    return true;
  if (record.restored())
    return announcement->type != AT_REMOTEPULL &&
           read(elsewhere(record, masterAs(record, announcement->type)), query);
  return query && read(record.open(), true);
}

} // namespace

std::string const* Item::find(std::string_view fact) const
{
  for (auto const& [factName, value] : facts)
    if (equalIgnoringCase(factName, fact))
      return &value;
  return nullptr;
}

std::size_t sizeOf(Item const& item)
{
  std::size_t size = sizeof item + item.name.size() + item.policy.size() + item.text.size();
  if (item.status)
    size += item.status->text.size();
  for (auto const& [name, value] : item.facts)
    size += sizeOfFact(name, value);
  return size;
}

Collection readCollection(Record const& record, OzfQuery const& query, ItemSink const& take)
{
  std::string const& text = query.getQuery().str();
  Collection collection;
  readAnywhere(record, !text.empty(),
               [&](AutoDereference<Discovery> const& discovery, bool whole)
               {
                 bool any = false;
                 std::size_t count = 0;
                 std::set<std::string> factNames;
                 collection = readThrough(discovery, text,
                                          [&](Item item)
                                          {
                                            any = true;
                                            if (!text.empty())
                                              for (auto const& [name, value] : item.facts)
                                                factNames.insert(name);
                                            if (whole && !isAnswer(item, query))
                                              return;
                                            ++count;
                                            take(std::move(item));
                                          });
                 collection.count = count;
                 collection.factNames = std::move(factNames);
                 return collection.complete || any;
               });
  return collection;
}

Collection readCollection(Record const& record, OzfQuery const& query)
{
  std::vector<Item> items;
  Collection collection =
      readCollection(record, query, [&items](Item item) { items.push_back(std::move(item)); });
  collection.items = std::move(items);
  return collection;
}

Collection readCollection(Record const& record, std::string const& bytes, ItemSink const& take)
{
  AutoDereference<Discovery> const discovery(new FetchedDiscovery(record, bytes));
  std::size_t count = 0;
  Collection collection = readThrough(discovery, "",
                                      [&](Item item)
                                      {
                                        ++count;
                                        take(std::move(item));
                                      });
  collection.count = count;
  return collection;
}

Collection readOwnCollection(Record const& record, Announcement const& place)
{
  std::vector<Item> items;
  Collection collection = readThrough(ownCollection(record, place), "",
                                      [&items](Item item) { items.push_back(std::move(item)); });
  collection.items = std::move(items);
  collection.count = collection.items.size();
  return collection;
}

bool readBytes(Record const& record, std::string const& query, std::string& bytes)
{
  return readAnywhere(record, !query.empty(),
                      [&](AutoDereference<Discovery> const& discovery, bool)
                      {
                        bytes.clear();
                        return readBytesThrough(*discovery, query,
                                                [&](std::string_view part) { bytes += part; });
                      });
}

bool hasReadableBytes(Record const& record)
{
  return readAnywhere(record, false,
                      [](AutoDereference<Discovery> const& discovery, bool)
                      { return readBytesThrough(*discovery, "", [](std::string_view) {}); });
}

AutoDereference<OzfQuery> describe(Record const& record)
{
  AutoDereference<OzfQuery> description(new OzfQuery);
  Selection selection;
  selection.subject = record.subject;
  selection.filterData = true;
  selection.master = record.source->master;
  std::vector<Record> records;
  std::size_t described = 0;
  std::vector<std::string> authorities{record.authority};
  if (record.onDemand())
    authorities.push_back(record.authority + FILTER_DATA_SUFFIX);
  for (std::string const& authority : authorities)
  {
    selection.authority = authority;
    if (!description->attributes().empty() || !isListed(queryRecords(selection, records, true)))
      break;
    for (Record const& each : records)
      if (!each.onDemand())
      {
        auto const attributes = readThrough(each.open(), "", [](Item const&) {}).attributes;
        if (!fitsDescription(*description, described, attributes))
          return description;
        for (auto const& attribute : attributes)
          description->addAttribute(attribute);
      }
  }
  return description;
}

} // namespace tqdiscoctl
