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

// Where something stands in the text of a query; both count from 1, the column
// in bytes.
struct QueryPlace
{
  std::size_t line = 1;
  std::size_t column = 1;
};

// A part of a calculation.
struct QueryTerm
{
  enum class Kind
  {
    NUMBER,
    NAME,   // the value of an attribute
    SUM,    // operands, from left to right, with + or - between them
    PRODUCT // likewise with * or /
  };

  Kind kind = Kind::NAME;
  std::string text; // of a number, as it was written; of a name
  QueryPlace place;
  long double number = 0;
  std::vector<QueryTerm> operands;
  std::string operators; // that before each operand but the first
};

struct QueryNode
{
  enum class Kind
  {
    AND,
    OR,
    NOT, // one operand
    COMPARISON,
    CALCULATION // a comparison of two calculated numbers
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
  QueryPlace place; // of the attribute
  Operator comparison = Operator::EQUAL;
  std::string value;
  std::optional<long double> number; // the value, when it is to be compared as a number

  std::vector<QueryTerm> terms; // of a calculation: its left and its right side
};

// The names that the query asks for, each time that it does, in its order.
struct QueryName
{
  std::string name;
  QueryPlace place;
  bool calculated = false; // a part of a calculation
};
OZF_EXPORT std::vector<QueryName> namesIn(QueryNode const& node);

// Reads text, which is not blank. The code is one of OzfQuery::Result.
struct ParsedQuery
{
  int result = 0;
  std::string error;                 // "line 1, column 8: expected a value"
  std::optional<QueryPlace> mistake; // of the error, where it has one
  QueryNode expression;
};
OZF_EXPORT ParsedQuery parseQuery(std::string_view text);

OZF_EXPORT bool
evaluateQuery(QueryNode const& node,
              std::function<std::optional<std::string>(std::string_view name)> const& lookup);

} // namespace Quillon::Tessarine::Ozf
