#include "ozf/config/PeerList.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/Wildcard.h"
#include "ozf/config/Configuration.h"
#include "ozf/config/ConfigurationValues.h"
#include "ozf/config/HostAddresses.h"
#include "ozf/config/ConfigurationKeys.h"
#include "ozf/config/HostRole.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t LONGEST_ENTRY = 255;
constexpr std::size_t LONGEST_TEXT = 200;
constexpr int IPV4_BITS = 32;
constexpr int IPV6_BITS = 128;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return asciiLower(c) >= 'a' && asciiLower(c) <= 'z'; }

// Of host names. What has digits and no letter was meant for an address.
bool isNamePattern(std::string const& entry)
{
  auto const isOfNames = [](char c)
  { return isLetter(c) || isDigit(c) || c == '.' || c == '-' || c == '_' || c == '*'; };
  return std::all_of(entry.begin(), entry.end(), isOfNames) &&
         (std::any_of(entry.begin(), entry.end(), isLetter) ||
          std::none_of(entry.begin(), entry.end(), isDigit));
}

std::string quoted(std::string const& entry)
{
  constexpr std::size_t MOST_SHOWN = 80;
  return entry.size() <= MOST_SHOWN ? '"' + entry + '"'
                                    : '"' + entry.substr(0, MOST_SHOWN) + "...\"";
}

std::string_view withoutDot(std::string_view name)
{
  if (name.size() > 1 && name.ends_with('.'))
    name.remove_suffix(1);
  return name;
}

// certified: a name of a certificate.
bool namesHost(std::string_view certified, std::string_view host)
{
  certified = withoutDot(certified);
  if (equalIgnoringCase(certified, host))
    return true;
  auto const label = host.find('.');
  return certified.starts_with("*.") && label != std::string_view::npos && label != 0 &&
         equalIgnoringCase(certified.substr(1), host.substr(label));
}

} // namespace

// ---- who calls ----

Caller::Caller(std::string const& address, std::string const& reached,
               std::vector<std::string> const& names)
    : m_address(IpAddress::fromText(address)),
      m_reached(IpAddress::fromText(reached)),
      m_names(names)
{
}

bool Caller::isThisHost() const
{
  if (!m_address)
    return false;
  // The address of calls to any other of the loopback network, too.
  static IpAddress const loopback = *IpAddress::fromText("127.0.0.1");
  return *m_address == loopback || (m_address->isLoopback() && !m_address->isIpv4()) ||
         m_address == m_reached || isOwnAddress(*m_address);
}

bool Caller::isProvenToBe(std::string const& host) const
{
  if (host.empty())
    return false;
  auto const address = IpAddress::fromText(host);
  return std::any_of(m_names.begin(), m_names.end(),
                     [&](std::string const& name) {
                       return address ? IpAddress::fromText(name) == address
                                      : namesHost(name, withoutDot(host));
                     });
}

bool Caller::isHost(std::string const& host) const
{
  return isProvenToBe(host) || (!host.empty() && m_address && isAddressOf(host, *m_address));
}

bool Caller::isMaster() const
{
  auto const configuration = getConfiguration();
  std::string const* const server = configuration->find(configKey("SERVER"));
  return server != nullptr && isHost(*server);
}

// ---- lists ----

PeerList::PeerList() : m_any(true), m_text("any") {}

std::optional<PeerList> PeerList::parse(std::vector<std::string> const& lines, std::string& mistake)
{
  PeerList list;
  list.m_any = false;
  list.m_text.clear();
  for (auto const& line : lines)
  {
    auto const entries = entriesOf(line);
    if (entries.empty())
    {
      mistake = "a list without an entry";
      return {};
    }
    for (auto const& entry : entries)
    {
      if (!list.add(entry, mistake))
        return {};
      list.m_text += (list.m_text.empty() ? "" : ", ") + entry;
    }
  }
  if (list.m_text.size() > LONGEST_TEXT)
    list.m_text = list.m_text.substr(0, list.m_text.rfind(',', LONGEST_TEXT)) + ", ...";
  return list;
}

std::string PeerList::mistakeIn(std::string const& line)
{
  std::string mistake;
  parse({line}, mistake);
  return mistake;
}

bool PeerList::add(std::string const& entry, std::string& mistake)
{
  if (equalIgnoringCase(entry, "any"))
    m_any = true;
  else if (equalIgnoringCase(entry, "local"))
    m_local = true;
  else if (equalIgnoringCase(entry, "master"))
    m_master = true;
  else if (equalIgnoringCase(entry, "none"))
    return true;
  else if (entry.find('/') != std::string::npos)
    return addNetwork(entry, mistake);
  else if (auto const address = IpAddress::fromText(entry);
           address && entry.find('%') == std::string::npos)
    m_networks.emplace_back(*address, address->isIpv4() ? IPV4_BITS : IPV6_BITS);
  else if (entry.size() <= LONGEST_ENTRY && isNamePattern(entry))
    m_patterns.push_back(entry);
  else
  {
    mistake = quoted(entry);
    return false;
  }
  return true;
}

bool PeerList::addNetwork(std::string const& entry, std::string& mistake)
{
  auto const slash = entry.find('/');
  auto const address = IpAddress::fromText(entry.substr(0, slash));
  bool const isShort = address && entry.substr(0, slash).find(':') == std::string::npos;
  auto const bits = parseInteger(entry.substr(slash + 1), 0, isShort ? IPV4_BITS : IPV6_BITS);
  if (!address || !bits || address->isIpv4() != isShort || entry.find('%') != std::string::npos)
    mistake = quoted(entry);
  else if (!address->endsAfter(static_cast<int>(*bits)))
    mistake = quoted(entry) + ", an address with bits behind the first " + std::to_string(*bits) +
              " of a network";
  else
  {
    m_networks.emplace_back(*address, static_cast<int>(*bits));
    return true;
  }
  return false;
}

bool PeerList::holds(Caller const& caller) const
{
  return holdsForGood(caller) || (m_master && caller.isMaster());
}

bool PeerList::holdsForGood(Caller const& caller) const
{
  if (m_any || (m_local && caller.isThisHost()))
    return true;
  if (caller.address() &&
      std::any_of(m_networks.begin(), m_networks.end(),
                  [&](auto const& network)
                  { return caller.address()->isWithin(network.first, network.second); }))
    return true;
  for (auto const& name : caller.names())
    if (name.find('\0') == std::string::npos &&
        std::any_of(m_patterns.begin(), m_patterns.end(),
                    [&](std::string const& pattern)
                    { return wildcardcmp(pattern, name, true) == 0; }))
      return true;
  return false;
}

} // namespace Quillon::Tessarine::Ozf
