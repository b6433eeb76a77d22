#include "tools/MasterList.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/Digest.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/ConfigurationValues.h"
#include "tools/Output.h"

#include <algorithm>
#include <charconv>

namespace tqdiscoctl
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

bool isPort(std::string const& text)
{
  unsigned port = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port >= 1 && port <= 65535;
}

std::string trimmed(std::string const& text)
{
  auto const begin = text.find_first_not_of(" \t");
  return begin == std::string::npos ? std::string()
                                    : text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// What is wrong with one more, if anything is.
std::string addMaster(std::string const& text, MasterList& list)
{
  std::string host;
  std::string port;
  if (!parseMaster(text, host, port))
    return "\"" + shown(text) + "\" names no service; use --master HOST, HOST:PORT or " +
           "[ADDRESS]:PORT";
  if (!port.empty() && !list.port.empty() && port != list.port)
    return "the ports " + list.port + " and " + port +
           " are named; all masters that are asked together are reached at the same one";
  if (!port.empty())
    list.port = port;
  if (std::none_of(list.hosts.begin(), list.hosts.end(),
                   [&](std::string const& known) { return equalIgnoringCase(known, host); }))
    list.hosts.push_back(host);
  if (list.hosts.size() > MOST_MASTERS)
    return "more than " + std::to_string(MOST_MASTERS) +
           " masters are named, which is more than one command asks";
  return {};
}

// As it counts for weights.
std::string weighed(std::string name)
{
  if (name.size() > 1 && name.ends_with('.'))
    name.pop_back();
  std::transform(name.begin(), name.end(), name.begin(), asciiLower);
  return name;
}

} // namespace

bool parseMaster(std::string const& text, std::string& host, std::string& port)
{
  host = text;
  port.clear();
  if (text.starts_with('['))
  {
    auto const end = text.find(']');
    if (end == std::string::npos)
      return false;
    host = text.substr(1, end - 1);
    std::string const rest = text.substr(end + 1);
    if (!rest.empty() && !rest.starts_with(':'))
      return false;
    if (!rest.empty() && !isPort(port = rest.substr(1)))
      return false;
  }
  else if (std::count(text.begin(), text.end(), ':') == 1)
  {
    host = text.substr(0, text.find(':'));
    port = text.substr(text.find(':') + 1);
    if (!isPort(port))
      return false;
  }
  return !host.empty() && host.find_first_of(" \t\r\n/[]%") == std::string::npos;
}

std::string parseMasters(std::string const& text, MasterList& list)
{
  list = {};
  for (std::size_t at = 0; at <= text.size();)
  {
    std::size_t const end = std::min(text.find(',', at), text.size());
    if (std::string mistake = addMaster(trimmed(text.substr(at, end - at)), list); !mistake.empty())
      return mistake;
    at = end + 1;
  }
  return {};
}

std::string configuredMasters(MasterList& list)
{
  list = {};
  for (std::string const& line : getConfiguration()->list(configKey("MASTERS")))
    for (std::string const& entry : entriesOf(line))
      if (std::string mistake = addMaster(entry, list); !mistake.empty())
        return "MASTERS of " + getConfiguration()->path() + ": " + mistake;
  return {};
}

std::string const& masterOf(std::string const& host, std::vector<std::string> const& masters)
{
  std::string const behind = '\0' + weighed(host);
  std::string const* best = nullptr;
  std::string most; // digits of one length: the greater text is the greater number
  for (std::string const& master : masters)
  {
    std::string const name = weighed(master);
    std::string weight = digestOf(name + behind) + name; // two that weigh the same: by name
    if (best != nullptr && weight <= most)
      continue;
    best = &master;
    most = std::move(weight);
  }
  return *best;
}

} // namespace tqdiscoctl
