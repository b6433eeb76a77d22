// What TLS costs: calls and writes to a service that takes TLS alone, beside the same
// to one that takes none, and full handshakes of the service beside those of a bare
// server with the same files.

#include "bench/BareTls.h"
#include "bench/Bench.h"
#include "bench/Records.h"
#include "bench/TwoServices.h"
#include "bench/Writers.h"

#include "tests/support/Certificates.h"

#include <algorithm>

namespace tqbench
{
namespace
{

constexpr int CALL_ROUNDS = 21;

constexpr std::size_t CLIENTS = 50;
constexpr std::size_t WRITES = 40; // of each client in a round
constexpr int WRITE_ROUNDS = 5;

constexpr int HANDSHAKE_ROUNDS = 11;
constexpr std::size_t HANDSHAKES = 200; // in a round

} // namespace

std::vector<Row> benchTls(Settings const& settings)
{
  BareTls bare; // forks
  std::string const files = settings.directory + "/certificates";
  makeCertificates(files, {HOST, TwoServices::HOST6});
  TwoServices services(settings, tqtest::tlsLines("only", files, "host"),
                       tqtest::tlsLines("both", files, "host"));
  bare.begin(files);

  std::vector<double> const perCall = services.compareCalls(settings, CALL_ROUNDS);

  std::string const payload = payloadOf(4);
  auto const writes = [&](bool tls)
  {
    return [&, tls]
    {
      auto const times = together(CLIENTS, WRITES,
                                  [&](std::size_t number)
                                  {
                                    // A master serves only so many writers of one address.
                                    Remote::DiscoveryService_var const service =
                                        services.connect(tls, number / WRITES % 2 != 0);
                                    writeByCalls(service, number, payload);
                                  });
      return *std::max_element(times.begin(), times.end()) / (CLIENTS * WRITES);
    };
  };
  std::vector<double> const perWrite =
      alternate(settings, {{"product", writes(true)}, {"floor", writes(false)}}, WRITE_ROUNDS);

  TlsCallers callers(files);
  auto const handshakes = [&](unsigned short port)
  { return [&, port] { return callers.shakeHands(port, HANDSHAKES) / HANDSHAKES; }; };
  std::vector<double> const perHandshake = alternate(
      settings,
      {{"product", handshakes(services.secondPort())}, {"floor", handshakes(bare.port())}},
      HANDSHAKE_ROUNDS);

  std::string const many = std::to_string(CLIENTS) + " clients write at once, 4 KiB payload, ";
  return {{"a call with TLS", "us", perCall[0] * 1e6, "without", perCall[1] * 1e6, 5},
          {many + "with TLS", "us", perWrite[0] * 1e6, "without", perWrite[1] * 1e6, 1 / 0.7},
          {"a full handshake of both sides", "us", perHandshake[0] * 1e6, "of a bare server",
           perHandshake[1] * 1e6, 1 / 0.8}};
}

} // namespace tqbench
