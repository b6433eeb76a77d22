// A service under hostile messages for a time: it answers all the while, and
// stops in order.
//
// Usage: attacked_service SECONDS SEED
//
// Exit code 0 when it held, 1 when not, 2 when nothing could be tried.

#include "tests/support/LiveService.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
  if (argc != 3)
  {
    std::fprintf(stderr, "usage: attacked_service SECONDS SEED\n");
    return 2;
  }
  tqtest::LiveService service;
  if (!service.start())
  {
    std::fprintf(stderr, "attacked_service: no service:\n%s", service.log().c_str());
    return 2;
  }
  Process attacker(TQ_BIN_DIR "/message_attacker",
                   {std::to_string(service.port()), argv[1], argv[2]});
  // Somebody honest asks all the while, one question after the other.
  using Watch = std::chrono::steady_clock;
  auto const start = Watch::now();
  auto const latest = start + std::chrono::seconds(std::atol(argv[1]) + 120);
  Watch::duration longest{};
  int asked = 0;
  int refused = 0;
  while (attacker.running() && service.process().running() && Watch::now() < latest)
  {
    auto const before = Watch::now();
    refused += service.tqdiscoctl({"status"}).exitCode != 0;
    longest = std::max(longest, Watch::now() - before);
    ++asked;
  }
  double const minutes =
      std::chrono::duration<double, std::ratio<60>>(Watch::now() - start).count();
  bool const ended = attacker.wait(std::chrono::seconds(120));
  int const attack = ended ? attacker.exitCode() : -1;
  if (attack == 127)
  {
    std::fprintf(stderr, "attacked_service: cannot run message_attacker\n");
    return 2;
  }
  bool const alive = service.process().running();
  int const answer = alive ? service.tqdiscoctl({"status"}).exitCode : -1;
  int const code = alive ? service.stop() : service.process().exitCode();
  std::printf("%sin %.1f minutes, %d questions beside them, %d not answered, %.1f s the longest\n"
              "the attacker ended with %d, the service %s, \"status\" with %d, the stop with %d; "
              "%s s, seed %s\n",
              attacker.output().c_str(), minutes, asked, refused,
              std::chrono::duration<double>(longest).count(), attack, alive ? "lived" : "DIED",
              answer, code, argv[1], argv[2]);
  bool const held = attack == 0 && alive && refused == 0 && answer == 0 && code == 0;
  if (!held)
  {
    std::string const log = service.log();
    std::printf("BROKEN; the log ends with:\n%s\n",
                log.substr(log.size() - std::min<std::size_t>(log.size(), 3000)).c_str());
  }
  return held ? 0 : 1;
}
