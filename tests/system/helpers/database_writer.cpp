// Persists discoveries until it is killed, and tells on its standard output
// what it is about to write and what it has written:
//
//   left <files>       temporary files that were there after the start
//   begin <name> <n>   the discovery <name> is about to get payload <n>
//   done <name> <n>    it has it
//
// It begins when it gets SIGUSR1, so that what the start has left can be looked
// at before.
//
// Usage: database_writer <first number> <names> [<writes>]

#include "tests/support/StoredRecord.h"

#include <sys/stat.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <unistd.h>

namespace
{

// At once, so that nothing said is lost with the process.
void say(std::string const& line)
{
  if (write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    std::exit(3);
}

std::size_t temporaryFiles(std::string const& directory)
{
  std::size_t count = 0;
  for (auto const& entry : std::filesystem::directory_iterator(directory))
    count += entry.path().extension() == ".updating";
  return count;
}

} // namespace

int main(int argc, char** argv)
{
  using namespace tqtest;
  if (argc < 3)
    return 2;
  std::uint64_t number = std::strtoull(argv[1], nullptr, 10);
  unsigned const names = static_cast<unsigned>(std::atoi(argv[2]));
  long writes = argc > 3 ? std::atol(argv[3]) : -1;

  sigset_t awaited;
  sigemptyset(&awaited);
  sigaddset(&awaited, SIGUSR1);
  sigprocmask(SIG_BLOCK, &awaited, nullptr);
  umask(027); // as the service's
  auto* const database = stored::getDiscoveryDBDatabase();
  database->init("");
  say("left " + std::to_string(temporaryFiles(database->getDirectory())) + "\n");
  int signal = 0;
  sigwait(&awaited, &signal);
  std::mt19937_64 random(number);
  for (; writes != 0; --writes, ++number)
  {
    std::string const name = "subject" + std::to_string(random() % names);
    std::size_t const size = random() % 20000;
    std::string const what = name + ' ' + std::to_string(number) + '\n';
    say("begin " + what);
    if (stored::write(name, number, size) != stored::DS_SUCCESS)
    {
      say("failed " + what);
      return 1;
    }
    say("done " + what);
  }
  return 0;
}
