#include "scripts/ScriptOutput.h"

#include "ozf/base/AsciiCase.h"

#include <algorithm>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

using Type = OzfQuery::Type;

constexpr std::string_view BLANK = " \t\r";
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isLetter(char c) { return asciiLower(c) >= 'a' && asciiLower(c) <= 'z'; }

std::string_view trimmed(std::string_view text)
{
  auto const first = text.find_first_not_of(BLANK);
  if (first == std::string_view::npos)
    return {};
  return text.substr(first, text.find_last_not_of(BLANK) - first + 1);
}

// As JSON writes numbers, less those with an exponent: 007 is a text.
bool isPlainNumber(std::string_view text)
{
  if (text.starts_with('-'))
    text.remove_prefix(1);
  auto const digits = [&text]
  {
    auto const end = std::find_if_not(text.begin(), text.end(), isDigit);
    auto const count = static_cast<std::size_t>(end - text.begin());
    text.remove_prefix(count);
    return count;
  };
  bool const leadsWithZero = text.starts_with('0');
  auto const whole = digits();
  if (whole == 0 || (leadsWithZero && whole > 1))
    return false;
  if (!text.starts_with('.'))
    return text.empty();
  text.remove_prefix(1);
  return digits() != 0 && text.empty();
}

Type kindOf(std::string_view value)
{
  if (value == "true" || value == "false")
    return Type::BOOLEAN;
  return isPlainNumber(value) ? Type::NUMBER : Type::TEXT;
}

bool parseLines(std::string_view text, std::vector<ScriptItem>& items, std::string& mistake)
{
  ItemCollector collector(items);
  collector.beginItem(mistake);
  for (std::size_t number = 1; !text.empty(); ++number)
  {
    auto const end = text.find('\n');
    std::string_view const line = trimmed(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.empty())
      continue;
    auto const equals = line.find('=');
    std::string_view const value =
        equals == std::string_view::npos ? line : trimmed(line.substr(equals + 1));
    if (equals == std::string_view::npos)
      mistake = "there is no '=' in it, and the output does not begin with { or [ as JSON does";
    else if (value.empty() || collector.add(std::string(trimmed(line.substr(0, equals))),
                                            kindOf(value), std::string(value), mistake))
      continue;
    mistake = "line " + std::to_string(number) + ": " + mistake;
    return false;
  }
  return true;
}

} // namespace

bool isFactName(std::string_view name)
{
  return !name.empty() && (isLetter(name.front()) || name.front() == '_') &&
         std::all_of(name.begin(), name.end(),
                     [](char c)
                     { return isLetter(c) || isDigit(c) || c == '_' || c == '-' || c == '.'; });
}

std::string placeIn(std::string_view text, std::size_t offset)
{
  std::string_view const before = text.substr(0, offset);
  auto const line = std::count(before.begin(), before.end(), '\n') + 1;
  auto const start = before.rfind('\n');
  auto const column = start == std::string_view::npos ? before.size() : before.size() - start - 1;
  return "line " + std::to_string(line) + ", column " + std::to_string(column + 1);
}

bool ItemCollector::beginItem(std::string& mistake)
{
  if (m_items.size() == OutputBounds::ITEMS)
  {
    mistake = "there are more than " + std::to_string(OutputBounds::ITEMS) + " items";
    return false;
  }
  m_items.emplace_back();
  m_names.clear();
  return true;
}

bool ItemCollector::add(std::string name, Type kind, std::string value, std::string& mistake)
{
  if (!isFactName(name))
  {
    mistake = "\"" + name.substr(0, OutputBounds::NAME) +
              "\" is no name of a fact; accepted: a letter or _, then letters, digits, _ - and .";
    return false;
  }
  if (name.size() > OutputBounds::NAME)
  {
    mistake = "the name of the fact " + name.substr(0, OutputBounds::NAME) + "... has more than " +
              std::to_string(OutputBounds::NAME) + " bytes";
    return false;
  }
  auto& facts = m_items.back().facts;
  if (facts.size() == OutputBounds::FACTS)
  {
    mistake = "the item has more than " + std::to_string(OutputBounds::FACTS) + " facts";
    return false;
  }
  std::string folded = name;
  std::transform(folded.begin(), folded.end(), folded.begin(), asciiLower);
  auto const place = std::lower_bound(m_names.begin(), m_names.end(), folded);
  if (place != m_names.end() && *place == folded)
  {
    mistake = "the fact " + name + " is there twice; letter case makes no difference";
    return false;
  }
  m_names.insert(place, std::move(folded));
  m_kept += name.size() + value.size();
  if (m_kept > OutputBounds::KEPT)
  {
    mistake = "the names and values of all facts together have more than 8 MiB";
    return false;
  }
  facts.push_back({std::move(name), kind, std::move(value)});
  return true;
}

bool parseScriptOutput(std::string_view output, std::vector<ScriptItem>& items,
                       std::string& mistake)
{
  items.clear();
  if (output.size() > OutputBounds::BYTES)
  {
    mistake = "more than 1 MiB was printed";
    return false;
  }
  for (std::size_t at = 0; at < output.size();)
  {
    char32_t character = 0;
    std::size_t const length = decodeUtf8(output.substr(at), character);
    if (length == 0)
    {
      mistake = placeIn(output, at) + ": a byte that is not UTF-8";
      return false;
    }
    at += length;
  }
  std::size_t const mark = output.starts_with(BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0;
  auto const first = output.find_first_not_of(" \t\r\n", mark);
  if (first == std::string_view::npos)
  {
    mistake = "nothing was printed";
    return false;
  }
  if (output[first] == '{' || output[first] == '[')
    return parseScriptJson(output.substr(mark), items, mistake);
  return parseLines(output.substr(mark), items, mistake);
}

} // namespace Quillon::Tessarine::Ozf::Scripts
