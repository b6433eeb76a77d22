// Fails single system calls of the library and of the service, and looks
// whether the answer is true and what is stored is whole.
//
// Usage: faults library|service [--most N] [--seed N] [--operation NAME]...
//                               [--fault "CALL NUMBER ERROR"] [--examples N]
//
// Exit code 0 when nothing broke, 1 when something did, 2 when nothing could be
// tried.

#include "tests/torture/FaultedLibrary.h"
#include "tests/torture/FaultedService.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <stdexcept>

namespace
{

using namespace tqtorture;

struct FaultWords
{
  bool service = false;
  FaultOptions options;
  long examples = 1;
};

std::optional<FaultWords> parseFaultWords(int argc, char** argv)
{
  FaultWords words;
  if (argc < 2 || argc % 2 != 0)
    return std::nullopt;
  std::string const mode = argv[1];
  if (mode != "library" && mode != "service")
    return std::nullopt;
  words.service = mode == "service";
  for (int i = 2; i < argc; i += 2)
  {
    std::string const word = argv[i];
    std::string const value = argv[i + 1];
    if (word == "--most")
      words.options.most = std::strtoul(value.c_str(), nullptr, 10);
    else if (word == "--seed")
      words.options.seed = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
    else if (word == "--operation")
      words.options.operations.insert(value);
    else if (word == "--fault")
      words.options.fault = value;
    else if (word == "--examples")
      words.examples = std::strtol(value.c_str(), nullptr, 10);
    else
      return std::nullopt;
  }
  return words;
}

} // namespace

int main(int argc, char** argv)
{
  auto const words = parseFaultWords(argc, argv);
  if (!words)
  {
    std::cerr << "usage: faults library|service [--most N] [--seed N] [--operation NAME]...\n"
                 "                              [--fault \"CALL NUMBER ERROR\"] [--examples N]\n";
    return 2;
  }
  try
  {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    FaultReport report(words->examples);
    if (words->service)
      faultService(words->options, report);
    else
      faultLibrary(words->options, report);
    return report.finish("faults", words->options.seed);
  }
  catch (std::exception const& exception)
  {
    std::cerr << "faults: " << exception.what() << '\n';
    return 2;
  }
}
