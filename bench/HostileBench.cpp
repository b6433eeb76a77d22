// An honest client beside very many connections that do harm.
//
// All of it runs on this machine: what the attackers take of its processors is
// theirs, and the honest client's loss. So what they do anew each time is as much as
// is asked of the service to bear, and no more than that: 20,000 connections a minute.

#include "bench/Attackers.h"
#include "bench/BareTls.h"
#include "bench/Bench.h"
#include "bench/EndlessHost.h"
#include "bench/HostileMessages.h"
#include "bench/Records.h"
#include "bench/Service.h"
#include "bench/TlsCall.h"

#include "ozf/config/Configuration.h"
#include "tests/support/UnwellService.h"

#include <chrono>

namespace tqbench
{
namespace
{

constexpr std::size_t CONNECTIONS = 2000;
constexpr int ANEW = 20000 / 60; // connections a second
constexpr int PHASES = 5;
constexpr int QUERIES = 100;
constexpr std::chrono::milliseconds PAUSE(20);
constexpr std::size_t RECORDS = 100;

// What the pages on limits advise for peers that are not to be trusted; the honest
// client keeps to it.
constexpr char LIMITS[] = "LIMIT_PEER_REQUESTS = 300\n";

// Where nobody answers: ORB_PORT.SilentService.
constexpr char SILENT[] = "SilentService";

std::string portLine(char const* service, unsigned short port)
{
  return std::string("ORB_PORT.") + service + " = " + std::to_string(port) + '\n';
}

// Asks for data on demand of that service again and again, and announces it anew when the
// master may have forgotten it.
std::vector<std::string> requestsThatLeadTo(std::string const& service)
{
  constexpr std::size_t REQUESTS_EACH = 20;
  std::vector<std::string> messages(REQUESTS_EACH, dataRequestFor(service));
  messages.front() = registrationOf(service, service);
  return messages;
}

std::vector<Attack> attacks(std::string const& files)
{
  constexpr std::size_t DIFFERENT = 1000;
  std::string const question(QUESTION, sizeof QUESTION - 1);
  std::string const halfRequest("GIOP\1\2\1\0\x64\0\0\0\1\0\0\0\3\0\0\0", 20);
  std::string const halfHello("\x16\3\1\2\0\1\0\1\xfc\3\3", 11);
  std::string const broken = std::string("GIOP\1\2\1\0\x40\0\0\0", 12) + std::string(64, '\xff');
  return {
      {"that are idle", {}, Attack::WAIT, ANEW},
      {"with half a request", {halfRequest}, Attack::WAIT, ANEW},
      {"that read no answers", {question}, Attack::SEND_ALWAYS, ANEW},
      {"that send broken messages", {broken}, Attack::WAIT, ANEW},
      {"that send changed requests", mutatedMessages(DIFFERENT), Attack::ASK_AGAIN, ANEW},
      {"that come and go, 20,000 a minute", {}, Attack::LEAVE, ANEW},
      {"that ask as often as they are answered", {question}, Attack::ASK_AGAIN, ANEW},
      {"that stall in a TLS handshake", {halfHello}, Attack::WAIT, ANEW},
      {"that send changed TLS", mutatedHellos(DIFFERENT), Attack::WAIT, ANEW},
      {"that TLS refuses",
       {},
       Attack::WAIT,
       ANEW,
       {tlsContextOf(files, ""), tlsContextOf(files, "stranger"), tlsContextOf(files, "ended")}},
      // Of several that were announced only the last by name is asked.
      {"that have it ask for endless pages", requestsThatLeadTo(EndlessHost::SERVICE),
       Attack::ASK_AGAIN, ANEW},
      {"that have it ask a silent host", requestsThatLeadTo(SILENT), Attack::ASK_AGAIN, ANEW}};
}

// Beside "host" a certificate of another authority and one that has ended.
void makeAllCertificates(std::string const& files)
{
  auto authority = makeCertificates(files, {HOST});
  tqtest::Wish ended;
  ended.end = -60;
  authority.issue(files, "ended", ended);
  tqtest::CertificateAuthority("Other authority").issue(files, "stranger");
}

} // namespace

std::vector<Row> benchHostile(Settings const& settings)
{
  raiseDescriptorLimit(2 * CONNECTIONS);
  makeDatabase(settings.directory, RECORDS);
  openDatabase(settings.directory);
  std::string const files = settings.directory + "/certificates";
  makeAllCertificates(files);
  unsigned short const port = freePort();
  tqtest::SilentPort const silent;
  std::string const others =
      portLine(SILENT, silent.port()) + portLine(EndlessHost::SERVICE, freePort());
  writeConfiguration(settings.directory, port,
                     LIMITS + others + tqtest::tlsLines("both", files, "host"));
  require(reloadConfiguration(), "the configuration was refused");
  ServiceProcess const process(settings.service);
  auto const query = [] { return queryApart(QUERIES, PAUSE); };
  query(); // as soon as it serves: it has read what is for it alone
  writeConfiguration(settings.directory, port, others);
  require(reloadConfiguration(), "the configuration was refused");
  EndlessHost const endless;
  query(); // everything warm
  std::vector<Row> rows;
  for (Attack const& attack : attacks(files))
  {
    if (attack.work.find(settings.side) == std::string::npos)
      continue;
    std::vector<double> with;
    std::vector<double> without;
    for (int phase = 0; phase < PHASES; ++phase)
    {
      without.push_back(query());
      Attackers const attackers(attack, port, CONNECTIONS);
      with.push_back(query());
    }
    rows.push_back({"query beside " + std::to_string(CONNECTIONS) + " connections " + attack.work,
                    "us", median(with) * 1e6, "without them", median(without) * 1e6, 2.0});
  }
  return rows;
}

} // namespace tqbench
