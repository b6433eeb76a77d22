#include "ozf/config/ConfigurationKey.h"

#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/IpAddress.h"
#include "ozf/config/ListenPlace.h"
#include "ozf/config/PeerList.h"

#include <algorithm>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t MAX_HOST_NAME = 255;
constexpr char LOG_TO_STDERR[] = "stderr";
constexpr char LOG_TO_SYSLOG[] = "syslog";

bool isHostName(std::string const& text)
{
  return !text.empty() && text.size() <= MAX_HOST_NAME &&
         text.find_first_of(" \t/") == std::string::npos;
}

bool isAddress(std::string const& text) { return IpAddress::fromText(text).has_value(); }

std::vector<std::string> wordsOf(std::string_view choices)
{
  std::vector<std::string> words;
  while (!choices.empty())
  {
    auto const end = choices.find(' ');
    words.emplace_back(choices.substr(0, end));
    choices.remove_prefix(end == std::string_view::npos ? choices.size() : end + 1);
  }
  return words;
}

// "off, both and only"
std::string listed(std::vector<std::string> const& words)
{
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i)
    text += (i == 0 ? "" : i + 1 == words.size() ? " and " : ", ") + words[i];
  return text;
}

} // namespace

std::string shownKey(ConfigurationKey const& key)
{
  return key.hasTwoParts() ? std::string(key.name) + '<' + key.part + '>' : key.name;
}

bool isAccepted(ConfigurationKey const& key, std::string const& value)
{
  switch (key.kind)
  {
  case KeyKind::HOST:
  case KeyKind::HOST_NAME:
    return isHostName(value);
  case KeyKind::HOSTS:
  {
    auto const entries = entriesOf(value);
    return !entries.empty() && std::all_of(entries.begin(), entries.end(), isHostName);
  }
  case KeyKind::ADDRESSES:
  {
    auto const entries = entriesOf(value);
    return !entries.empty() && std::all_of(entries.begin(), entries.end(), isAddress);
  }
  case KeyKind::OWN_ADDRESS:
    // Nobody else could use an address that holds on one link only.
    return isAddress(value) && value.find('%') == std::string::npos;
  case KeyKind::BOOLEAN:
    return parseBoolean(value).has_value();
  case KeyKind::NUMBER:
    return parseInteger(value, key.low, key.high).has_value();
  case KeyKind::SPAN:
    return parseSeconds(value).has_value();
  case KeyKind::PATH:
    return value.starts_with('/');
  case KeyKind::LOG_FILE:
    return value.starts_with('/') || value == LOG_TO_STDERR || value == LOG_TO_SYSLOG;
  case KeyKind::LOG_PATTERN:
    return isLogPattern(value);
  case KeyKind::NAMES:
    return !entriesOf(value).empty();
  case KeyKind::PEERS:
    return PeerList::mistakeIn(value).empty();
  case KeyKind::CHOICE:
    return std::ranges::count(wordsOf(key.choices), value) != 0;
  case KeyKind::LISTEN:
    return ListenPlace::fromText(value).has_value();
  }
  return false;
}

std::string acceptedBy(ConfigurationKey const& key)
{
  switch (key.kind)
  {
  case KeyKind::HOST:
    return "a host name or an address";
  case KeyKind::HOST_NAME:
    return "a host name";
  case KeyKind::HOSTS:
    return "host names or addresses, with commas between them";
  case KeyKind::ADDRESSES:
    return "an IPv4 or IPv6 address, or several with commas between them";
  case KeyKind::OWN_ADDRESS:
    return "one IPv4 or IPv6 address a line";
  case KeyKind::BOOLEAN:
    return "true, yes, on, 1, false, no, off and 0";
  case KeyKind::NUMBER:
    return "whole numbers from " + std::to_string(key.low) + " to " + std::to_string(key.high);
  case KeyKind::SPAN:
    return "spans of time as 90s, 15m, 1h and 2d";
  case KeyKind::PATH:
    return "an absolute path";
  case KeyKind::LOG_FILE:
    return std::string("an absolute path, ") + LOG_TO_STDERR + " and " + LOG_TO_SYSLOG;
  case KeyKind::LOG_PATTERN:
    return "patterns of texts, one a line, with five letters at least beside *";
  case KeyKind::NAMES:
    return "names, in which * stands for any text, with commas between them";
  case KeyKind::PEERS:
    return PEER_LIST_ENTRIES;
  case KeyKind::CHOICE:
    return listed(wordsOf(key.choices));
  case KeyKind::LISTEN:
    return "an address with a port, as 127.0.0.1:27580 or [::1]:27580, or the absolute path of a "
           "socket, of 107 bytes at most";
  }
  return {};
}

std::string acceptedParts(ConfigurationKey const& key)
{
  std::vector<std::string> names;
  for (KeyPart const& part : key.parts)
    names.emplace_back(part.name);
  return listed(names);
}

std::string defaultOf(ConfigurationKey const& key, std::string const& second)
{
  long const number = key.numberOf(second);
  switch (key.kind)
  {
  case KeyKind::BOOLEAN:
    return number != 0 ? "yes" : "no";
  case KeyKind::NUMBER:
    return number < key.low ? std::string() : std::to_string(number);
  case KeyKind::SPAN:
    return number == 0 ? std::string() : spanText(number);
  default:
    return key.word;
  }
}

ConfigurationKey const* findKey(std::string_view name)
{
  for (ConfigurationKey const& key : CONFIGURATION_KEYS)
    if (key.hasTwoParts() ? name.starts_with(key.name) : name == key.name)
      return &key;
  return nullptr;
}

} // namespace Quillon::Tessarine::Ozf
