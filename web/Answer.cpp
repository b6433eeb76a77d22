#include "web/Answer.h"

#include "ozf/base/Digest.h"
#include "tools/Output.h"
#include "web/Zip.h"

namespace Web
{

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr std::size_t WORTH_ZIPPING = 1024;

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
    if (std::string smaller = zipped(body); smaller.size() < body.size())
      answer.zipped = std::make_shared<std::string const>(std::move(smaller));
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

} // namespace Web
