// A fleet that comes back to a master which was started anew, some hundreds of hosts at a
// time or all in the same moment, and each with a full handshake, beside what openssl's own
// programs do with the same keys on the same processors.

#include "bench/BareTls.h"
#include "bench/Bench.h"
#include "bench/Herd.h"
#include "bench/Openssl.h"
#include "bench/Records.h"
#include "bench/Service.h"

#include "ozf/config/Configuration.h"

namespace tqbench
{
namespace
{

constexpr std::size_t HOSTS = 10000;
constexpr int RESTARTS = 3;
constexpr std::size_t SOME_HUNDREDS = 256; // for each processor

struct Medians
{
  double perHandshake = 0;
  double again = 0;
};

} // namespace

std::vector<Row> benchReconnect(Settings const& settings)
{
  raiseDescriptorLimit(HOSTS);
  openDatabase(settings.directory);
  std::string const files = settings.directory + "/certificates";
  auto authority = makeCertificates(files, {HOST});
  unsigned short const port = freePort();
  writeConfiguration(settings.directory, port, tqtest::tlsLines("only", files, "host"));
  require(reloadConfiguration(), "the configuration was refused");
  Herd herd(authority, files, HOSTS);
  OpensslPairs openssl(files);

  std::vector<double> floor;
  auto const gather = [&](std::size_t underWay)
  {
    std::vector<double> product;
    std::vector<double> again;
    for (int start = 0; start <= RESTARTS; ++start)
    {
      ServiceProcess const process(settings.service);
      awaitListener(port);
      auto const [seconds, more] = herd.gather(port, underWay);
      double const perHandshake = openssl.shakeHands();
      if (start == 0)
        continue; // nobody comes back yet, and all is warm behind it
      product.push_back(seconds / HOSTS);
      floor.push_back(perHandshake);
      again.push_back(static_cast<double>(more));
    }
    return Medians{median(product), median(again)};
  };
  Medians const some = gather(SOME_HUNDREDS);
  Medians const all = gather(HOSTS);
  double const bare = median(floor);
  constexpr char BARE[] = "of openssl s_time and s_server";
  std::string const hosts = std::to_string(HOSTS) + " hosts after a restart";
  std::string const once = " in the same moment";
  return {
      {"a full handshake of " + hosts, "us", some.perHandshake * 1e6, BARE, bare * 1e6, 1 / 0.8},
      {"connections that " + hosts + " tried again", "", some.again, "", {}, {}},
      {"a full handshake of " + hosts + once, "us", all.perHandshake * 1e6, BARE, bare * 1e6,
       1 / 0.8},
      {"connections that " + hosts + once + " tried again", "", all.again, "", {}, {}}};
}

} // namespace tqbench
