// The floor of what travels: servants in a process of their own that do
// nothing but hand out pages that lie ready.

#pragma once

#include <DiscoveryServiceC.h>

#include <string>
#include <sys/types.h>
#include <vector>

namespace tqbench
{

// Serves while it lives. Each object starts again after its empty page, and
// its pages are those of the product's servants: as many records or bytes, in
// the same types, through the same ORB with the same options.
class BareServer
{
public:
  static constexpr char SERVICE[] = "BareServer"; // ORB_PORT.BareServer is its port
  static constexpr char RECORDS[] = "Records";    // a DiscoveryIterator
  static constexpr char PAYLOAD[] = "Payload";    // a CollectionDataIterator
  static constexpr char MASTER[] = "Master";      // a DiscoveryService

  using Record = Quillon::Tessarine::Ozf::DiscoverySvc::Remote::Discovery;

  // Forks, so this process must have neither an ORB nor threads yet.
  BareServer(std::vector<Record> const& records, std::string const& payload);
  ~BareServer();
  BareServer(BareServer const&) = delete;
  BareServer& operator=(BareServer const&) = delete;

  pid_t pid() const noexcept { return m_pid; }

private:
  pid_t m_pid = 0;
  int m_life = -1; // closed, by whatever end of this process, it ends the server
};

} // namespace tqbench
