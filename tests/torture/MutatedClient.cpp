// Calls a service again and again in every way that its interface has, and takes
// whatever comes back. Payloads are sealed: with "sealed" none may come back that is
// not one of those that were put.
//
// Usage: mutated_client <product root> <host> <seconds> <seed> any|sealed
//
// Prints how many calls were answered and how many failed. Exit code 1 when a payload
// is not what was put, 2 when no call was answered.

#include "tests/support/RemoteClient.h"
#include "tests/support/SealedPayload.h"

#include <chrono>
#include <cstdio>
#include <random>

namespace
{

using namespace tqtest::client;
using CallTime = std::chrono::steady_clock;

constexpr char MUTATED_AUTHORITY[] = "mutated";

class Caller
{
public:
  Caller(Client& client, unsigned seed, bool sealed)
      : m_client(client), m_random(seed), m_sealed(sealed), m_number(seed * 1000000ULL)
  {
  }

  void callOnce()
  {
    try
    {
      if (!m_client.connected() && !m_client.connect())
      {
        ++m_failed;
        return;
      }
      act();
      ++m_answered;
    }
    catch (CORBA::Exception const&)
    {
      ++m_failed;
      if (m_random() % 4 == 0)
        m_client.connect();
    }
  }

  int report() const
  {
    std::printf("%ld calls answered, %ld failed\n%s", m_answered, m_failed, m_flaws.c_str());
    return !m_flaws.empty() ? 1 : m_answered == 0 ? 2 : 0;
  }

private:
  std::string subject() { return "m" + std::to_string(m_random() % 12); }

  void act()
  {
    switch (m_random() % 6)
    {
    case 0:
    case 1:
    {
      std::string const name = subject();
      m_client.store(name, MUTATED_AUTHORITY,
                     tqtest::inXml(tqtest::sealedPayload(name, ++m_number, m_random() % 6000)));
      break;
    }
    case 2:
    case 3:
    {
      std::string const name = subject();
      std::string const payload = m_client.read(name, MUTATED_AUTHORITY);
      std::uint64_t number = 0;
      std::string const flaw = tqtest::flawOf(tqtest::outOfXml(payload), name, number);
      if (m_sealed && !payload.starts_with("(status ") && !flaw.empty())
        m_flaws += name + ": " + flaw + '\n';
      break;
    }
    case 4:
      m_client.subjects();
      break;
    default:
      m_client->registerExplorer("nowhere", "DiscoveryService", subject().c_str(), "announced",
                                 AT_EXTSRC, 1);
      break;
    }
  }

  Client& m_client;
  std::mt19937 m_random;
  bool const m_sealed;
  std::uint64_t m_number;
  long m_answered = 0;
  long m_failed = 0;
  std::string m_flaws;
};

} // namespace

int main(int argc, char** argv)
{
  if (argc != 6)
    return 3;
  Client client(argv[1], argv[2]);
  Caller caller(client, static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)),
                std::string(argv[5]) == "sealed");
  auto const end = CallTime::now() + std::chrono::seconds(std::atol(argv[3]));
  while (CallTime::now() < end)
    caller.callOnce();
  return caller.report();
}
