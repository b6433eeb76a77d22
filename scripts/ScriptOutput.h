// What a script prints, checked and taken apart. docs/writing-a-script.md is the
// contract for those who write scripts.

#pragma once

#include "ozf/xml/OzfQuery.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf::Scripts
{

struct ScriptFact
{
  std::string name;
  OzfQuery::Type kind = OzfQuery::Type::TEXT; // text, number or boolean: as it was printed
  std::string value;                          // never empty
};

struct ScriptItem
{
  std::string name; // empty: that of the subject
  std::vector<ScriptFact> facts;
};

// What is taken of one script. The last is of names and values together: nested
// values repeat the names that they are in.
struct OutputBounds
{
  static constexpr std::size_t BYTES = std::size_t(1) << 20;
  static constexpr std::size_t ITEMS = 10000;
  static constexpr std::size_t FACTS = 1000; // of an item
  static constexpr std::size_t NAME = 200;   // bytes of a fact's name
  static constexpr std::size_t NESTING = 32;
  static constexpr std::size_t KEPT = std::size_t(8) << 20;
};

// "key=value" lines, which make one item, or JSON: an object, which makes one, or
// an array of objects. False when anything is wrong with it: mistake says what and
// where, in lines and columns from 1, columns in bytes; items is then of no use.
bool parseScriptOutput(std::string_view output, std::vector<ScriptItem>& items,
                       std::string& mistake);

// "line 3, column 8", of the byte at that offset.
std::string placeIn(std::string_view text, std::size_t offset);

// Whether a fact can be named so: a letter or _, then letters, digits, _ - and dots.
bool isFactName(std::string_view name);

// Takes the facts of one script in, and refuses what is beyond the bounds.
class ItemCollector
{
public:
  explicit ItemCollector(std::vector<ScriptItem>& items) : m_items(items) {}

  // Each is false with mistake set, without a place, when it is refused.
  bool beginItem(std::string& mistake);
  bool add(std::string name, OzfQuery::Type kind, std::string value, std::string& mistake);
  void nameItem(std::string name) { m_items.back().name = std::move(name); }

private:
  std::vector<ScriptItem>& m_items;
  std::vector<std::string> m_names; // of the item, in lower case and sorted
  std::size_t m_kept = 0;
};

// The second half of parseScriptOutput: text is UTF-8 and begins with { or [.
bool parseScriptJson(std::string_view text, std::vector<ScriptItem>& items, std::string& mistake);

} // namespace Quillon::Tessarine::Ozf::Scripts
