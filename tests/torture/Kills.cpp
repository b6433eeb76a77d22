// Kills writers again and again, and looks after each kill whether everything
// that was acknowledged is there, whole, metadata and payload of one writing.
//
// Usage: kills writers|service [--kills N] [--seed N] [--life MICROSECONDS]
//
// Exit code 0 when nothing was lost or torn, 1 when something was, 2 when
// nothing could be tried.

#include "tests/torture/DatabaseJudge.h"
#include "tests/torture/KilledService.h"
#include "tests/torture/KilledWriters.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <stdexcept>

namespace
{

using namespace tqtorture;
namespace fs = std::filesystem;

struct KillOptions
{
  bool service = false;
  long kills = 1000;
  unsigned seed = 0; // of the clock
  unsigned life = 0;
};

std::optional<KillOptions> parseKillOptions(int argc, char** argv)
{
  KillOptions options;
  if (argc < 2 || argc % 2 != 0)
    return std::nullopt;
  std::string const mode = argv[1];
  if (mode != "writers" && mode != "service")
    return std::nullopt;
  options.service = mode == "service";
  options.life = options.service ? 400000 : 12000;
  options.seed = static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  for (int i = 2; i < argc; i += 2)
  {
    std::string const word = argv[i];
    unsigned long const value = std::strtoul(argv[i + 1], nullptr, 10);
    if (word == "--kills")
      options.kills = static_cast<long>(value);
    else if (word == "--seed")
      options.seed = static_cast<unsigned>(value);
    else if (word == "--life")
      options.life = static_cast<unsigned>(value);
    else
      return std::nullopt;
  }
  return options;
}

// In a scratch directory of its own.
KillResult killWriters(KillOptions const& options, std::mt19937& random)
{
  std::string folder = (fs::temp_directory_path() / "tq-torture-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr)
    throw std::runtime_error("cannot make a scratch directory");
  std::string const root = folder + "/root";
  fs::create_directory(root);
  setenv("TESSARINE_ROOT", root.c_str(), 1);
  warmUp();
  KillResult result;
  KilledWriters writers(root, random);
  while (result.kills < options.kills)
    writers.round(result, options.life);
  writers.finish(result);
  fs::remove_all(folder);
  return result;
}

int reportKills(KillOptions const& options, KillResult const& result, double seconds)
{
  long broken = 0;
  for (auto const& findings : {result.broken, result.ledger.wrong()})
    for (auto const& [what, count] : findings)
    {
      std::printf("BROKEN, %ld times: %s\n", count, what.c_str());
      broken += count;
    }
  std::printf("%ld kills of %s: %ld discoveries acknowledged, %ld looks after a kill, %ld puts "
              "finished without an answer, %ld first puts left empty metadata, %ld broken, "
              "%.0f s, seed %u\n",
              result.kills, options.service ? "the service" : "four writers",
              result.ledger.acknowledged(), result.looks, result.ledger.finished(),
              result.ledger.emptyMetadata(), broken, seconds, options.seed);
  if (result.kills == 0 || result.ledger.acknowledged() == 0 || result.looks == 0)
    return 2;
  return broken == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
  auto const options = parseKillOptions(argc, argv);
  if (!options)
  {
    std::cerr << "usage: kills writers|service [--kills N] [--seed N] [--life MICROSECONDS]\n";
    return 2;
  }
  try
  {
    auto const start = std::chrono::steady_clock::now();
    std::mt19937 random(options->seed);
    KillResult const result = options->service ? killService(options->kills, options->life, random)
                                               : killWriters(*options, random);
    return reportKills(
        *options, result,
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  catch (std::exception const& exception)
  {
    std::cerr << "kills: " << exception.what() << '\n';
    return 2;
  }
}
