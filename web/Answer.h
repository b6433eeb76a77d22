// What a request is answered with.

#pragma once

#include "web/RequestTarget.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Web
{

inline constexpr char JSON_TYPE[] = "application/json";

// Bodies are shared by all who are sent the same.
struct Answer
{
  unsigned status = 200;
  std::string type = JSON_TYPE;
  std::shared_ptr<std::string const> body;
  std::shared_ptr<std::string const> zipped; // with gzip; null when that is not worth it
  std::string etag;                          // quoted
  std::vector<std::pair<std::string, std::string>> headers;
  bool isPage = false; // that a browser shows, and may run scripts of

  // Of all that it holds, in bytes.
  std::size_t size() const;
};

// With its tag, and zipped where that is worth it.
Answer answerOf(std::string body, std::string type = JSON_TYPE);
Answer answerOf(nlohmann::json const& value);

// application/problem+json.
Answer problem(unsigned status, std::string const& detail);
Answer problem(Mistake const& mistake);

// The reason phrase of a status.
char const* titleOf(unsigned status);

} // namespace Web
