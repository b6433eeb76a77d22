// The configuration file tq.conf, and the files of tq.conf.d beside it.
//
// UTF-8 text, one "KEY = VALUE" a line. White space around key and value is
// dropped; a line that begins with '#' (after white space) is a comment; a
// repeated key makes a list; a value has no length limit and may hold '='.
// Keys are case-sensitive and hold no white space. A byte order mark and
// carriage returns at the ends of lines are tolerated; other control
// characters and bytes that are not UTF-8 make a line a mistake.

#pragma once

#include "ozf/base/Export.h"

#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
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

// What holds for a key.
struct OZF_EXPORT ConfigurationSetting
{
  std::string key;       // with its second part; "HOST_ADDRESS.<host>" where none is given
  std::string value;     // as it is written; empty where nothing holds
  std::string byDefault; // empty where nothing holds without the key
  std::string file;      // that it comes from, empty where it comes from none
  int line;              // of the file, from 1
  bool isGiven;          // and no default
  bool waitsForRestart;  // a change of it
};

// What the files say. Immutable once read, so any thread may read it.
class OZF_EXPORT Configuration
{
public:
  // Reads the file at path and then the files NAME.conf of the directory path.d, in
  // the byte order of their names, as if one stood behind the other. Every mistake is
  // noted and its line left out; a missing or unreadable file, one that is not a
  // regular file, or one of more than 16 MiB, is one mistake.
  static Configuration read(std::string const& path);

  // True when every file could be read, whatever its lines were worth.
  bool readable() const noexcept { return m_readable; }

  // True when there is no file at path, and nothing in path.d that cannot be read.
  bool missing() const noexcept { return m_missing; }

  // The file, and those besides it that were read or should have been, in their order.
  std::string const& path() const noexcept { return m_path; }
  std::vector<std::string> const& files() const noexcept { return m_files; }

  // Mistakes of syntax, in the order of the lines.
  std::vector<ConfigurationProblem> const& problems() const noexcept { return m_problems; }

  // Mistakes of syntax and of meaning: unknown keys, values of the wrong form
  // for a known key, a single value given twice in a file. In the order of the lines.
  std::vector<ConfigurationProblem> check() const;

  // The last value of the key, or null when it is absent.
  std::string const* find(std::string const& key) const;

  // As find, for a key of two parts ("HOST_ADDRESS." and a host's name) of
  // which the second is compared without regard to the case of ASCII letters.
  std::string const* findNamed(std::string const& prefix, std::string const& name) const;

  // For keys of two parts: the second parts and what holds for each, in the order
  // of the keys.
  std::vector<std::pair<std::string, std::string>> listNamed(std::string const& prefix) const;

  // All values of the key in the order of their lines.
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

  // A line that sets something.
  struct Line
  {
    int number;
    std::string key;
    std::string value;
  };

  // Those of the file at path alone, in their order, whatever keys they have.
  std::vector<Line> lines() const;

  // A copy in which value is the only one of the key. check() does not judge
  // it: it stands in no line of the file.
  Configuration with(std::string const& key, std::string const& value) const;

  // The keys whose values are not those of the other, in their order.
  std::vector<std::string> differingKeys(Configuration const& other) const;

  // A copy in which those keys have the values, and the places, that they have in the
  // other.
  Configuration withKeysOf(Configuration const& other, std::vector<std::string> const& keys) const;

  // What holds for every key of the product, for a person: the keys that are given, the
  // others with their defaults, each value of a list for itself.
  std::vector<ConfigurationSetting> settings() const;

private:
  struct Entry
  {
    std::string value;
    std::shared_ptr<std::string const> file; // null for a value that is not of a file
    std::size_t number;                      // of the file, counted from 0
    int line;

    bool standsBefore(Entry const& other) const
    {
      return std::tie(number, line) < std::tie(other.number, other.line);
    }
  };

  static constexpr auto LAST = std::numeric_limits<std::size_t>::max(); // behind every file

  bool readFile(std::string const& path, bool& missing);

  void parse(std::string const& text);
  void parseLine(std::string_view line, int number);
  void addProblem(int line, std::string message);

  std::string m_path;
  std::vector<std::string> m_files;
  std::shared_ptr<std::string const> m_file; // the last of them
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

// What became of a reload.
struct OZF_EXPORT ConfigurationReload
{
  std::vector<ConfigurationProblem> problems; // any of them, and nothing has changed
  std::vector<std::string> changed;           // keys that have other values now
  std::vector<std::string> waiting;           // keys whose new values wait for a restart
};

// The same for a process that serves. It takes all that a reload can change, or, when
// the judge finds anything wrong with what is read, nothing; so it does when a file
// that the judge finds no fault with cannot be read. The judge runs without locks, and
// whether this host would become the master may be asked of the resolver.
using ConfigurationJudge =
    std::function<std::vector<ConfigurationProblem>(Configuration const& read)>;
OZF_EXPORT ConfigurationReload reloadServingConfiguration(ConfigurationJudge const& judge);

// Who is told of each reload of a process that serves that was not refused, on the
// thread that reloads and after the configuration is replaced; an empty one for nobody.
// What is told when it is replaced may still run.
using ReloadListener = std::function<void(ConfigurationReload const& reload)>;
OZF_EXPORT void setReloadListener(ReloadListener listener);

// The keys whose values in the files, when they were read last, wait for a restart.
OZF_EXPORT std::vector<std::string> keysThatWait();

// Gives the process another value for a key than the file has, for an option
// of a command line say; it holds from now on, whatever is reloaded. Any
// thread. CLIENT_NAME is not for this: OzfHostname::overrideLocal is.
OZF_EXPORT void overrideConfiguration(std::string const& key, std::string const& value);

} // namespace Quillon::Tessarine::Ozf
