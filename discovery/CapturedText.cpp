#include "discovery/CapturedText.h"

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr auto NONE = std::string_view::npos;

// Takes prefix from the beginning of text; false when it does not begin so.
bool take(std::string_view& text, std::string_view prefix)
{
  if (!text.starts_with(prefix))
    return false;
  text.remove_prefix(prefix.size());
  return true;
}

// Takes ' "name"="' from the beginning of text.
bool takeName(std::string_view& text)
{
  std::string_view rest = text;
  if (!take(rest, " \""))
    return false;
  auto const end = rest.find_first_of("\"<>= ");
  if (end == NONE || end == 0)
    return false;
  rest.remove_prefix(end);
  if (!take(rest, "\"=\""))
    return false;
  text = rest;
  return true;
}

// Takes a value and the quote behind it: the one before the next attribute or
// the end of the tag.
bool takeValue(std::string_view& text)
{
  for (auto quote = text.find('"'); quote != NONE; quote = text.find('"', quote + 1))
  {
    std::string_view rest = text.substr(quote + 1);
    std::string_view next = rest;
    if (!rest.starts_with('>') && !takeName(next))
      continue;
    text = rest;
    return true;
  }
  return false;
}

} // namespace

bool withoutAttributes(std::string_view captured, std::string& xml)
{
  xml.clear();
  while (!captured.empty())
  {
    auto const tag = captured.find('<');
    std::string_view const text = captured.substr(0, tag);
    // In text they are escaped: here a value goes on that seemed to have ended.
    if (text.find_first_of("\">") != NONE)
      return false;
    xml += text;
    if (tag == NONE)
      break;
    captured.remove_prefix(tag);
    auto const nameEnd = captured.find_first_of(" >");
    if (nameEnd == NONE)
      return false;
    xml += captured.substr(0, nameEnd);
    captured.remove_prefix(nameEnd);
    while (takeName(captured))
      if (!takeValue(captured))
        return false;
    if (!take(captured, ">"))
      return false;
    xml += '>';
  }
  return true;
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
