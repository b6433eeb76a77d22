#include "web/ReadAnswers.h"

#include "discovery/FilterDataName.h"
#include "discovery/FilterDescription.h"
#include "discovery/RemoteDBDrain.h"
#include "ozf/base/Wildcard.h"
#include "ozf/xml/QueryExpression.h"
#include "tools/Collections.h"
#include "tools/ExitCodes.h"
#include "tools/ItemJson.h"
#include "tools/Output.h"
#include "web/Channel.h"
#include "web/HeaderValues.h"
#include "web/ListAnswers.h"

#include <algorithm>
#include <exception>
#include <numeric>
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
// what can be asked for, which explorers store beside it. number: of its master.
Record const* findRecord(KeptList::Look const& look, std::string const& subject,
                         std::string const& authority, AuthorityType type,
                         std::string const* master, std::size_t& number)
{
  for (number = 0; number < look.masters.size(); ++number)
  {
    MasterList const& list = look.masters[number];
    if (master != nullptr && *master != list.master)
      continue;
    Record const* found = nullptr;
    for (Record const& record : recordsOf(list, subject))
      if (record.authority == authority && (type == AT_ANYANDALL || type == record.type) &&
          (found == nullptr || found->type == AT_EXTSRC || record.onDemand()))
        found = &record;
    if (found != nullptr)
      return found;
  }
  return nullptr;
}

// Of what was begun then.
Answer notRead(DrainLimit::TimePoint begin)
{
  // A master that hangs uses up the time of one call, which may be less than there is for all.
  return ReadDeadline::passed() || DrainLimit::now() - begin >= LONGEST_CALL
             ? problem(504, "the payload did not come in time")
             : problem(502, "the payload could not be had; the log of this server says why");
}

Answer collectionJson(Record const& record, std::size_t most, bool& complete)
{
  auto const begin = DrainLimit::now();
  LimitedText text(most);
  CollectionPrinter printer(text, false, false);
  Collection const collection =
      readCollection(record, OzfQuery(), [&](Item const& item) { printer.item(record, item); });
  complete = collection.complete;
  if (!complete && collection.count == 0 && collection.attributes.empty())
    return notRead(begin);
  printer.end(record, collection);
  return answerOf(text.take());
}

Answer payload(Record const& record, bool& complete)
{
  auto const begin = DrainLimit::now();
  std::string bytes;
  complete = readBytes(record, "", bytes);
  return complete ? answerOf(std::move(bytes), XML_TYPE) : notRead(begin);
}

// Numbers of masters: those that answer go first.
std::vector<std::size_t> inOrder(KeptList::Look const& look)
{
  std::vector<std::size_t> order(look.masters.size());
  std::iota(order.begin(), order.end(), std::size_t(0));
  std::stable_partition(order.begin(), order.end(),
                        [&look](std::size_t each)
                        { return look.masters[each].state == MasterList::UP; });
  return order;
}

struct Question
{
  std::string subject;
  std::string authority;
  AuthorityType type;
  OzfQuery const& query;
};

// The items of all records that are asked for, as they are read.
class ItemsStream
{
public:
  ItemsStream(std::ostream& os, KeptList const& list, Question const& question, bool asLines)
      : m_os(os), m_list(list), m_question(question), m_asLines(asLines), m_printer(os, true, false)
  {
  }

  // Those of one master, as it was listed.
  void print(std::size_t master, Records const& records)
  {
    bool isGone = false;
    for (Record const& record : records)
    {
      if (!isAskedFor(record, records))
        continue;
      // Of a master that is away one is tried; the others would only use up the time.
      Collection const collection = isGone ? Collection() : read(record);
      if (collection.complete || (m_asLines && !isLacking(master, record)))
        m_failures = 0;
      else
      {
        m_lacks = true;
        isGone = isGone || m_list.look()->masters[master].state != MasterList::UP;
        if (!isGone && ++m_failures == MOST_FAILURES)
          throw std::runtime_error("too many collections in a row could not be read");
      }
      if (!m_asLines && (collection.count != 0 || !collection.complete))
        m_printer.end(record, collection);
      if (ReadDeadline::passed())
        throw std::runtime_error("the time for the request is over");
      // What there is goes out before the next is waited for.
      m_os.flush();
    }
  }

  // Lines have no place to say that something is missing but their end.
  void finish()
  {
    if (m_asLines && m_lacks)
      throw std::runtime_error("not all collections could be read");
    if (!m_asLines)
      m_printer.finish();
    m_os.flush();
  }

private:
  static constexpr std::size_t MOST_FAILURES = 20; // in a row

  bool isAskedFor(Record const& record, Records const& records) const
  {
    AuthorityType const type = m_question.type;
    return (type == AT_ANYANDALL || type == record.type) &&
           matchesName(m_question.subject, record.subject) &&
           matchesName(m_question.authority, record.authority) &&
           (type != AT_ANYANDALL || !isShadowed(record, records));
  }

  // Not one that has gone meanwhile.
  bool isLacking(std::size_t master, Record const& record) const
  {
    auto const now = m_list.look();
    Records const& records = *now->masters[master].records;
    return std::binary_search(records.begin(), records.end(), record, isBefore);
  }

  // A reader of XML would take it for a mistake in what it reads that who is written to has gone,
  // so that waits until the reading is over.
  Collection read(Record const& record)
  {
    std::exception_ptr gone;
    auto const take = [&](Item const& item)
    {
      try
      {
        if (!gone)
          printItem(record, item);
      }
      catch (Channel::Gone const&)
      {
        gone = std::current_exception();
      }
    };
    Collection collection = readCollection(record, m_question.query, take);
    if (gone)
      std::rethrow_exception(gone);
    return collection;
  }

  void printItem(Record const& record, Item const& item)
  {
    if (!m_asLines)
    {
      m_printer.item(record, item);
      return;
    }
    nlohmann::json line = tqdiscoctl::toJson(record);
    line.update(tqdiscoctl::toJson(item, m_descriptions.of(record), false));
    m_os << jsonText(line, -1) << '\n';
  }

  std::ostream& m_os;
  KeptList const& m_list;
  Question const& m_question;
  bool const m_asLines;
  CollectionPrinter m_printer;
  Descriptions m_descriptions;
  std::size_t m_failures = 0;
  bool m_lacks = false;
};

// What can be asked for, as what is stored of it says.
class FilterSum
{
public:
  // sample: enough is known when so many in a row have told nothing new; 0: all are read.
  explicit FilterSum(std::size_t sample) : m_sample(sample) {}

  // Throws std::length_error when it is more than can be made an answer of.
  void add(Selection const& selection)
  {
    std::vector<Record> records;
    int const result = queryRecords(selection, records, true);
    m_whole = m_whole && result == EXIT_DONE;
    m_listed = m_listed || isListed(result);
    for (Record const& record : records)
    {
      if (record.onDemand())
        continue;
      if (ReadDeadline::passed() || (m_sample != 0 && m_withoutNews == m_sample))
      {
        m_whole = false;
        return;
      }
      Collection const collection = readCollection(record, OzfQuery(), [](Item const&) {});
      m_whole = m_whole && collection.complete;
      if (!fitsDescription(m_description, m_size, collection.attributes))
        throw std::length_error("what can be asked for");
      bool isNew = false;
      for (auto const& attribute : collection.attributes)
        isNew = m_description.addAttribute(attribute) || isNew;
      m_withoutNews = isNew ? 0 : m_withoutNews + 1;
    }
  }

  auto const& attributes() const { return m_description.attributes(); }
  bool listed() const { return m_listed; } // by any master
  bool whole() const { return m_whole; }   // nothing is left out

private:
  std::size_t const m_sample;
  OzfQuery m_description;
  std::size_t m_size = 0;
  std::size_t m_withoutNews = 0;
  bool m_listed = false;
  bool m_whole = true;
};

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
  std::size_t master = 0;
  Record const* const found =
      findRecord(*look, subject, authority, type, request.target.find("master"), master);
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
  plan.master = master;
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
  plan.stream = [this, look, type, asLines = form != 0, subject = patternOf(target, "subject"),
                 authority = patternOf(target, "authority"),
                 text = where == nullptr ? std::string() : *where](std::ostream& os)
  {
    OzfQuery asked;
    asked.setQuery(text);
    Question const question{subject, authority, type, asked};
    ItemsStream items(os, m_list, question, asLines);
    for (std::size_t const master : inOrder(*look))
      items.print(master, *look->masters[master].records);
    items.finish();
  };
  return plan;
}

Plan ReadAnswers::filters(Request const& request, std::string const& authority) const
{
  if (auto refusal = refuseUnknown(request.target, {"subject", "sample"}))
    return Plan::of(*refusal);
  constexpr std::size_t LARGEST_SAMPLE = 10'000;
  auto const sample = readCount(request.target, "sample", LARGEST_SAMPLE, 0);
  if (!sample)
    return Plan::of(problem(notCounted("sample", LARGEST_SAMPLE)));
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  Plan plan;
  plan.read = [look, authority, sample = *sample, subject = patternOf(request.target, "subject")]
  {
    auto const begin = DrainLimit::now();
    FilterSum sum(sample);
    for (std::string const& name : {authority, authority + FILTER_DATA_SUFFIX})
      if (sum.attributes().empty() && !ReadDeadline::passed())
        for (std::size_t const master : inOrder(*look))
        {
          Selection selection;
          selection.subject = subject;
          selection.authority = name;
          selection.filterData = true;
          selection.anyType = true;
          selection.master = look->masters[master].master;
          sum.add(selection);
        }
    if (!sum.listed() || ReadDeadline::passed())
      return notRead(begin);
    nlohmann::json all = nlohmann::json::array();
    for (auto const& attribute : sum.attributes())
      all.push_back(tqdiscoctl::toJson(attribute));
    Answer answer = answerOf(all);
    answer.headers.emplace_back("Tqdisco-Complete", sum.whole() ? "true" : "false");
    return answer;
  };
  return plan;
}

} // namespace Web
