// The configuration file: every line is a comment, an entry or a mistake;
// mistakes carry file and line; an entry without a mistake reads as it should.

#include "tests/fuzz/Fuzz.h"

#include "ozf/config/Configuration.h"

#include <algorithm>
#include <map>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace
{

using namespace fuzz;

// A file without a place on a disk.
class MemoryFile
{
public:
  MemoryFile() : m_fd(memfd_create("tq.conf", MFD_CLOEXEC))
  {
    require(m_fd >= 0, "there is a file to write to");
    m_path = "/proc/self/fd/" + std::to_string(m_fd);
  }

  Configuration read(std::string_view text) const
  {
    require(ftruncate(m_fd, 0) == 0 &&
                pwrite(m_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
            "the file is written");
    Configuration configuration = Configuration::read(m_path);
    require(configuration.readable() && !configuration.missing(), "a file that is there is read");
    return configuration;
  }

  std::string const& path() const { return m_path; }

private:
  int m_fd;
  std::string m_path;
};

std::vector<std::string> linesOf(std::string_view text)
{
  if (text.starts_with("\xEF\xBB\xBF"))
    text.remove_prefix(3);
  std::vector<std::string> lines;
  while (!text.empty())
  {
    auto const end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    if (lines.back().ends_with('\r'))
      lines.back().pop_back();
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string trimmed(std::string const& text)
{
  auto const first = text.find_first_not_of(" \t");
  return first == std::string::npos ? std::string()
                                    : text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

std::string textOfProblems(std::vector<ConfigurationProblem> const& problems)
{
  std::string text;
  for (ConfigurationProblem const& problem : problems)
    text += problem.text() + '\n';
  return text;
}

void checkProblems(std::vector<ConfigurationProblem> const& problems, std::string const& path,
                   std::size_t lines)
{
  int last = 1;
  for (ConfigurationProblem const& problem : problems)
  {
    std::string const text = problem.text();
    require(problem.line >= last && static_cast<std::size_t>(problem.line) <= lines,
            "mistakes are told with their lines, in order", textOfProblems(problems));
    last = problem.line;
    std::string const place = path + ':' + std::to_string(problem.line) + ": ";
    require(text.starts_with(place) && text.size() > place.size(),
            "a mistake is told with its file and line", text);
    std::string message = problem.message;
    std::erase(message, '\t'); // values may hold some
    require(text.size() < 1000 && isPrintable(message), "a mistake is told in one short line",
            text);
  }
}

bool has(std::vector<ConfigurationProblem> const& problems, std::size_t line)
{
  return std::any_of(problems.begin(), problems.end(),
                     [line](ConfigurationProblem const& problem)
                     { return problem.line == static_cast<int>(line); });
}

using Values = std::map<std::string, std::vector<std::string>>;

// What the lines say that are no mistakes of syntax.
Values valuesOf(std::vector<std::string> const& lines,
                std::vector<ConfigurationProblem> const& problems)
{
  Values values;
  for (std::size_t i = 0; i < lines.size(); ++i)
  {
    std::string const line = trimmed(lines[i]);
    if (line.empty() || line.starts_with('#') || has(problems, i + 1))
      continue;
    auto const equals = line.find('=');
    require(equals != std::string::npos && equals > 0, "a line without '=' or key is a mistake",
            line);
    values[trimmed(line.substr(0, equals))].push_back(trimmed(line.substr(equals + 1)));
  }
  return values;
}

void checkValues(Configuration const& configuration, Values const& values)
{
  for (auto const& [key, expected] : values)
  {
    require(configuration.list(key) == expected, "a key has the values of its lines", key);
    require(configuration.find(key) != nullptr && *configuration.find(key) == expected.back(),
            "the last value of a key counts", key);
    long number = -5;
    bool const isNumber = configuration.getInteger(key, 7, 0, 100, number);
    require(isNumber ? number >= 0 && number <= 100 : number == -5,
            "a number lies within its bounds, or is left alone", key);
    bool truth = true;
    require(configuration.getBoolean(key, true, truth) || truth,
            "what is neither true nor false is left alone", key);
    auto const dot = key.find('.');
    if (dot != std::string::npos)
      require(configuration.findNamed(key.substr(0, dot + 1), key.substr(dot + 1)) != nullptr,
              "a key of two parts is found by them", key);
    require(*configuration.with(key, "other").find(key) == "other" &&
                configuration.find(key) != nullptr && *configuration.find(key) == expected.back(),
            "a copy with another value leaves the configuration alone", key);
  }
}

// A single known key whose line has no mistake can be read as what it is.
void checkMeaning(Configuration const& configuration, Values const& values,
                  std::vector<ConfigurationProblem> const& problems)
{
  if (!problems.empty())
    return;
  for (auto const& [key, list] : values)
  {
    long number = 0;
    bool truth = false;
    if (key == "LOG_LEVEL")
      require(configuration.getInteger(key, 0, 0, 6, number), "a checked log level is one", key);
    if (key.starts_with("ORB_PORT."))
      require(configuration.getInteger(key, 0, 1, 65535, number), "a checked port is one", key);
    if (key == "REPORT_CLIENT_DISCOVERIES")
      require(configuration.getBoolean(key, true, truth), "a checked boolean is one", key);
    require(list.size() == 1 || key == "ORB_BIND", "a single value is given once", key);
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  static MemoryFile const file;
  std::string const text(textOf(data, size));
  std::vector<std::string> const lines = linesOf(text);

  Configuration const configuration = file.read(text);
  auto const& syntax = configuration.problems();
  auto const all = configuration.check();
  checkProblems(syntax, file.path(), lines.size());
  checkProblems(all, file.path(), lines.size());
  std::string const found = textOfProblems(all);
  for (ConfigurationProblem const& problem : syntax)
    require(found.find(problem.text()) != std::string::npos, "checking keeps mistakes of syntax",
            problem.text());

  Values const values = valuesOf(lines, syntax);
  checkValues(configuration, values);
  checkMeaning(configuration, values, all);

  // One more line is one more mistake, and its own.
  if (size != 0 && !text.ends_with('\n'))
    return 0;
  auto const more = file.read(text + "no equals sign\n").check();
  requireEqual(found + file.path() + ':' + std::to_string(lines.size() + 1) +
                   ": no '=' in this line; accepted is KEY = VALUE\n",
               textOfProblems(more), "a mistake in a new line changes no other line's");
  return 0;
}
