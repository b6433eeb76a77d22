#include "web/ListAnswers.h"

#include "ozf/base/Wildcard.h"
#include "tools/Format.h"
#include "tools/Hosts.h"
#include "tools/Output.h"
#include "web/Cursor.h"

#include <algorithm>
#include <charconv>

namespace Web
{

using namespace tqdiscoctl;
using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr std::size_t PAGE_BY_DEFAULT = 500;
constexpr std::size_t LARGEST_PAGE = 10'000;

// A pattern of names, as a parameter gives it.
class Pattern
{
public:
  Pattern(RequestTarget const& target, char const* parameter)
  {
    if (std::string const* const value = target.find(parameter); value != nullptr && *value != "*")
      m_pattern = asNamed(*value);
  }

  bool matches(std::string const& name) const
  {
    return m_pattern.empty() || wildcardcmp(m_pattern, name, true) == 0;
  }

private:
  std::string m_pattern; // empty: all
};

nlohmann::json hostJson(MasterList const& list, std::string const& name, Host const& host,
                        HostSilence const& silence)
{
  nlohmann::json result = tqdiscoctl::toJson(name, host);
  result["master"] = list.master;
  result["silent"] = silence.contains(name);
  return result;
}

HostSilence silenceOf(MasterList const& list)
{
  HostSilence silence;
  for (Record const& record : *list.records)
    silence.add(record);
  return silence;
}

// To a text that ends within an array. Elements become text one by one: all of them as values
// would take some times the memory.
void appendElement(std::string& text, nlohmann::json const& value)
{
  text.append(text.ends_with('[') ? "" : ",\n").append(jsonText(value, -1));
}

using RecordPlace = Records::const_iterator;

RecordPlace endOfHost(RecordPlace begin, RecordPlace end)
{
  return std::find_if(begin, end,
                      [begin](Record const& each) { return each.subject != begin->subject; });
}

// Where a list goes on: which master, and where in its records.
struct PagePlace
{
  std::size_t master = 0;
  RecordPlace record;
};

PagePlace placeBehind(KeptList::Look const& look, Cursor const& cursor)
{
  auto const& masters = look.masters;
  auto const found =
      std::find_if(masters.begin(), masters.end(),
                   [&cursor](MasterList const& each) { return each.master == cursor.master; });
  if (found == masters.end())
    return {masters.size(), {}};
  Record last;
  last.subject = cursor.subject;
  last.authority = cursor.authority;
  last.type = static_cast<AuthorityType>(cursor.type);
  last.announcement = !cursor.onDemand; // without a time it would be on demand
  return {static_cast<std::size_t>(found - masters.begin()),
          std::upper_bound(found->records->begin(), found->records->end(), last, isBefore)};
}

} // namespace

bool readType(RequestTarget const& target, AuthorityType& type, Mistake& mistake)
{
  type = AT_ANYANDALL;
  std::string const* const text = target.find("type");
  if (text == nullptr || parseType(*text, type))
    return true;
  mistake = {"there is no such type; accepted: server, client, external, remotepull and 1 to 4",
             "type",
             {}};
  return false;
}

std::optional<std::size_t> readCount(RequestTarget const& target, char const* parameter,
                                     std::size_t most, std::size_t otherwise)
{
  std::string const* const text = target.find(parameter);
  if (text == nullptr)
    return otherwise;
  std::size_t count = 0;
  char const* const end = text->data() + text->size();
  auto const [stop, error] = std::from_chars(text->data(), end, count);
  bool const isCount = error == std::errc() && stop == end && count >= 1 && count <= most;
  return isCount ? std::optional(count) : std::nullopt;
}

Mistake notCounted(char const* parameter, std::size_t most)
{
  return {"accepted: 1 to " + std::to_string(most), parameter, {}};
}

std::optional<Answer> refuseUnknown(RequestTarget const& target,
                                    std::vector<std::string_view> const& known)
{
  if (std::string const* const unknown = target.unknownBeside(known))
    return problem(Mistake{"there is no such parameter here", *unknown, {}});
  return std::nullopt;
}

Answer nothingListed() { return problem(503, "no master has given its list yet"); }

Plan ListAnswers::kept(std::string const& key, KeptList::Look const& look, Make make)
{
  std::string const whole = std::to_string(look.generation) + ' ' + key;
  if (auto known = m_cache.find(whole))
    return Plan::of(*known);
  Plan plan;
  plan.isListed = true;
  plan.read = [this, whole, make = std::move(make)]
  {
    // Another may have waited for the same.
    if (auto known = m_cache.find(whole))
      return *known;
    Answer answer = answerOf(make());
    m_cache.keep(whole, answer);
    return answer;
  };
  return plan;
}

Answer ListAnswers::status(RequestTarget const& target) const
{
  if (auto refusal = refuseUnknown(target, {}))
    return *refusal;
  auto const look = m_list.look();
  nlohmann::json masters = nlohmann::json::array();
  std::size_t hosts = 0;
  std::size_t silent = 0;
  std::size_t discoveries = 0;
  OzfObjTime oldest;
  for (MasterList const& list : look->masters)
  {
    masters.push_back(toJson(list));
    hosts += list.hosts;
    silent += list.silentHosts;
    discoveries += list.records->size();
    if (!list.oldest.isZero())
      oldest = oldest.isZero() ? list.oldest : std::min(oldest, list.oldest);
  }
  return answerOf(nlohmann::json{{"service", "tqdiscoweb"},
                                 {"version", TQ_VERSION},
                                 {"startTime", timeOrNull(m_start)},
                                 {"time", timeOrNull(OzfObjTime::now())},
                                 {"hosts", hosts},
                                 {"silentHosts", silent},
                                 {"discoveries", discoveries},
                                 {"oldestTime", timeOrNull(oldest)},
                                 {"masters", std::move(masters)}});
}

Plan ListAnswers::hosts(RequestTarget const& target)
{
  if (auto refusal = refuseUnknown(target, {"subject"}))
    return Plan::of(*refusal);
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  std::string const* const subject = target.find("subject");
  return kept("hosts " + (subject == nullptr ? "*" : *subject), *look,
              [target, look]
              {
                Pattern const pattern(target, "subject");
                std::string text = "{\"hosts\":[";
                for (MasterList const& list : look->masters)
                {
                  HostSilence const silence = silenceOf(list);
                  for (auto at = list.records->begin(); at != list.records->end();)
                  {
                    auto const end = endOfHost(at, list.records->end());
                    std::string const& name = at->subject;
                    Host host;
                    for (; at != end; ++at)
                      host.add(*at);
                    if (pattern.matches(name))
                      appendElement(text, hostJson(list, name, host, silence));
                  }
                }
                return text.append("]}\n");
              });
}

Plan ListAnswers::host(RequestTarget const& target, std::string const& subject)
{
  if (auto refusal = refuseUnknown(target, {}))
    return Plan::of(*refusal);
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  if (std::all_of(look->masters.begin(), look->masters.end(),
                  [&subject](MasterList const& list) { return recordsOf(list, subject).empty(); }))
    return Plan::of(problem(404, "nothing is known of this host"));
  return kept("host " + subject, *look,
              [subject, look]
              {
                std::string summaries = "[";
                std::string records = "[";
                for (MasterList const& list : look->masters)
                {
                  auto const own = recordsOf(list, subject);
                  if (own.empty())
                    continue;
                  Host host;
                  for (Record const& record : own)
                  {
                    host.add(record);
                    appendElement(records, tqdiscoctl::toJson(record));
                  }
                  appendElement(summaries, hostJson(list, subject, host, silenceOf(list)));
                }
                return "{\"host\":" + jsonText(subject, -1) + ",\"summaries\":" + summaries +
                       "],\"records\":" + records + "]}\n";
              });
}

Plan ListAnswers::discoveries(RequestTarget const& target)
{
  if (auto refusal = refuseUnknown(target, {"subject", "authority", "type", "limit", "cursor"}))
    return Plan::of(*refusal);
  Mistake mistake;
  AuthorityType type{};
  if (!readType(target, type, mistake))
    return Plan::of(problem(mistake));
  auto const limit = readCount(target, "limit", LARGEST_PAGE, PAGE_BY_DEFAULT);
  if (!limit)
    return Plan::of(problem(notCounted("limit", LARGEST_PAGE)));
  auto const look = m_list.look();
  if (!look->anyListed())
    return Plan::of(nothingListed());
  PagePlace place{0, look->masters.front().records->begin()};
  std::string key = "discoveries";
  for (char const* name : {"subject", "authority", "type", "limit", "cursor"})
    if (std::string const* const value = target.find(name))
      key += ' ' + std::string(name) + '=' + encoded(*value);
  if (std::string const* const text = target.find("cursor"))
  {
    auto const cursor = Cursor::fromText(*text);
    if (!cursor)
      return Plan::of(problem(Mistake{"this is no \"next\" of an answer before", "cursor", {}}));
    place = placeBehind(*look, *cursor);
    if (place.master == look->masters.size())
      return Plan::of(
          problem(Mistake{"the master that it names is none of this server's", "cursor", {}}));
  }
  return kept(key, *look,
              [target, look, place, type, limit = *limit]() mutable
              {
                Pattern const subject(target, "subject");
                Pattern const authority(target, "authority");
                std::string text = "{\"discoveries\":[";
                std::size_t count = 0;
                Record const* last = nullptr;
                bool more = false;
                for (; place.master < look->masters.size() && !more; ++place.master)
                {
                  Records const& records = *look->masters[place.master].records;
                  for (; place.record != records.end() && !more; ++place.record)
                  {
                    Record const& record = *place.record;
                    if ((type != AT_ANYANDALL && type != record.type) ||
                        !subject.matches(record.subject) || !authority.matches(record.authority))
                      continue;
                    more = count == limit;
                    if (more)
                      break;
                    appendElement(text, tqdiscoctl::toJson(record));
                    ++count;
                    last = &record;
                  }
                  if (place.master + 1 < look->masters.size())
                    place.record = look->masters[place.master + 1].records->begin();
                }
                nlohmann::json next;
                if (more)
                  next = Cursor{last->source->master, last->subject, last->authority,
                                static_cast<int>(last->type), last->onDemand()}
                             .text();
                return text.append("],\"next\":" + jsonText(next, -1) + "}\n");
              });
}

} // namespace Web
