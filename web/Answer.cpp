#include "web/Answer.h"

#include "ozf/base/AsciiCase.h"
#include "ozf/base/Digest.h"
#include "ozf/base/Trim.h"
#include "tools/Output.h"

#include <algorithm>
#include <charconv>
#include <zlib.h>

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::size_t WORTH_ZIPPING = 1024;

// Empty when it fails.
std::string zip(std::string_view text)
{
  constexpr int WITH_GZIP_HEADER = 15 + 16;
  constexpr int LEVEL = 5;
  constexpr int MEMORY = 8;
  z_stream stream{};
  if (deflateInit2(&stream, LEVEL, Z_DEFLATED, WITH_GZIP_HEADER, MEMORY, Z_DEFAULT_STRATEGY) !=
      Z_OK)
    return {};
  std::string result(deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(result.data());
  stream.avail_out = static_cast<uInt>(result.size());
  bool const done = deflate(&stream, Z_FINISH) == Z_STREAM_END;
  result.resize(done ? stream.total_out : 0);
  result.shrink_to_fit();
  deflateEnd(&stream);
  return result;
}

// Calls take with each entry between commas, and the parameters behind its semicolons;
// take says whether to go on.
template <class Take>
void forEachEntry(std::string_view header, Take const& take)
{
  while (!header.empty())
  {
    auto const comma = std::min(header.find(','), header.size());
    std::string_view const entry = header.substr(0, comma);
    header.remove_prefix(std::min(comma + 1, header.size()));
    auto const semicolon = std::min(entry.find(';'), entry.size());
    if (!take(trimmed(entry.substr(0, semicolon)), entry.substr(semicolon)))
      return;
  }
}

// "q" of ";level=1;q=0.5", in thousandths; 1000 when it is not there.
int qualityOf(std::string_view parameters)
{
  while (!parameters.empty())
  {
    parameters.remove_prefix(1);
    auto const end = std::min(parameters.find(';'), parameters.size());
    std::string_view const one = trimmed(parameters.substr(0, end));
    parameters.remove_prefix(end);
    if (!one.starts_with("q=") && !one.starts_with("Q="))
      continue;
    double value = 0;
    auto const [stop, error] =
        std::from_chars(one.data() + 2, one.data() + one.size(), value, std::chars_format::fixed);
    bool const isNumber = error == std::errc() && stop == one.data() + one.size();
    return isNumber && value >= 0 && value <= 1 ? static_cast<int>(value * 1000) : 0;
  }
  return 1000;
}

// How closely a range of types matches: 0 not at all.
int closeness(std::string_view range, std::string_view type)
{
  if (equalIgnoringCase(range, type))
    return 3;
  if (range == "*/*" || range == "*")
    return 1;
  auto const slash = type.find('/');
  return range.ends_with("/*") &&
                 equalIgnoringCase(range.substr(0, range.size() - 2), type.substr(0, slash))
             ? 2
             : 0;
}

} // namespace

std::size_t Answer::size() const
{
  return sizeof *this + (body ? body->size() : 0) + (zipped ? zipped->size() : 0);
}

Answer answerOf(std::string body, std::string type)
{
  Answer answer;
  answer.type = std::move(type);
  answer.etag = '"' + digestOf(body) + '"';
  bool const isText = answer.type.starts_with("text/") ||
                      answer.type.find("json") != std::string::npos ||
                      answer.type.find("xml") != std::string::npos ||
                      answer.type.find("javascript") != std::string::npos;
  if (isText && body.size() >= WORTH_ZIPPING)
    if (std::string zipped = zip(body); !zipped.empty() && zipped.size() < body.size())
      answer.zipped = std::make_shared<std::string const>(std::move(zipped));
  answer.body = std::make_shared<std::string const>(std::move(body));
  return answer;
}

Answer answerOf(nlohmann::json const& value)
{
  return answerOf(tqdiscoctl::jsonText(value, -1) + '\n');
}

char const* titleOf(unsigned status)
{
  switch (status)
  {
  case 400:
    return "Bad Request";
  case 401:
    return "Unauthorized";
  case 403:
    return "Forbidden";
  case 404:
    return "Not Found";
  case 405:
    return "Method Not Allowed";
  case 406:
    return "Not Acceptable";
  case 413:
    return "Content Too Large";
  case 502:
    return "Bad Gateway";
  case 503:
    return "Service Unavailable";
  case 504:
    return "Gateway Timeout";
  default:
    return "Internal Server Error";
  }
}

namespace
{

Answer problemOf(unsigned status, nlohmann::json members)
{
  members["type"] = "about:blank";
  members["title"] = titleOf(status);
  members["status"] = status;
  Answer answer = answerOf(members);
  answer.status = status;
  answer.type = "application/problem+json";
  answer.etag.clear();
  constexpr char SECONDS[] = "2";
  if (status == 503)
    answer.headers.emplace_back("Retry-After", SECONDS);
  if (status == 405)
    answer.headers.emplace_back("Allow", "GET, HEAD");
  return answer;
}

} // namespace

Answer problem(unsigned status, std::string const& detail)
{
  return problemOf(status, {{"detail", detail}});
}

Answer problem(Mistake const& mistake)
{
  nlohmann::json members = {{"detail", mistake.detail}};
  if (!mistake.parameter.empty())
    members["parameter"] = mistake.parameter;
  if (mistake.place)
    members["position"] = {{"line", mistake.place->line}, {"column", mistake.place->column}};
  return problemOf(400, std::move(members));
}

bool hasTag(std::string_view header, std::string_view etag)
{
  bool found = false;
  forEachEntry(header,
               [&](std::string_view tag, std::string_view)
               {
                 if (tag.starts_with("W/"))
                   tag.remove_prefix(2);
                 found = tag == "*" || tag == etag;
                 return !found;
               });
  return found;
}

bool acceptsGzip(std::string_view header)
{
  int gzip = -1;
  int any = 0;
  forEachEntry(header,
               [&](std::string_view coding, std::string_view parameters)
               {
                 if (equalIgnoringCase(coding, "gzip"))
                   gzip = qualityOf(parameters);
                 else if (coding == "*")
                   any = qualityOf(parameters);
                 return true;
               });
  return (gzip >= 0 ? gzip : any) > 0;
}

std::size_t preferredType(std::string_view header, std::vector<std::string_view> const& types)
{
  if (trimmed(header).empty())
    return 0;
  std::size_t best = std::string_view::npos;
  int bestQuality = 0;
  for (std::size_t i = 0; i < types.size(); ++i)
  {
    int closest = 0;
    int quality = 0;
    forEachEntry(header,
                 [&](std::string_view range, std::string_view parameters)
                 {
                   int const close = closeness(range, types[i]);
                   if (close > closest)
                   {
                     closest = close;
                     quality = qualityOf(parameters);
                   }
                   return true;
                 });
    if (quality > bestQuality)
    {
      best = i;
      bestQuality = quality;
    }
  }
  return best;
}

} // namespace Web
