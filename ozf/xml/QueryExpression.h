// The expression of a query.

#pragma once

#include "ozf/base/Export.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

struct QueryNode
{
  enum class Kind
  {
    AND,
    OR,
    NOT, // one operand
    COMPARISON
  };
  enum class Operator
  {
    EQUAL,
    NOT_EQUAL,
    LESS,
    LESS_OR_EQUAL,
    GREATER,
    GREATER_OR_EQUAL,
    LIKE
  };

  Kind kind = Kind::COMPARISON;
  std::vector<QueryNode> operands;

  std::string attribute;
  Operator comparison = Operator::EQUAL;
  std::string value;
  std::optional<long double> number; // the value, when it is to be compared as a number
};

// The number that the text reads as, in the base unit; absent when it is none.
OZF_EXPORT std::optional<long double> parseQueryNumber(std::string_view text);

// Reads text, which is not blank. The code is one of OzfQuery::Result.
struct ParsedQuery
{
  int result = 0;
  std::string error; // "line 1, column 8: expected a value"
  QueryNode expression;
};
OZF_EXPORT ParsedQuery parseQuery(std::string_view text);

OZF_EXPORT bool
evaluateQuery(QueryNode const& node,
              std::function<std::optional<std::string>(std::string_view name)> const& lookup);

} // namespace Quillon::Tessarine::Ozf
