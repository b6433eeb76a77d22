// What a query is answered with.

#include "ozf/base/Wildcard.h"
#include "ozf/xml/QueryExpression.h"
#include "ozf/xml/QueryNumber.h"

#include <algorithm>
#include <cmath>
#include <compare>
#include <limits>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

using Kind = QueryNode::Kind;
using Operator = QueryNode::Operator;
using QueryLookup = std::function<std::optional<std::string>(std::string_view name)>;

constexpr long double NO_NUMBER = std::numeric_limits<long double>::quiet_NaN();

bool answers(Operator comparison, std::partial_ordering order)
{
  switch (comparison)
  {
  case Operator::EQUAL:
    return order == 0;
  case Operator::NOT_EQUAL:
    return order != 0;
  case Operator::LESS:
    return order < 0;
  case Operator::LESS_OR_EQUAL:
    return order <= 0;
  case Operator::GREATER:
    return order > 0;
  case Operator::GREATER_OR_EQUAL:
    return order >= 0;
  case Operator::LIKE:
    break;
  }
  return false;
}

bool compare(QueryNode const& node, std::string const& actual)
{
  if (node.comparison == Operator::LIKE)
    return wildcardcmp(node.value, actual) == 0;
  if (!node.number)
    return answers(node.comparison, actual <=> node.value);
  auto const number = parseQueryNumber(actual);
  return answers(node.comparison,
                 number ? *number <=> *node.number : std::partial_ordering::unordered);
}

long double apply(char operation, long double left, long double right)
{
  switch (operation)
  {
  case '+':
    return left + right;
  case '-':
    return left - right;
  case '*':
    return left * right;
  default:
    return right == 0 ? NO_NUMBER : left / right;
  }
}

// Absent when an attribute is; NO_NUMBER when the value of one is not a number, and
// when there is no result.
std::optional<long double> calculate(QueryTerm const& term, QueryLookup const& lookup)
{
  if (term.kind == QueryTerm::Kind::NUMBER)
    return term.number;
  if (term.kind == QueryTerm::Kind::NAME)
  {
    auto const value = lookup(term.text);
    return value ? std::optional(parseQueryNumber(*value).value_or(NO_NUMBER)) : std::nullopt;
  }
  std::optional<long double> result;
  for (std::size_t i = 0; i < term.operands.size(); ++i)
  {
    auto const operand = calculate(term.operands[i], lookup);
    if (!operand)
      return std::nullopt;
    result = i == 0 ? *operand : apply(term.operators[i - 1], *result, *operand);
  }
  return result && std::isfinite(*result) ? result : NO_NUMBER;
}

bool compareCalculated(QueryNode const& node, QueryLookup const& lookup)
{
  auto const left = calculate(node.terms[0], lookup);
  auto const right = calculate(node.terms[1], lookup);
  return left && right && answers(node.comparison, *left <=> *right);
}

void collectNames(QueryTerm const& term, std::vector<QueryName>& names)
{
  if (term.kind == QueryTerm::Kind::NAME)
    names.push_back({term.text, term.place, true});
  for (QueryTerm const& operand : term.operands)
    collectNames(operand, names);
}

void collectNames(QueryNode const& node, std::vector<QueryName>& names)
{
  if (node.kind == Kind::COMPARISON)
    names.push_back({node.attribute, node.place, false});
  for (QueryTerm const& term : node.terms)
    collectNames(term, names);
  for (QueryNode const& operand : node.operands)
    collectNames(operand, names);
}

} // namespace

std::vector<QueryName> namesIn(QueryNode const& node)
{
  std::vector<QueryName> names;
  collectNames(node, names);
  return names;
}

bool evaluateQuery(QueryNode const& node, QueryLookup const& lookup)
{
  auto const holds = [&lookup](QueryNode const& operand) { return evaluateQuery(operand, lookup); };
  switch (node.kind)
  {
  case Kind::AND:
    return std::all_of(node.operands.begin(), node.operands.end(), holds);
  case Kind::OR:
    return std::any_of(node.operands.begin(), node.operands.end(), holds);
  case Kind::NOT:
    return !holds(node.operands.front());
  case Kind::CALCULATION:
    return compareCalculated(node, lookup);
  case Kind::COMPARISON:
    break;
  }
  auto const actual = lookup(node.attribute);
  return actual && compare(node, *actual);
}

} // namespace Quillon::Tessarine::Ozf
