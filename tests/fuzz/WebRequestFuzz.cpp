// What clients of the gateway send: targets, cursors and values of headers. Each input is
// taken for all of them.

#include "tests/fuzz/Fuzz.h"

#include "web/Cursor.h"
#include "web/HeaderValues.h"
#include "web/RequestTarget.h"

#include <algorithm>

namespace
{

using namespace fuzz;
using namespace Web;

bool isUtf8WithoutNul(std::string_view text)
{
  while (!text.empty())
  {
    char32_t point = 0;
    std::size_t const length = decodeUtf8(text, point);
    if (length == 0 || point == 0)
      return false;
    text.remove_prefix(length);
  }
  return true;
}

void checkTarget(std::string_view text)
{
  Mistake mistake;
  auto const target = RequestTarget::fromText(text, mistake);
  if (!target)
  {
    require(!mistake.detail.empty(), "a mistake is told", std::string(text));
    return;
  }
  require(!target->path().empty(), "a path has a part", std::string(text));
  std::string again;
  for (std::string const& part : target->path())
  {
    require(isUtf8WithoutNul(part), "a part is text", std::string(text));
    again += '/' + encoded(part);
  }
  auto const same = RequestTarget::fromText(again, mistake);
  require(same && same->path() == target->path(), "a path is the same when it is written again",
          again);
  std::string const* const unknown = target->unknownBeside({});
  require(unknown == nullptr || (target->find(*unknown) != nullptr && isUtf8WithoutNul(*unknown)),
          "a parameter that is there is found", std::string(text));
}

void checkCursor(std::string_view text)
{
  auto const cursor = Cursor::fromText(text);
  if (!cursor)
    return;
  auto const again = Cursor::fromText(cursor->text());
  require(again.has_value(), "what was written can be read", cursor->text());
  requireEqual(cursor->text(), again->text(), "writing is stable");
  require(cursor->subject == again->subject && cursor->type == again->type,
          "what was written is the same", cursor->text());
}

void checkHeader(std::string_view text)
{
  std::vector<std::string_view> const types{"application/json", "application/xml"};
  std::size_t const preferred = preferredType(text, types);
  require(preferred == std::string_view::npos || preferred < types.size(),
          "a type that there is is chosen", std::string(text));
  if (text.find("gzip") == std::string_view::npos && text.find('*') == std::string_view::npos &&
      std::none_of(text.begin(), text.end(), [](char c) { return c >= 'A' && c <= 'Z'; }))
    require(!acceptsGzip(text), "gzip is not made up", std::string(text));
  if (text.find('*') == std::string_view::npos && text.find("\"x\"") == std::string_view::npos)
    require(!hasTag(text, "\"x\""), "a tag is not made up", std::string(text));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  std::string_view const text = textOf(data, size);
  checkTarget(text);
  checkCursor(text);
  checkHeader(text);
  return 0;
}
