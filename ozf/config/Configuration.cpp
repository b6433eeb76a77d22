#include "ozf/config/Configuration.h"

#include "ozf/base/OzfString.h"
#include "ozf/base/Trim.h"
#include "ozf/config/ConfigurationFiles.h"
#include "ozf/config/ConfigurationKey.h"
#include "ozf/config/ConfigurationValues.h"

#include <algorithm>
#include <functional>
#include <set>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::string_view WHITE_SPACE = " \t";

// What is wrong with the characters of a line; empty when nothing is.
std::string characterMistake(std::string_view line)
{
  std::size_t length = 0;
  for (std::size_t at = 0; at < line.size(); at += length)
  {
    char32_t codePoint = 0;
    length = decodeUtf8(line.substr(at), codePoint);
    char const* mistake = nullptr;
    if (length == 0)
      mistake = "bytes that are not UTF-8";
    else if (codePoint == 0)
      mistake = "a NUL byte";
    else if ((codePoint < 0x20 && codePoint != '\t') || (codePoint >= 0x7f && codePoint < 0xa0))
      mistake = "a control character";
    if (mistake != nullptr)
      return mistake + (" at byte " + std::to_string(at + 1)) + " of this line";
  }
  return {};
}

} // namespace

std::string ConfigurationProblem::text() const
{
  return line > 0 ? file + ":" + std::to_string(line) + ": " + message : file + ": " + message;
}

Configuration Configuration::read(std::string const& path)
{
  Configuration result;
  result.m_path = path;
  result.m_readable = result.readFile(path, result.m_missing);

  std::vector<std::string> further;
  std::string mistake;
  std::string const directory = path + ".d";
  if (!listConfigurationFiles(directory, further, mistake))
  {
    result.m_files.push_back(directory);
    result.addProblem(0, mistake);
    result.m_readable = result.m_missing = false;
  }
  for (std::string const& one : further)
  {
    // What is there and cannot be read is more than nothing.
    bool isAway = false;
    if (!result.readFile(one, isAway))
      result.m_readable = result.m_missing = false;
  }
  return result;
}

bool Configuration::readFile(std::string const& path, bool& missing)
{
  m_files.push_back(path);
  m_file = std::make_shared<std::string const>(path);
  std::string text;
  std::string mistake;
  bool const isRead = readConfigurationFile(path, text, mistake, missing);
  if (isRead)
    parse(text);
  else
    addProblem(0, mistake);
  return isRead;
}

void Configuration::parse(std::string const& text)
{
  constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
  std::string_view rest = text;
  if (rest.starts_with(BYTE_ORDER_MARK))
    rest.remove_prefix(BYTE_ORDER_MARK.size());

  for (int number = 1; !rest.empty(); ++number)
  {
    auto const end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (line.ends_with('\r'))
      line.remove_suffix(1);
    parseLine(line, number);
  }
}

void Configuration::parseLine(std::string_view line, int number)
{
  if (std::string mistake = characterMistake(line); !mistake.empty())
  {
    addProblem(number, std::move(mistake));
    return;
  }
  line = trimmed(line, WHITE_SPACE);
  if (line.empty() || line.front() == '#')
    return;

  auto const equals = line.find('=');
  if (equals == std::string_view::npos)
  {
    addProblem(number, "no '=' in this line; accepted is KEY = VALUE");
    return;
  }
  std::string_view const key = trimmed(line.substr(0, equals), WHITE_SPACE);
  if (key.empty())
    addProblem(number, "no key before '='; accepted is KEY = VALUE");
  else if (key.find_first_of(WHITE_SPACE) != std::string_view::npos)
    addProblem(number, "white space inside the key; accepted is KEY = VALUE");
  else
    m_entries[std::string(key)].push_back(
        {std::string(trimmed(line.substr(equals + 1), WHITE_SPACE)), m_file, m_files.size() - 1,
         number});
}

void Configuration::addProblem(int line, std::string message)
{
  m_problems.push_back({m_files.back(), line, std::move(message)});
}

Configuration Configuration::with(std::string const& key, std::string const& value) const
{
  Configuration result = *this;
  result.m_entries[key] = {{value, nullptr, LAST, 0}};
  return result;
}

std::vector<std::string> Configuration::differingKeys(Configuration const& other) const
{
  std::set<std::string> keys;
  for (Configuration const* const one : {this, &other})
    for (auto const& [key, entries] : one->m_entries)
      if (list(key) != other.list(key))
        keys.insert(key);
  return {keys.begin(), keys.end()};
}

Configuration Configuration::withKeysOf(Configuration const& other,
                                        std::vector<std::string> const& keys) const
{
  Configuration result = *this;
  for (std::string const& key : keys)
  {
    result.m_entries.erase(key);
    if (auto const entry = other.m_entries.find(key); entry != other.m_entries.end())
      result.m_entries.insert(*entry);
  }
  return result;
}

std::string const* Configuration::find(std::string const& key) const
{
  auto const entry = m_entries.find(key);
  return entry == m_entries.end() ? nullptr : &entry->second.back().value;
}

std::string const* Configuration::findNamed(std::string const& prefix,
                                            std::string const& name) const
{
  Entry const* last = nullptr;
  for (auto entry = m_entries.lower_bound(prefix);
       entry != m_entries.end() && entry->first.starts_with(prefix); ++entry)
  {
    if (equalIgnoringCase(std::string_view(entry->first).substr(prefix.size()), name) &&
        (last == nullptr || last->standsBefore(entry->second.back())))
      last = &entry->second.back();
  }
  return last == nullptr ? nullptr : &last->value;
}

std::vector<std::pair<std::string, std::string>>
Configuration::listNamed(std::string const& prefix) const
{
  std::vector<std::pair<std::string, std::string>> values;
  for (auto entry = m_entries.lower_bound(prefix);
       entry != m_entries.end() && entry->first.starts_with(prefix); ++entry)
    values.emplace_back(entry->first.substr(prefix.size()), entry->second.back().value);
  return values;
}

std::vector<std::string> Configuration::list(std::string const& key) const
{
  std::vector<std::string> values;
  if (auto const entry = m_entries.find(key); entry != m_entries.end())
    for (auto const& one : entry->second)
      values.push_back(one.value);
  return values;
}

std::vector<Configuration::Line> Configuration::lines() const
{
  std::vector<Line> all;
  for (auto const& [key, entries] : m_entries)
    for (auto const& entry : entries)
      if (entry.file != nullptr && *entry.file == m_path)
        all.push_back({entry.line, key, entry.value});
  std::ranges::sort(all, std::less(), &Line::number);
  return all;
}

bool Configuration::getBoolean(std::string const& key, bool defaultValue, bool& value) const
{
  std::string const* const text = find(key);
  if (text == nullptr)
  {
    value = defaultValue;
    return true;
  }
  auto const parsed = parseBoolean(*text);
  value = parsed.value_or(value);
  return parsed.has_value();
}

bool Configuration::getInteger(std::string const& key, long defaultValue, long low, long high,
                               long& value) const
{
  std::string const* const text = find(key);
  if (text == nullptr)
  {
    value = defaultValue;
    return true;
  }
  auto const parsed = parseInteger(*text, low, high);
  value = parsed.value_or(value);
  return parsed.has_value();
}

std::string const* Configuration::find(ConfigurationKey const& key, std::string const& second) const
{
  return find(key.name + second);
}

std::vector<std::string> Configuration::list(ConfigurationKey const& key) const
{
  return list(std::string(key.name));
}

bool Configuration::getInteger(ConfigurationKey const& key, long& value,
                               std::string const& second) const
{
  return getInteger(key.name + second, key.numberOf(second), key.low, key.high, value);
}

std::string Configuration::word(ConfigurationKey const& key, std::string const& second) const
{
  std::string const* const text = find(key, second);
  return text != nullptr && isAccepted(key, *text) ? *text : defaultOf(key, second);
}

long Configuration::number(ConfigurationKey const& key, std::string const& second) const
{
  long value = key.numberOf(second);
  getInteger(key, value, second);
  return value;
}

long Configuration::seconds(ConfigurationKey const& key, std::string const& second) const
{
  std::string const* const text = find(key, second);
  return (text == nullptr ? std::nullopt : parseSeconds(*text)).value_or(key.numberOf(second));
}

bool Configuration::isOn(ConfigurationKey const& key, std::string const& second) const
{
  bool value = key.numberOf(second) != 0;
  getBoolean(key.name + second, value, value);
  return value;
}

} // namespace Quillon::Tessarine::Ozf
