#include "web/ReadAnswers.h"

#include "discovery/FilterDataName.h"
#include "discovery/FilterDescription.h"
#include "discovery/RemoteDBDrain.h"
#include "ozf/base/Wildcard.h"
#include "ozf/xml/QueryExpression.h"
#include "tools/Collections.h"
#include "tools/ItemJson.h"
#include "tools/Output.h"
#include "web/Channel.h"
#include "web/HeaderValues.h"
#include "web/ListAnswers.h"

#include <algorithm>
#include <stdexcept>

namespace Web
{

using namespace tqdiscoctl;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char XML_TYPE[] = "application/xml";
constexpr char JSON_LINES[] = "application/jsonl";
constexpr char OTHER_JSON_LINES[] = "application/x-ndjson";
constexpr char NOT_ACCEPTABLE[] = "Accept allows nothing of what there is";

bool matchesName(std::string const& pattern, std::string const& name)
{
  return pattern == "*" || wildcardcmp(pattern, name, true) == 0;
}

std::string patternOf(RequestTarget const& target, char const* parameter)
{
  std::string const* const value = target.find(parameter);
  return value == nullptr ? "*" : asNamed(*value);
}

// The one of these names that is meant; null when there is none. What was found goes before
// what can be asked for, which explorers store beside it.
Record const* findRecord(KeptList::Look const& look, std::string const& subject,
                         std::string const& authority, AuthorityType type,
                         std::string const* master)
{
  for (MasterList const& list : look.masters)
  {
    if (master != nullptr && *master != list.master)
      continue;
    Record first;
    first.subject = subject;
    Record const* found = nullptr;
    for (auto at =
             std::lower_bound(list.records->begin(), list.records->end(), first,
                              [](Record const&a, Record const&b) { return a.subject < b.subject; });
         at != list.records->end() && at->subject == subject; ++at)
      if (at->authority == authority && (type == AT_ANYANDALL || type == at->type) &&
          (found == nullptr || found->type == AT_EXTSRC || at->onDemand()))
        found = &*at;
    if (found != nullptr)
      return found;
  }
  return nullptr;
}

Answer notRead()
{
  return ReadDeadline::passed()
             ? problem(504, "the payload did not come in time")
             : problem(502, "the payload could not be had; the log of this server says why");
}

Answer collectionJson(Record const& record, std::size_t most, bool& complete)
{
  LimitedText text(most);
  CollectionPrinter printer(text, false, false);
  Collection const collection =
      readCollection(record, OzfQuery(), [&](Item const& item) { printer.item(record, item); });
  complete = collection.complete;
  if (!complete && collection.count == 0 && collection.attributes.empty())
    return notRead();
  printer.end(record, collection);
  return answerOf(text.take());
}

Answer payload(Record const& record, bool& complete)
{
  std::string bytes;
  complete = readBytes(record, "", bytes);
  return complete ? answerOf(std::move(bytes), XML_TYPE) : notRead();
}

// The records that are asked for, of one look.
std::vector<Record> chosen(KeptList::Look const& look, std::string const& subject,
                           std::string const& authority, AuthorityType type)
{
  std::vector<Record> records;
  for (MasterList const& list : look.masters)
    for (Record const& record : *list.records)
      if ((type == AT_ANYANDALL || type == record.type) && matchesName(subject, record.subject) &&
          matchesName(authority, record.authority) &&
          (type != AT_ANYANDALL || !isShadowed(record, *list.records)))
        records.push_back(record);
  return records;
}

void printItems(std::ostream& os, std::vector<Record> const& records, OzfQuery const& query,
                bool asLines)
{
  constexpr std::size_t MOST_FAILURES = 20; // in a row
  CollectionPrinter printer(os, true, false);
  Descriptions descriptions;
  std::size_t failures = 0;
  for (Record const& record : records)
  {
    Collection const collection =
        readCollection(record, query,
                       [&](Item const& item)
                       {
                         if (!asLines)
                         {
                           printer.item(record, item);
                           return;
                         }
                         nlohmann::json line = tqdiscoctl::toJson(record);
                         line.update(tqdiscoctl::toJson(item, descriptions.of(record), false));
                         os << jsonText(line, -1) << '\n';
                       });
    if (!asLines && (collection.count != 0 || !collection.complete))
      printer.end(record, collection);
    if (ReadDeadline::passed())
      throw std::runtime_error("the time for the request is over");
    failures = collection.complete ? 0 : failures + 1;
    if (failures == MOST_FAILURES)
      throw std::runtime_error("too many collections in a row could not be read");
    // What there is goes out before the next is waited for.
    os.flush();
  }
  if (!asLines)
    printer.finish();
  os.flush();
}

// What can be asked for, as far as these records say; false when none can be listed.
bool describeAll(Selection const& selection, OzfQuery& description, std::size_t& size)
{
  constexpr std::size_t MOST_WITHOUT_NEWS = 20;
  std::vector<Record> records;
  if (!isListed(queryRecords(selection, records, true)))
    return false;
  std::erase_if(records, [](Record const& each) { return each.onDemand(); });
  std::size_t withoutNews = 0;
  for (Record const& record : records)
  {
    if (withoutNews == MOST_WITHOUT_NEWS || ReadDeadline::passed())
      break;
    Collection const collection = readCollection(record, OzfQuery(), [](Item const&) {});
    if (!fitsDescription(description, size, collection.attributes))
      break;
    bool isNew = false;
    for (auto const& attribute : collection.attributes)
      isNew = description.addAttribute(attribute) || isNew;
    withoutNews = isNew ? 0 : withoutNews + 1;
  }
  return true;
}

} // namespace

Plan ReadAnswers::discovery(Request const& request, std::string const& subject,
                            std::string const& authority)
{
  if (auto refusal = refuseUnknown(request.target, {"type", "master"}))
    return Plan::of(*refusal);
  Mistake mistake;
  AuthorityType type{};
  if (!readType(request.target, type, mistake))
    return Plan::of(problem(mistake));
  std::size_t const form = preferredType(request.accept, {JSON_TYPE, XML_TYPE});
  if (form == std::string_view::npos)
    return Plan::of(problem(406, NOT_ACCEPTABLE));
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  Record const* const found =
      findRecord(*look, subject, authority, type, request.target.find("master"));
  if (found == nullptr)
    return Plan::of(problem(404, "no master has such a discovery"));

  bool const asXml = form == 1;
  std::string const key = encoded(found->source->master) + ' ' + encoded(subject) + ' ' +
                          encoded(authority) + ' ' + std::to_string(found->type) + ' ' +
                          std::to_string(found->discovered.seconds()) + ' ' +
                          std::to_string(found->discovered.microseconds()) + (asXml ? " x" : " j");
  bool const mayKeep = !found->onDemand();
  if (mayKeep)
    if (auto known = m_cache.find(key))
      return Plan::of(*known);
  Plan plan;
  plan.read = [this, record = *found, asXml, key, mayKeep]
  {
    bool complete = false;
    Answer answer =
        asXml ? payload(record, complete) : collectionJson(record, m_limits.answer, complete);
    answer.headers.emplace_back("Vary", "Accept");
    if (complete && mayKeep)
      m_cache.keep(key, answer);
    return answer;
  };
  return plan;
}

Plan ReadAnswers::items(Request const& request) const
{
  RequestTarget const& target = request.target;
  if (auto refusal = refuseUnknown(target, {"subject", "authority", "type", "where"}))
    return Plan::of(*refusal);
  Mistake mistake;
  AuthorityType type{};
  if (!readType(target, type, mistake))
    return Plan::of(problem(mistake));
  std::size_t const form = preferredType(request.accept, {JSON_TYPE, JSON_LINES, OTHER_JSON_LINES});
  if (form == std::string_view::npos)
    return Plan::of(problem(406, NOT_ACCEPTABLE));
  std::string const* const where = target.find("where");
  OzfQuery query;
  if (where != nullptr && query.setQuery(*where) != OzfQuery::QUERY_OK)
  {
    mistake = {"the query cannot be understood: " + query.lastError(), "where", {}};
    if (auto const place = parseQuery(*where).mistake)
      mistake.place = {place->line, place->column};
    return Plan::of(problem(mistake));
  }
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  Plan plan;
  plan.streamType = form == 0 ? JSON_TYPE : form == 1 ? JSON_LINES : OTHER_JSON_LINES;
  plan.stream = [look, type, form, subject = patternOf(target, "subject"),
                 authority = patternOf(target, "authority"),
                 text = where == nullptr ? std::string() : *where](std::ostream& os)
  {
    OzfQuery asked;
    asked.setQuery(text);
    printItems(os, chosen(*look, subject, authority, type), asked, form != 0);
  };
  return plan;
}

Plan ReadAnswers::filters(Request const& request, std::string const& authority) const
{
  if (auto refusal = refuseUnknown(request.target, {"subject"}))
    return Plan::of(*refusal);
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  Plan plan;
  plan.read = [look, authority, subject = patternOf(request.target, "subject")]
  {
    OzfQuery description;
    std::size_t size = 0;
    bool any = false;
    for (std::string const& name : {authority, authority + FILTER_DATA_SUFFIX})
      if (description.attributes().empty())
        for (MasterList const& list : look->masters)
        {
          Selection selection;
          selection.subject = subject;
          selection.authority = name;
          selection.filterData = true;
          selection.anyType = true;
          selection.master = list.master;
          any = describeAll(selection, description, size) || any;
        }
    if (!any)
      return notRead();
    nlohmann::json all = nlohmann::json::array();
    for (auto const& attribute : description.attributes())
      all.push_back(tqdiscoctl::toJson(attribute));
    return answerOf(all);
  };
  return plan;
}

} // namespace Web
