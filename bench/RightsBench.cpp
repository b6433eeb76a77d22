// What lists of who may do what, and limits of peers, cost a call: a service that has
// them beside one that has none.

#include "bench/Bench.h"
#include "bench/TwoServices.h"

namespace tqbench
{
namespace
{

constexpr int ROUNDS = 41;

// Every list names the caller last, and every limit that counts calls or what they
// open is there and far away.
constexpr char RIGHTS_AND_LIMITS[] = "ALLOW_READ = 192.0.2.0/24, web*.example.net, 127.0.0.0/8\n"
                                     "ALLOW_WRITE = 192.0.2.0/24, web*.example.net, 127.0.0.0/8\n"
                                     "ALLOW_CONTROL = local, master, admin.example.net\n"
                                     "ALLOW_WRITE_AS = relay.example.net\n"
                                     "LIMIT_CONNECTIONS = 10000\n"
                                     "LIMIT_PEER_CONNECTIONS = 1000\n"
                                     "LIMIT_PEER_REQUESTS = 1000000\n"
                                     "LIMIT_PEER_ITERATORS = 1000\n"
                                     "LIMIT_PEER_REGISTRATIONS = 1000\n"
                                     "LIMIT_PEER_DAY_BYTES = 1000000000000\n";

} // namespace

std::vector<Row> benchRights(Settings const& settings)
{
  TwoServices services(settings, RIGHTS_AND_LIMITS, "");
  std::vector<double> const perCall = services.compareCalls(settings, ROUNDS);
  return {
      {"a call with roles and limits", "us", perCall[0] * 1e6, "without", perCall[1] * 1e6, 1.05}};
}

} // namespace tqbench
