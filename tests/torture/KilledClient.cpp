// Stores discoveries with a service that is killed again and again, and says
// what Ledger.h understands. When a write gets no answer it says "lost", and
// goes on when it gets SIGUSR1.
//
// Usage: torture_client <product root> <host> <number> <seed>

#include "tests/support/RemoteClient.h"
#include "tests/support/SealedPayload.h"
#include "tests/torture/Versions.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <unistd.h>

namespace
{

using namespace tqtest::client;

void tell(std::string const& line)
{
  std::string const text = line + "\n";
  if (write(STDOUT_FILENO, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    std::exit(3);
}

// Writes until no answer comes.
void writeUntilLost(Client& client, std::string const& prefix, std::uint64_t& number,
                    std::mt19937& random)
{
  for (;; ++number)
  {
    std::string const name = prefix + std::to_string(random() % 3);
    Remote::Discovery record = makeRecord(name, tqtorture::AUTHORITY);
    record.attributes.discoveryTime = static_cast<CORBA::ULongLong>(number);
    std::string const what = name + " " + std::to_string(number);
    tell("begin " + what);
    try
    {
      DiscoveryStatus const status =
          client.store(record, tqtest::sealedPayload(name, number, random() % 5000));
      if (status != DS_SUCCESS)
      {
        tell("wrong a write is refused with status " + std::to_string(status));
        continue;
      }
    }
    catch (CORBA::Exception const&)
    {
      return;
    }
    tell("done " + what);
    if (random() % 8 != 0)
      continue;
    try
    {
      std::string const payload = client.read(name, tqtorture::AUTHORITY);
      std::uint64_t found = 0;
      std::string const flaw = tqtest::flawOf(payload, name, found);
      if (!flaw.empty() || found != number)
        tell("wrong after the acknowledgement is read: " +
             (flaw.empty() ? "another version" : flaw));
    }
    catch (CORBA::Exception const&)
    {
    }
  }
}

} // namespace

int main(int argc, char** argv)
{
  if (argc != 5)
    return 2;
  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGUSR1);
  // Before the ORB makes threads, which inherit it.
  sigprocmask(SIG_BLOCK, &awaited, nullptr);
  std::string const prefix = "c" + std::string(argv[3]) + "-";
  std::mt19937 random(static_cast<unsigned>(std::strtoul(argv[4], nullptr, 10)));
  std::uint64_t number = 1 + 10000000U * std::strtoul(argv[3], nullptr, 10);
  try
  {
    Client client(argv[1], argv[2]);
    for (;;)
    {
      while (!client.connected() && !client.connect())
        usleep(20000);
      writeUntilLost(client, prefix, number, random);
      ++number;
      tell("lost");
      int signal = 0;
      sigwait(&awaited, &signal);
    }
  }
  catch (CORBA::Exception const& exception)
  {
    std::fprintf(stderr, "%s\n", exception._name());
    return 1;
  }
}
