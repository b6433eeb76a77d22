// The configuration file tq.conf.
//
// UTF-8 text, one "KEY = VALUE" a line. White space around key and value is
// dropped; a line that begins with '#' (after white space) is a comment; a
// repeated key makes a list; a value has no length limit and may hold '='.
// Keys are case-sensitive and hold no white space. A byte order mark and
// carriage returns at the ends of lines are tolerated; other control
// characters and bytes that are not UTF-8 make a line a mistake.

#pragma once

#include "ozf/base/Export.h"

#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

struct ConfigurationKey;

// A mistake in a configuration: "etc/tq.conf:12: no '=' in this line". Line 0
// means the file as a whole.
struct OZF_EXPORT ConfigurationProblem
{
  std::string file;
  int line;
  std::string message;
  std::string text() const;
};

// What one file says. Immutable once read, so any thread may read it.
class OZF_EXPORT Configuration
{
public:
  // Reads the file at path. Every mistake is noted and its line left out; a
  // missing or unreadable file, one that is not a regular file, or one of more
  // than 16 MiB, is one mistake.
  static Configuration read(std::string const& path);

  // True when the file could be read, whatever its lines were worth.
  bool readable() const noexcept { return m_readable; }

  // True when there is no such file.
  bool missing() const noexcept { return m_missing; }

  std::string const& path() const noexcept { return m_path; }

  // Mistakes of syntax, in line order.
  std::vector<ConfigurationProblem> const& problems() const noexcept { return m_problems; }

  // Mistakes of syntax and of meaning: unknown keys, values of the wrong form
  // for a known key, a single value given twice. In line order.
  std::vector<ConfigurationProblem> check() const;

  // The last value of the key, or null when it is absent.
  std::string const* find(std::string const& key) const;

  // As find, for a key of two parts ("HOST_ADDRESS." and a host's name) of
  // which the second is compared without regard to the case of ASCII letters.
  std::string const* findNamed(std::string const& prefix, std::string const& name) const;

  // For keys of two parts: the second parts and what holds for each, in the order
  // of the keys.
  std::vector<std::pair<std::string, std::string>> listNamed(std::string const& prefix) const;

  // All values of the key in file order.
  std::vector<std::string> list(std::string const& key) const;

  // True and false, yes and no, on and off, 1 and 0, in any case. False when
  // the key is there with another value; value is then unchanged. An absent
  // key gives the default.
  bool getBoolean(std::string const& key, bool defaultValue, bool& value) const;

  // A decimal integer in [low, high]; otherwise as getBoolean.
  bool getInteger(std::string const& key, long defaultValue, long low, long high,
                  long& value) const;

  // The same of one of the product's keys (ConfigurationKeys.h), by its bounds and
  // its default; second is the second part of a key of two parts.
  std::string const* find(ConfigurationKey const& key, std::string const& second = {}) const;
  std::vector<std::string> list(ConfigurationKey const& key) const;
  bool getInteger(ConfigurationKey const& key, long& value, std::string const& second = {}) const;

  // What holds: the value or, when that is absent or wrong, the default. Of a key
  // of any kind, as it is written, and of one that is a number, a span, in seconds,
  // or yes or no.
  std::string word(ConfigurationKey const& key, std::string const& second = {}) const;
  long number(ConfigurationKey const& key, std::string const& second = {}) const;
  long seconds(ConfigurationKey const& key, std::string const& second = {}) const;
  bool isOn(ConfigurationKey const& key, std::string const& second = {}) const;

  // A copy in which value is the only one of the key. check() does not judge
  // it: it stands in no line of the file.
  Configuration with(std::string const& key, std::string const& value) const;

private:
  struct Entry
  {
    std::string value;
    int line;
  };

  static constexpr int NO_LINE = std::numeric_limits<int>::max(); // behind every line

  void parse(std::string const& text);
  void parseLine(std::string_view line, int number);
  void addProblem(int line, std::string message);

  std::string m_path;
  bool m_readable = false;
  bool m_missing = false;
  std::vector<ConfigurationProblem> m_problems;
  std::map<std::string, std::vector<Entry>> m_entries;
};

// The process's configuration: read from getConfigurationPath() on first use.
// Every reading for the process also tells OzfHostname this host's CLIENT_NAME,
// sets the limits of peers (Limits.h) unless the file is there and cannot be read, and
// logs the mistakes at level 1, a missing file at level 4. Never null; any thread.
OZF_EXPORT std::shared_ptr<Configuration const> getConfiguration();

// Reads the file again and replaces what getConfiguration returns; whoever holds
// the former configuration may go on using it. Returns whether the file was
// readable.
OZF_EXPORT bool reloadConfiguration();

// The same for a process that serves: a file that is away or cannot be read changes
// nothing. What is wrong with it is logged all the same.
OZF_EXPORT bool reloadReadableConfiguration();

// Gives the process another value for a key than the file has, for an option
// of a command line say; it holds from now on, whatever is reloaded. Any
// thread. CLIENT_NAME is not for this: OzfHostname::overrideLocal is.
OZF_EXPORT void overrideConfiguration(std::string const& key, std::string const& value);

} // namespace Quillon::Tessarine::Ozf
