// Refuses a service single pieces of memory, each in turn, while it puts, reads,
// lists, refreshes and connects, and looks whether its answer is true, whether what is
// stored is whole, and whether it goes on.
//
// Usage: allocations [--most N] [--seed N] [--operation NAME]... [--refused N]
//                    [--piece N] [--anew 1] [--examples N]
//
// --refused: so many in a row instead of one. --piece: only that one. --anew: each of a
// service that was just started, which makes then what it makes once.
//
// Exit code 0 when nothing broke, 1 when something did, 2 when nothing could be
// tried.

#include "tests/support/MemoryPlan.h"
#include "tests/torture/FaultReport.h"
#include "tests/torture/FaultedLibrary.h"
#include "tests/torture/ServedOperations.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>

namespace
{

using namespace tqtorture;
using tqtest::SharedPlan;

struct MemoryWords
{
  FaultOptions options;
  long examples = 1;
  long refused = 1;
  long piece = 0; // all
  bool anew = false;
};

std::optional<MemoryWords> parseMemoryWords(int argc, char** argv)
{
  MemoryWords words;
  if (argc % 2 == 0)
    return std::nullopt;
  for (int i = 1; i < argc; i += 2)
  {
    std::string const word = argv[i];
    long const value = std::strtol(argv[i + 1], nullptr, 10);
    if (word == "--most")
      words.options.most = static_cast<std::size_t>(value);
    else if (word == "--seed")
      words.options.seed = static_cast<unsigned>(value);
    else if (word == "--operation")
      words.options.operations.insert(argv[i + 1]);
    else if (word == "--examples")
      words.examples = value;
    else if (word == "--refused")
      words.refused = value;
    else if (word == "--piece")
      words.piece = value;
    else if (word == "--anew")
      words.anew = value != 0;
    else
      return std::nullopt;
  }
  return words;
}

class MemoryCampaign
{
public:
  MemoryCampaign(MemoryWords const& words, FaultReport& report)
      : m_words(words), m_report(report), m_operations(m_plan.environment())
  {
  }

  void play()
  {
    for (auto const& operation : ServedOperations::all())
      if (m_words.options.wants(operation.name))
        play(operation);
  }

private:
  // What is asked for in an operation without a refusal; other threads of the service
  // ask as well.
  std::int64_t countPieces(ServedOperations::Operation const& operation)
  {
    m_operations.prepare();
    m_plan.refuse(INT64_MAX / 2, 1);
    std::string const answer = m_operations.perform(operation);
    m_plan.grant();
    if (answer != operation.done)
      throw std::runtime_error(std::string(operation.name) + " without a refusal: " + answer);
    return m_plan.asked();
  }

  void play(ServedOperations::Operation const& operation)
  {
    if (m_words.anew)
      m_operations.restart();
    else
      countPieces(operation); // and what the first one makes for good
    std::vector<Fault> all;
    std::int64_t const pieces = countPieces(operation);
    if (m_words.anew)
      m_operations.restart();
    for (std::int64_t piece = 1; piece <= pieces; ++piece)
      all.push_back({"piece", piece, "refused"});
    for (Fault const& fault : chooseFaults(all, m_words.options.most, m_words.options.seed))
      if (m_words.piece == 0 || m_words.piece == fault.number)
        refuse(operation, fault);
  }

  void refuse(ServedOperations::Operation const& operation, Fault const& fault)
  {
    m_operations.prepare();
    m_plan.refuse(fault.number, m_words.refused);
    std::string const answer = m_operations.perform(operation);
    if (m_plan.grant() == 0)
      return m_report.missed(operation.name);
    std::vector<std::string> flaws;
    if (answer.starts_with("untrue: "))
      flaws.push_back(answer);
    Process& process = m_operations.service().process();
    // A process that has met its end takes a moment to get there.
    bool const dead = !process.running() || (answer.starts_with("exception ") &&
                                             process.wait(std::chrono::milliseconds(20)));
    std::string const log = m_operations.service().log();
    if (dead)
      flaws.push_back("the service ended with " + std::to_string(process.exitCode()));
    if (dead || answer.starts_with("exception ") || m_words.anew)
    {
      m_operations.restart();
      if (int const end = m_operations.lastEnd(); end == -1)
        flaws.push_back("the service does not end when it is told to");
      else if (end != 0)
        flaws.push_back("the service ends with " + std::to_string(end) + " when it is told to");
    }
    m_operations.judge(operation.name, answer, operation.done, {}, flaws);
    m_report.add(operation.name, fault, answer, flaws,
                 log.substr(log.size() - std::min<std::size_t>(log.size(), 1500)));
  }

  MemoryWords const& m_words;
  FaultReport& m_report;
  SharedPlan m_plan;
  ServedOperations m_operations;
};

} // namespace

int main(int argc, char** argv)
{
  auto const words = parseMemoryWords(argc, argv);
  if (!words)
  {
    std::cerr << "usage: allocations [--most N] [--seed N] [--operation NAME]... [--refused N]\n"
                 "                   [--piece N] [--anew 1] [--examples N]\n";
    return 2;
  }
  try
  {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    FaultReport report(words->examples);
    MemoryCampaign(*words, report).play();
    return report.finish("pieces refused", words->options.seed);
  }
  catch (std::exception const& exception)
  {
    std::cerr << "allocations: " << exception.what() << '\n';
    return 2;
  }
}
