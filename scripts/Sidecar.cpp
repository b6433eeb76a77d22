#include "scripts/Sidecar.h"

#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "scripts/ScriptOutput.h"

#include <algorithm>
#include <map>
#include <set>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

constexpr std::string_view KIND = "KIND.";
constexpr std::string_view UNIT = "UNIT.";
constexpr std::string_view TEXT = "TEXT.";

struct KindName
{
  char const* name;
  OzfQuery::Type type;
};
constexpr KindName KINDS[] = {
    {"text", OzfQuery::Type::TEXT},       {"number", OzfQuery::Type::NUMBER},
    {"size", OzfQuery::Type::SIZE},       {"duration", OzfQuery::Type::DURATION},
    {"boolean", OzfQuery::Type::BOOLEAN}, {"time", OzfQuery::Type::TIME},
};

std::optional<long> secondsFrom(std::string const& text, long least, long most)
{
  auto const seconds = parseSeconds(text);
  return seconds && *seconds >= least && *seconds <= most ? seconds : std::nullopt;
}

// Takes one line; empty when it is right.
class Settings
{
public:
  explicit Settings(Sidecar& sidecar) : m_sidecar(sidecar) {}

  std::string take(std::string const& key, std::string const& value)
  {
    if (!m_seen.insert(key).second)
      return key + " is given again; accepted once";
    for (std::string_view const part : {KIND, UNIT, TEXT})
      if (key.starts_with(part))
        return takeFact(part, key.substr(part.size()), value);
    if (key == "INTERVAL")
      return takeSeconds(value, Sidecar::LEAST_INTERVAL, MOST_OF_32_BITS, m_sidecar.interval,
                         "a span of time as 90s, 15m, 1h or 2d, of 5 seconds at least");
    if (key == "TIMEOUT")
      return takeSeconds(value, 1, Sidecar::MOST_TIMEOUT, m_sidecar.timeout,
                         "a span of time as 30s or 2m, of an hour at most");
    if (key == "EXPIRY")
      return takeSeconds(value, 1, MOST_OF_32_BITS, m_sidecar.expiry.emplace(),
                         "a span of time as 90s, 15m, 1h or 2d");
    if (key == "PRIORITY")
    {
      auto const priority = parseInteger(value, 0, MOST_OF_32_BITS);
      m_sidecar.priority = static_cast<std::uint32_t>(priority.value_or(0));
      return priority ? ""
                      : "\"" + value + "\" is no priority; accepted: whole numbers from 0 to " +
                            std::to_string(MOST_OF_32_BITS);
    }
    if (key != "USER")
      return "unknown key \"" + key +
             "\"; known are INTERVAL, TIMEOUT, PRIORITY, EXPIRY, USER, KIND.<fact>, UNIT.<fact> "
             "and TEXT.<fact>";
    m_sidecar.user = value;
    return value.empty() ? "USER names nobody" : "";
  }

  // The facts that have a unit or a text but no kind.
  std::vector<std::string> withoutKind() const
  {
    std::vector<std::string> names;
    for (auto const& [name, fact] : m_facts)
      if (!fact.hasKind)
        names.push_back(name);
    return names;
  }

  void finish()
  {
    for (auto const& [name, fact] : m_facts)
      m_sidecar.facts.push_back(fact.attribute);
  }

private:
  struct Fact
  {
    OzfQuery::Attribute attribute;
    bool hasKind = false;
  };

  static std::string takeSeconds(std::string const& text, long least, long most, long& target,
                                 char const* accepted)
  {
    auto const seconds = secondsFrom(text, least, most);
    target = seconds.value_or(target);
    return seconds ? "" : "\"" + text + "\" is not accepted here; accepted: " + accepted;
  }

  std::string takeFact(std::string_view part, std::string const& name, std::string const& value)
  {
    if (!isFactName(name))
      return "\"" + name + "\" is no name of a fact";
    Fact& fact = m_facts[name];
    fact.attribute.name = name;
    if (part == UNIT)
      fact.attribute.unit = value;
    else if (part == TEXT)
      fact.attribute.description = value;
    else
    {
      auto const* const kind =
          std::find_if(std::begin(KINDS), std::end(KINDS),
                       [&value](KindName const& one) { return value == one.name; });
      fact.hasKind = true;
      if (kind == std::end(KINDS))
        return "\"" + value +
               "\" is no kind; accepted: text, number, size (in bytes), duration (in seconds), "
               "time and boolean";
      fact.attribute.type = kind->type;
    }
    return {};
  }

  Sidecar& m_sidecar;
  std::set<std::string> m_seen;
  std::map<std::string, Fact> m_facts;
};

} // namespace

std::vector<std::string> readSidecar(std::string const& path, Sidecar& sidecar)
{
  Configuration const file = Configuration::read(path);
  std::vector<std::string> mistakes;
  for (ConfigurationProblem const& problem : file.problems())
    mistakes.push_back(problem.text());
  Settings settings(sidecar);
  for (Configuration::Line const& line : file.lines())
    if (std::string const mistake = settings.take(line.key, line.value); !mistake.empty())
      mistakes.push_back(ConfigurationProblem{path, line.number, mistake}.text());
  for (std::string const& name : settings.withoutKind())
    mistakes.push_back(ConfigurationProblem{
        path, 0, "the fact " + name + " is described without its kind; add KIND." + name}
                           .text());
  settings.finish();
  return mistakes;
}

} // namespace Quillon::Tessarine::Ozf::Scripts
