#include "explorers/ListenerCollector.h"

#include "discovery/DiscoveryLog.h"
#include "explorers/FactFiles.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
{

namespace
{

constexpr char SOURCE[] = "ListenerCollector";

// The kernel lists the sockets that listen before all others, of which a host may have
// a million; those of UDP it does not tell apart before they were read.
constexpr std::uint64_t TABLE_LIMIT = 16U << 20U;
constexpr std::size_t MOST_LISTENERS = 10'000;

constexpr std::string_view LISTENING = "0A";
constexpr std::string_view UNCONNECTED = "07"; // a socket of UDP that takes from anybody

struct Table
{
  char const* path;
  char const* protocol;
  std::string_view state;
};

constexpr std::array<Table, 4> TABLES = {{{"proc/net/tcp", "tcp", LISTENING},
                                          {"proc/net/tcp6", "tcp", LISTENING},
                                          {"proc/net/udp", "udp", UNCONNECTED},
                                          {"proc/net/udp6", "udp", UNCONNECTED}}};

struct Socket
{
  Listener listener;
  std::string inode;
};

template <class Number>
bool readHex(std::string_view text, Number& number)
{
  char const* const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number, 16);
  return error == std::errc() && stop == end;
}

// The address as the kernel writes it: words of 32 bits, each as the number that it is
// where it lies in memory.
std::optional<std::string> parseAddress(std::string_view text)
{
  constexpr std::size_t DIGITS = 8;
  constexpr std::size_t MOST_WORDS = 4;
  std::array<std::uint32_t, MOST_WORDS> words = {};
  if (text.size() != DIGITS && text.size() != MOST_WORDS * DIGITS)
    return std::nullopt;
  for (std::size_t i = 0; i * DIGITS < text.size(); ++i)
    if (!readHex(text.substr(i * DIGITS, DIGITS), words[i]))
      return std::nullopt;
  std::array<char, INET6_ADDRSTRLEN> shown = {};
  int const family = text.size() == DIGITS ? AF_INET : AF_INET6;
  if (inet_ntop(family, words.data(), shown.data(), shown.size()) == nullptr)
    return std::nullopt;
  return shown.data();
}

std::optional<Socket> parseSocket(std::string_view line, Table const& table, bool& ofState)
{
  enum Column
  {
    LOCAL = 1,
    STATE = 3,
    USER = 7,
    INODE = 9,
    COLUMNS
  };
  auto const words = wordsOf(line);
  if (words.size() < COLUMNS || !words[0].ends_with(':')) // the line above the others
    return std::nullopt;
  ofState = words[STATE] == table.state;
  auto const colon = words[LOCAL].find(':');
  if (!ofState || colon == std::string_view::npos)
    return std::nullopt;
  auto const address = parseAddress(words[LOCAL].substr(0, colon));
  Socket found;
  if (!address || !readHex(words[LOCAL].substr(colon + 1), found.listener.port) ||
      !parseNumber(words[USER]) || !parseNumber(words[INODE]))
    return std::nullopt;
  found.listener.protocol = table.protocol;
  found.listener.address = *address;
  found.listener.user = words[USER];
  found.inode = words[INODE];
  return found;
}

std::vector<Socket> readSockets(std::string const& root)
{
  std::vector<Socket> sockets;
  for (Table const& table : TABLES)
    readLines(root, table.path, TABLE_LIMIT,
              [&](std::string_view line)
              {
                bool ofState = true;
                if (auto found = parseSocket(line, table, ofState))
                  sockets.push_back(std::move(*found));
                if (sockets.size() == MOST_LISTENERS)
                  OZF_LOG(getOzfLogger(), 1, SOURCE, "collectListeners",
                          "More than " << MOST_LISTENERS
                                       << " sockets listen, the others are left out");
                return sockets.size() < MOST_LISTENERS && (ofState || table.state != LISTENING);
              });
  return sockets;
}

using Holders = std::map<std::string, std::vector<std::string>>; // process names by inode

// Looks through the descriptors of all processes, and gives up when the time is over.
class ProcessSearch
{
public:
  ProcessSearch(std::string root, Holders& holders, std::chrono::milliseconds budget)
      : m_root(std::move(root)), m_holders(holders), m_end(Clock::now() + budget)
  {
  }

  void run()
  {
    std::vector<std::uint64_t> processes;
    for (std::string const& name : namesIn(m_root, "proc"))
      if (auto const process = parseNumber(name))
        processes.push_back(*process);
    std::sort(processes.begin(), processes.end());
    for (auto const process : processes)
      if (!lookInto("proc/" + std::to_string(process)))
      {
        OZF_LOG(getOzfLogger(), 4, SOURCE, "collectListeners",
                "Not all processes could be looked into in time; some listeners lack theirs");
        return;
      }
  }

private:
  using Clock = std::chrono::steady_clock;

  // False when the time is over.
  bool lookInto(std::string const& process)
  {
    std::string const folder = below(m_root, process + "/fd");
    std::unique_ptr<DIR, int (*)(DIR*)> const descriptors(opendir(folder.c_str()), closedir);
    if (!descriptors)
      return Clock::now() < m_end;
    std::string name;
    while (dirent const* const entry = readdir(descriptors.get()))
    {
      constexpr std::string_view BEGINNING = "socket:[";
      if (Clock::now() >= m_end)
        return false;
      auto const target = readLink(folder + '/' + entry->d_name);
      if (!target || !target->starts_with(BEGINNING) || !target->ends_with(']'))
        continue;
      auto const found =
          m_holders.find(target->substr(BEGINNING.size(), target->size() - BEGINNING.size() - 1));
      if (found == m_holders.end())
        continue;
      if (name.empty())
        name = readFact(m_root, process + "/comm").value_or("?");
      constexpr std::size_t MOST_NAMES = 8;
      auto& names = found->second;
      if (names.size() < MOST_NAMES && std::find(names.begin(), names.end(), name) == names.end())
        names.push_back(name);
    }
    return true;
  }

  std::string const m_root;
  Holders& m_holders;
  Clock::time_point const m_end;
};

std::map<std::string, std::string> readUsers(std::string const& root)
{
  std::map<std::string, std::string> names;
  readLines(root, "etc/passwd", TABLE_LIMIT,
            [&](std::string_view line)
            {
              auto const name = line.substr(0, line.find(':'));
              line.remove_prefix(std::min(line.size(), name.size() + 1));
              line.remove_prefix(std::min(line.size(), line.find(':')));
              line.remove_prefix(std::min<std::size_t>(line.size(), 1));
              auto const number = line.substr(0, line.find(':'));
              if (!name.empty() && parseNumber(number))
                names.emplace(number, name);
              return true;
            });
  return names;
}

} // namespace

std::vector<Listener> collectListeners(std::string const& root, std::chrono::milliseconds budget)
{
  auto sockets = readSockets(root);
  Holders holders;
  for (Socket const& found : sockets)
    if (found.inode != "0") // of the kernel itself
      holders[found.inode];
  if (!holders.empty())
    ProcessSearch(root, holders, budget).run();

  auto const users = readUsers(root);
  std::vector<Listener> listeners;
  for (Socket& found : sockets)
  {
    if (auto const user = users.find(found.listener.user); user != users.end())
      found.listener.user = user->second;
    if (auto const held = holders.find(found.inode); held != holders.end())
      for (auto const& name : held->second)
        found.listener.process += (found.listener.process.empty() ? "" : ", ") + name;
    listeners.push_back(std::move(found.listener));
  }
  std::sort(listeners.begin(), listeners.end());
  listeners.erase(std::unique(listeners.begin(), listeners.end()), listeners.end());
  return listeners;
}

std::string nameOf(Listener const& listener)
{
  bool const six = listener.address.find(':') != std::string::npos;
  return listener.protocol + (six ? " [" : " ") + listener.address + (six ? "]:" : ":") +
         std::to_string(listener.port);
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc::Explorers
