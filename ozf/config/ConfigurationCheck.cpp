// What the product's keys mean: which there are and which values they take.

#include "ozf/config/Configuration.h"

#include "ozf/base/OzfString.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/IpAddress.h"
#include "ozf/config/PeerList.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t MAX_HOST_NAME = 255;

bool isBoolean(std::string const& text) { return parseBoolean(text).has_value(); }

bool isHostName(std::string const& text)
{
  return !text.empty() && text.size() <= MAX_HOST_NAME &&
         text.find_first_of(" \t/") == std::string::npos;
}

bool isAddress(std::string const& text) { return IpAddress::fromText(text).has_value(); }

// Where to listen: nobody else could use an address that holds on one link only.
bool isOwnAddress(std::string const& text)
{
  return isAddress(text) && text.find('%') == std::string::npos;
}

bool isPattern(std::string const& text) { return isLogPattern(text); }

bool isSpan(std::string const& text) { return parseSeconds(text).has_value(); }

bool isLogFile(std::string const& text)
{
  return text.starts_with('/') || text == "stderr" || text == "syslog";
}

bool isMode(std::string const& text) { return isTlsMode(text); }

bool isPath(std::string const& text) { return text.starts_with('/'); }

bool isPeerList(std::string const& text) { return PeerList::mistakeIn(text).empty(); }

enum class Occurs
{
  Once,
  AsList
};

struct KeyRule
{
  constexpr KeyRule(std::string_view name, Occurs how, bool (*judge)(std::string const& value),
                    std::string_view values)
      : key(name), occurs(how), judges(judge), described(values)
  {
  }
  constexpr KeyRule(IntegerKey const& number)
      : key(number.name), occurs(Occurs::Once), integer(&number)
  {
  }

  bool accepts(std::string const& value) const
  {
    return integer != nullptr ? parseInteger(value, integer->low, integer->high).has_value()
                              : judges(value);
  }
  bool isPeerList() const { return described == PEER_LIST_ENTRIES; }
  std::string accepted() const
  {
    return integer != nullptr ? acceptedBy(*integer) : std::string(described);
  }

  std::string_view key; // one that ends in '.' is the first part of a key of two parts
  Occurs occurs;

private:
  bool (*judges)(std::string const& value) = nullptr;
  std::string_view described;
  IntegerKey const* integer = nullptr; // then it says both
};

constexpr std::string_view EXPLORER = "EXPLORER.";
constexpr std::string_view EXPLORER_INTERVAL = "EXPLORER_INTERVAL.";
constexpr std::string_view EXPLORER_EXPIRY = "EXPLORER_EXPIRY.";

constexpr KeyRule RULES[] = {
    {"SERVER", Occurs::Once, isHostName, "a host name or an address"},
    {"CLIENT_NAME", Occurs::Once, isHostName, "a host name"},
    {"REPORT_CLIENT_DISCOVERIES", Occurs::Once, isBoolean,
     "true, yes, on, 1, false, no, off and 0"},
    {LOG_LEVEL_KEY},
    {"LOG_FILE", Occurs::Once, isLogFile, "an absolute path, stderr and syslog"},
    {"LOG_EXCEPT", Occurs::AsList, isPattern,
     "patterns of texts, one a line, with five letters at least beside *"},
    {AUDIT_FILE_KEY, Occurs::Once, isPath, "an absolute path"},
    {EXPLORER, Occurs::Once, isBoolean, "true, yes, on, 1, false, no, off and 0"},
    {EXPLORER_INTERVAL, Occurs::Once, isSpan, "spans of time as 90s, 15m, 1h and 2d"},
    {EXPLORER_EXPIRY, Occurs::Once, isSpan, "spans of time as 90s, 15m, 1h and 2d"},
    {ORB_PORT_KEY},
    {"ORB_BIND", Occurs::AsList, isOwnAddress, "one IPv4 or IPv6 address a line"},
    {HOST_ADDRESS_KEY, Occurs::Once, isAddress, "an IPv4 or IPv6 address"},
    {TLS_KEYS.mode, Occurs::Once, isMode, "off, both and only"},
    {TLS_KEYS.certificate, Occurs::Once, isPath, "an absolute path"},
    {TLS_KEYS.key, Occurs::Once, isPath, "an absolute path"},
    {TLS_KEYS.authorities, Occurs::Once, isPath, "an absolute path"},
    {CORE_DUMPS_KEY, Occurs::Once, isBoolean, "true, yes, on, 1, false, no, off and 0"},
    {ALLOW_KEYS.read, Occurs::AsList, isPeerList, PEER_LIST_ENTRIES},
    {ALLOW_KEYS.write, Occurs::AsList, isPeerList, PEER_LIST_ENTRIES},
    {ALLOW_KEYS.control, Occurs::AsList, isPeerList, PEER_LIST_ENTRIES},
    {ALLOW_KEYS.writeAs, Occurs::AsList, isPeerList, PEER_LIST_ENTRIES},
    {COLLECTION_PAGE_SIZE_KEY},
    {COLLECTION_WRITE_SIZE_KEY},
    {DISCOVERY_PAGE_SIZE_KEY},
    {METADATA_CACHE_KEY},
    {READ_LIMIT_KEY},
    {LIMIT_CONNECTIONS_KEY},
    {LIMIT_PEER_CONNECTIONS_KEY},
    {LIMIT_PEER_CALLS_KEY},
    {LIMIT_PEER_REQUESTS_KEY},
    {LIMIT_REQUEST_WAIT_KEY},
    {LIMIT_ITERATORS_KEY},
    {LIMIT_PEER_ITERATORS_KEY},
    {LIMIT_WRITERS_KEY},
    {LIMIT_PEER_WRITERS_KEY},
    {LIMIT_REGISTRATIONS_KEY},
    {LIMIT_PEER_REGISTRATIONS_KEY},
    {LIMIT_PEER_DAY_BYTES_KEY},
    {LIMIT_PAYLOAD_KEY},
    {LIMIT_ANSWERS_KEY},
};

KeyRule const* findRule(std::string_view key)
{
  for (auto const& rule : RULES)
    if (rule.key.ends_with('.') ? key.starts_with(rule.key) : key == rule.key)
      return &rule;
  return nullptr;
}

bool isAboutExplorer(KeyRule const& rule)
{
  return rule.key == EXPLORER || rule.key == EXPLORER_INTERVAL || rule.key == EXPLORER_EXPIRY;
}

std::string knownKeys()
{
  std::string text;
  for (auto const& rule : RULES)
  {
    text += text.empty() ? "" : ", ";
    text += rule.key;
    if (rule.key == HOST_ADDRESS_KEY)
      text += "<host>";
    else if (isAboutExplorer(rule))
      text += "<explorer>";
    else if (rule.key.ends_with('.'))
      text += "<service>";
  }
  return text;
}

// A value may be megabytes long; a message is not. Cuts between characters.
std::string quoted(std::string const& text)
{
  constexpr std::size_t MAX_SHOWN = 80;
  if (text.size() <= MAX_SHOWN)
    return '"' + text + '"';
  std::size_t length = MAX_SHOWN;
  while ((static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
    --length;
  return '"' + text.substr(0, length) + "...\"";
}

// Keys that differ here only in the case of a host's name are one key.
std::string sameKey(std::string const& key)
{
  if (!key.starts_with(HOST_ADDRESS_KEY))
    return key;
  std::string lower = key;
  std::transform(lower.begin(), lower.end(), lower.begin(), asciiLower);
  return lower;
}

} // namespace

std::vector<ConfigurationProblem> Configuration::check() const
{
  struct Use
  {
    int line;
    std::string const* key;
    std::string const* value;
  };
  std::vector<Use> uses;
  for (auto const& [key, entries] : m_entries)
    for (auto const& entry : entries)
      if (entry.line != NO_LINE)
        uses.push_back({entry.line, &key, &entry.value});
  std::sort(uses.begin(), uses.end(), [](Use const& a, Use const& b) { return a.line < b.line; });

  std::vector<ConfigurationProblem> problems = m_problems;
  std::map<std::string, int> firstLine;
  for (auto const& use : uses)
  {
    auto const add = [&](std::string const& message) {
      problems.push_back({m_path, use.line, message});
    };
    KeyRule const* const rule = findRule(*use.key);
    if (rule == nullptr)
    {
      add("unknown key " + quoted(*use.key) + "; known are " + knownKeys());
      continue;
    }
    if (*use.key == rule->key && rule->key.ends_with('.'))
      add(*use.key + " lacks the name after the dot");
    else if (isAboutExplorer(*rule) && !isDefaultExplorer(use.key->substr(rule->key.size())))
      add("there is no explorer of the name in " + quoted(*use.key) +
          "; accepted: filesystem, host, service and volume");
    if (!rule->accepts(*use.value))
      add(quoted(*use.key) +
          (rule->isPeerList() ? " has " + PeerList::mistakeIn(*use.value)
                              : " is " + quoted(*use.value)) +
          "; accepted: " + rule->accepted());
    auto const [first, isFirst] = firstLine.emplace(sameKey(*use.key), use.line);
    if (!isFirst && rule->occurs == Occurs::Once)
      add(quoted(*use.key) + " is given again, first in line " + std::to_string(first->second) +
          "; accepted once, and the last value counts");
  }
  std::stable_sort(problems.begin(), problems.end(),
                   [](auto const& a, auto const& b) { return a.line < b.line; });
  return problems;
}

} // namespace Quillon::Tessarine::Ozf
