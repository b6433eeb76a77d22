#include "web/RequestTarget.h"

#include "ozf/base/OzfString.h"

#include <algorithm>

namespace Web
{

namespace
{

int digitOf(char c)
{
  if (c >= '0' && c <= '9')
    return c - '0';
  char const lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool isText(std::string_view text)
{
  while (!text.empty())
  {
    char32_t character = 0;
    std::size_t const length = Quillon::Tessarine::Ozf::decodeUtf8(text, character);
    if (length == 0 || character == 0)
      return false;
    text.remove_prefix(length);
  }
  return true;
}

// The parts that a text may have between separators.
struct Parts
{
  char separator;
  std::ptrdiff_t most;
  char const* what;
};

// Calls take with each part; false when one is refused, or when there are more than there may be.
template <class Take>
bool split(std::string_view text, Parts const& parts, Mistake& mistake, Take const& take)
{
  if (std::count(text.begin(), text.end(), parts.separator) >= parts.most)
  {
    mistake.detail =
        std::string(parts.what) + ", of which " + std::to_string(parts.most) + " are accepted";
    return false;
  }
  for (;;)
  {
    auto const end = text.find(parts.separator);
    if (!take(text.substr(0, end)))
      return false;
    if (end == std::string_view::npos)
      return true;
    text.remove_prefix(end + 1);
  }
}

} // namespace

std::optional<std::string> decoded(std::string_view text, bool plusIsSpace)
{
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i)
  {
    char const c = text[i];
    if (c == '%')
    {
      int const high = i + 2 < text.size() ? digitOf(text[i + 1]) : -1;
      int const low = i + 2 < text.size() ? digitOf(text[i + 2]) : -1;
      if (high < 0 || low < 0)
        return std::nullopt;
      result += static_cast<char>(high * 16 + low);
      i += 2;
    }
    else if (c <= ' ' || c == '\x7F' || c == '#')
      return std::nullopt;
    else
      result += c == '+' && plusIsSpace ? ' ' : c;
  }
  return isText(result) ? std::optional(std::move(result)) : std::nullopt;
}

std::string encoded(std::string_view text)
{
  constexpr char DIGITS[] = "0123456789ABCDEF";
  std::string result;
  for (char const c : text)
  {
    bool const isPlain = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
                         (c >= 'a' && c <= 'z') || c == '-' || c == '.' || c == '_';
    if (isPlain)
      result += c;
    else
      (((result += '%') += DIGITS[static_cast<unsigned char>(c) >> 4U]) += DIGITS[c & 0xF]);
  }
  return result;
}

std::optional<RequestTarget> RequestTarget::fromText(std::string_view text, Mistake& mistake)
{
  mistake = {"the path and the names and values of parameters are percent-encoded UTF-8", {}, {}};
  if (!text.starts_with('/'))
  {
    mistake.detail = "a request names a path";
    return std::nullopt;
  }
  RequestTarget target;
  auto const question = text.find('?');
  if (!split(text.substr(1, question == std::string_view::npos ? question : question - 1),
             {'/', 16, "the path has too many parts"}, mistake,
             [&target](std::string_view part)
             {
               auto name = decoded(part, false);
               if (name)
                 target.m_path.push_back(std::move(*name));
               return name.has_value();
             }))
    return std::nullopt;
  if (question == std::string_view::npos)
    return target;

  auto const takeParameter = [&](std::string_view part)
  {
    if (part.empty())
      return true;
    auto const equals = part.find('=');
    auto name = decoded(part.substr(0, equals), true);
    auto value = decoded(
        equals == std::string_view::npos ? std::string_view() : part.substr(equals + 1), true);
    if (!name || !value)
      return false;
    if (target.find(*name) != nullptr)
    {
      mistake = {"the parameter is given twice", *name, {}};
      return false;
    }
    target.m_parameters.emplace_back(std::move(*name), std::move(*value));
    return true;
  };
  if (!split(text.substr(question + 1), {'&', 16, "there are too many parameters"}, mistake,
             takeParameter))
    return std::nullopt;
  return target;
}

std::string const* RequestTarget::find(std::string_view name) const
{
  auto const found = std::find_if(m_parameters.begin(), m_parameters.end(),
                                  [name](auto const& each) { return each.first == name; });
  return found == m_parameters.end() ? nullptr : &found->second;
}

std::string const* RequestTarget::unknownBeside(std::vector<std::string_view> const& known) const
{
  auto const found = std::find_if(m_parameters.begin(), m_parameters.end(),
                                  [&known](auto const& each)
                                  { return std::ranges::count(known, each.first) == 0; });
  return found == m_parameters.end() ? nullptr : &found->first;
}

} // namespace Web
