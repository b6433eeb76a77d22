// tqbench: runs the benchmarks, each in a process and a directory of its own,
// and prints their rows as one table.

#include "bench/Bench.h"
#include "bench/Records.h"

#include "ozf/log/Logger.h"

#include <CLI/CLI.hpp>
#include <sys/utsname.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <linux/magic.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <thread>

namespace
{

using namespace tqbench;

struct Benchmark
{
  char const* name;
  std::vector<Row> (*run)(Settings const&);
  bool readsDatabase;
};

constexpr Benchmark BENCHMARKS[] = {{"persist", benchPersist, false},
                                    {"enumerate", benchEnumerate, true},
                                    {"lookup", benchLookup, true},
                                    {"parse", benchParse, false},
                                    {"items", benchItems, false},
                                    {"query", benchQuery, false},
                                    {"list", benchList, true},
                                    {"payload", benchPayload, false},
                                    {"write", benchWrite, false},
                                    {"large", benchLargeWrite, false},
                                    {"fleet", benchFleetWrites, false},
                                    {"idle", benchIdleConnections, false},
                                    {"scale", benchScale, false},
                                    {"memory", benchServiceMemory, true},
                                    {"tls", benchTls, false},
                                    {"reconnect", benchReconnect, false},
                                    {"rights", benchRights, false},
                                    {"hostile", benchHostile, false},
                                    {"webhosts", benchGatewayHosts, false},
                                    {"webmetrics", benchGatewayMetrics, false},
                                    {"webrest", benchGatewayRest, false},
                                    {"webmemory", benchGatewayMemory, true},
                                    {"publish", benchPublish, false}};

class ScratchDirectory
{
public:
  explicit ScratchDirectory(std::string const& parent) : m_path(parent + "/tqbench-XXXXXX")
  {
    require(::mkdtemp(m_path.data()) != nullptr, "cannot make a directory to work in");
  }
  ~ScratchDirectory()
  {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  ScratchDirectory(ScratchDirectory const&) = delete;
  ScratchDirectory& operator=(ScratchDirectory const&) = delete;

  std::string const& path() const { return m_path; }

private:
  std::string m_path;
};

// A process has one database, one ORB and one log, so each benchmark gets a
// process. The rows come back as JSON; nothing when it failed.
std::optional<std::vector<Row>> runApart(Benchmark const& benchmark, Settings settings)
{
  ScratchDirectory const scratch(settings.directory);
  settings.directory = scratch.path();
  int ends[2];
  require(::pipe(ends) == 0, "no pipe");
  pid_t const pid = ::fork();
  require(pid >= 0, "no process");
  if (pid == 0)
  {
    ::close(ends[0]);
    try
    {
      std::string const text = nlohmann::json(benchmark.run(settings)).dump();
      require(::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()),
              "the rows were not written");
      ::_exit(0);
    }
    catch (std::exception const& exception)
    {
      std::cerr << benchmark.name << ": " << exception.what() << '\n';
      ::_exit(1);
    }
  }
  ::close(ends[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t count; (count = ::read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(count));
  ::close(ends[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    return std::nullopt;
  return nlohmann::json::parse(text).get<std::vector<Row>>();
}

std::string fileSystemOf(std::string const& directory)
{
  struct statfs status = {};
  require(::statfs(directory.c_str(), &status) == 0, "the directory has no file system");
  switch (status.f_type)
  {
  case EXT4_SUPER_MAGIC:
    return "ext4";
  case XFS_SUPER_MAGIC:
    return "xfs";
  case BTRFS_SUPER_MAGIC:
    return "btrfs";
  case OVERLAYFS_SUPER_MAGIC:
    return "overlayfs";
  case TMPFS_MAGIC:
    return "tmpfs, whose flushes cost nothing";
  default:
    return "type " + std::to_string(status.f_type);
  }
}

nlohmann::json describeMachine(std::string const& directory)
{
  utsname system = {};
  ::uname(&system);
  double load[3] = {};
  ::getloadavg(load, 3);
  return {{"kernel", system.release},
          {"processors", std::thread::hardware_concurrency()},
          {"fileSystem", fileSystemOf(directory)},
          {"loadAtStart", load[0]}};
}

std::string figure(std::optional<double> const& value)
{
  if (!value || std::isnan(*value))
    return "-";
  char text[32];
  std::snprintf(text, sizeof text, *value < 100 ? "%.2f" : "%.0f", *value);
  return text;
}

void print(std::vector<Row> const& rows)
{
  std::printf("%-68s %9s %-12s %-37s %9s %6s %6s\n", "work", "value", "", "floor", "value", "ratio",
              "target");
  for (Row const& row : rows)
  {
    auto const ratio = row.floor ? std::optional(row.value / *row.floor) : std::nullopt;
    bool const missed = row.target && ratio.value_or(row.value) > *row.target;
    std::printf("%-68s %9s %-12s %-37s %9s %6s %6s%s\n", row.work.c_str(),
                figure(row.value).c_str(), row.unit.c_str(), row.floorName.c_str(),
                figure(row.floor).c_str(), figure(ratio).c_str(), figure(row.target).c_str(),
                missed ? "  missed" : "");
  }
  std::fflush(stdout); // removing a large database takes its time
}

} // namespace

int main(int argc, char** argv)
{
  Settings settings;
  settings.directory = ".";
  settings.program = std::filesystem::read_symlink("/proc/self/exe");
  std::string out;
  std::vector<std::string> only;

  CLI::App app("Measures the discovery service against the floor of each piece of work.");
  app.add_option("--directory", settings.directory, "where the files to work on are made")
      ->check(CLI::ExistingDirectory);
  app.add_option("--service", settings.service, "tqdisco, for what is read from another process");
  app.add_option("--out", out, "file for the results as JSON");
  app.add_option("--records", settings.records, "discoveries in a large database")
      ->check(CLI::PositiveNumber);
  app.add_option("--masters", settings.masters, "masters that tqpublish follows")
      ->check(CLI::Range(1, 250));
  app.add_option("--only", only,
                 "run these only: persist, enumerate, lookup, parse, items, query, list, payload, "
                 "write, large, fleet, idle, scale, memory, tls, reconnect, rights, hostile, "
                 "webhosts, webmetrics, webrest, webmemory, publish");
  app.add_option(
      "--side", settings.side,
      "run one side only, for a tracer or a profiler: product, floor, sqlite, or a part of what "
      "hostile connections do");
  CLI11_PARSE(app, argc, argv);

  // What is logged on every write at level 1 is no part of the work.
  Quillon::Tessarine::Ozf::LoggerFactory::setLevel(0);
  int result = 0;
  try
  {
    nlohmann::json const machine = describeMachine(settings.directory);
    std::vector<Row> rows;
    std::optional<ScratchDirectory> database;
    for (Benchmark const& benchmark : BENCHMARKS)
    {
      if (!only.empty() && std::find(only.begin(), only.end(), benchmark.name) == only.end())
        continue;
      if (benchmark.readsDatabase && !database)
      {
        database.emplace(settings.directory);
        settings.database = database->path();
        makeDatabase(settings.database, settings.records);
      }
      if (auto more = runApart(benchmark, settings))
        rows.insert(rows.end(), std::make_move_iterator(more->begin()),
                    std::make_move_iterator(more->end()));
      else
        result = 1;
    }
    std::cout << "kernel " << machine["kernel"].get<std::string>() << ", " << machine["processors"]
              << " processors, " << machine["fileSystem"].get<std::string>() << ", load "
              << machine["loadAtStart"] << "\n"
              << std::flush;
    print(rows);
    if (!out.empty())
      std::ofstream(out) << nlohmann::json{{"machine", machine}, {"rows", rows}}.dump(2) << '\n';
  }
  catch (std::exception const& exception)
  {
    std::cerr << "tqbench: " << exception.what() << '\n';
    result = 1;
  }
  return result;
}
