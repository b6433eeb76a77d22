// The JSON that scripts print. It is read event by event: what is beyond the
// bounds is refused where it begins, however much of it there is.

#include "scripts/ScriptOutput.h"

#include <nlohmann/json.hpp>

#include <array>
#include <charconv>
#include <iterator>

namespace Quillon::Tessarine::Ozf::Scripts
{

namespace
{

using nlohmann::json;
using Type = OzfQuery::Type;

// Walks the text and tells how far the parser has come.
class Walk
{
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = char const*;
  using reference = char const&;

  Walk(char const* at, char const*& reached) : m_at(at), m_reached(&reached) {}
  reference operator*() const { return *m_at; }
  Walk& operator++()
  {
    *m_reached = ++m_at;
    return *this;
  }
  Walk operator++(int)
  {
    Walk const before = *this;
    ++*this;
    return before;
  }
  bool operator==(Walk const& other) const { return m_at == other.m_at; }

private:
  char const* m_at;
  char const** m_reached;
};

// A number with an exponent is written out, as queries read none.
std::string plainNumber(double number, std::string const& written)
{
  if (written.find_first_of("eE") == std::string::npos)
    return written;
  std::array<char, 2048> text{};
  auto const end =
      std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed).ptr;
  return {text.data(), end};
}

// Makes items of the events. Each operation is false to end the reading, with the
// mistake set.
class Reader
{
public:
  explicit Reader(std::vector<ScriptItem>& items) : m_collector(items) {}

  std::string const& mistake() const { return m_mistake; }

  bool null() { return leaf(Type::TEXT, {}, "null"); }
  bool boolean(bool value) { return leaf(Type::BOOLEAN, value ? "true" : "false", "a boolean"); }
  bool number_integer(json::number_integer_t value)
  {
    return leaf(Type::NUMBER, std::to_string(value), "a number");
  }
  bool number_unsigned(json::number_unsigned_t value)
  {
    return leaf(Type::NUMBER, std::to_string(value), "a number");
  }
  bool number_float(json::number_float_t value, std::string const& written)
  {
    return leaf(Type::NUMBER, plainNumber(value, written), "a number");
  }
  bool string(std::string& value) { return leaf(Type::TEXT, std::move(value), "a text"); }
  bool binary(json::binary_t&) { return refuse("it is no text"); }

  bool start_object(std::size_t)
  {
    bool const isItem = m_levels.size() == (m_isArray ? 1U : 0U);
    if (isItem && (!m_collector.beginItem(m_mistake)))
      return false;
    m_isNamed = m_isNamed && !isItem;
    return enter(false);
  }
  bool key(std::string& key)
  {
    m_levels.back().key = std::move(key);
    return true;
  }
  bool end_object()
  {
    m_levels.pop_back();
    if (m_isArray && m_levels.size() == 1 && !m_isNamed)
      return refuse("the item that ends here has no \"name\"");
    return next();
  }
  bool start_array(std::size_t)
  {
    if (m_levels.empty())
      m_isArray = true;
    else if (m_isArray && m_levels.size() == 1)
      return refuse("an array where an item was expected; items are objects");
    return enter(true);
  }
  bool end_array()
  {
    m_levels.pop_back();
    return next();
  }
  bool parse_error(std::size_t, std::string const&, json::exception const& exception)
  {
    // What is behind the library's own words on the place; it may end with all of a
    // long text.
    constexpr std::size_t MOST = 200;
    std::string_view text = exception.what();
    if (auto const words = text.find("syntax error"); words != std::string_view::npos)
      text.remove_prefix(words);
    else if (auto const end = text.find("] "); end != std::string_view::npos)
      text.remove_prefix(end + 2);
    return refuse("no valid JSON: " + std::string(text.substr(0, MOST)));
  }

private:
  struct Level
  {
    bool isArray;
    std::string key;       // of the value that is read
    std::size_t index = 0; // likewise, in an array
  };

  bool refuse(std::string mistake)
  {
    m_mistake = std::move(mistake);
    return false;
  }

  bool enter(bool isArray)
  {
    if (isName())
      return refuse("\"name\" is neither a text nor a number");
    if (m_levels.size() == OutputBounds::NESTING)
      return refuse("values are nested more than " + std::to_string(OutputBounds::NESTING) +
                    " deep");
    m_levels.push_back({isArray, {}});
    return true;
  }

  // A value of the array that the reading is in has ended.
  bool next()
  {
    if (!m_levels.empty())
      ++m_levels.back().index;
    return true;
  }

  bool isName() const
  {
    return m_levels.size() == (m_isArray ? 2U : 1U) && !m_levels.back().isArray &&
           m_levels.back().key == "name";
  }

  bool leaf(Type kind, std::string value, char const* what)
  {
    if (m_isArray && m_levels.size() == 1)
      return refuse(std::string(what) + " where an item was expected; items are objects");
    if (isName())
    {
      if (value.empty() || kind == Type::BOOLEAN)
        return refuse("\"name\" is neither a text nor a number");
      m_collector.nameItem(std::move(value));
      m_isNamed = true;
      return true;
    }
    // Of what is not known, and of an empty text, there is no fact.
    if (!value.empty() && !m_collector.add(path(), kind, std::move(value), m_mistake))
      return false;
    return next();
  }

  // The keys down to this value, with dots between.
  std::string path() const
  {
    std::string text;
    for (std::size_t level = m_isArray ? 1 : 0; level < m_levels.size(); ++level)
    {
      text += text.empty() ? "" : ".";
      text += m_levels[level].isArray ? std::to_string(m_levels[level].index) : m_levels[level].key;
    }
    return text;
  }

  ItemCollector m_collector;
  std::vector<Level> m_levels;
  bool m_isArray = false; // of items
  bool m_isNamed = false; // the item
  std::string m_mistake;
};

} // namespace

bool parseScriptJson(std::string_view text, std::vector<ScriptItem>& items, std::string& mistake)
{
  Reader reader(items);
  char const* reached = text.data();
  if (json::sax_parse(Walk(text.data(), reached), Walk(text.data() + text.size(), reached),
                      &reader))
    return true;
  auto const offset = static_cast<std::size_t>(reached - text.data());
  mistake = placeIn(text, offset == 0 ? 0 : offset - 1) + ": " + reader.mistake();
  return false;
}

} // namespace Quillon::Tessarine::Ozf::Scripts
