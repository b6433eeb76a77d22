// What a query is answered with, and the numbers in it.

#include "ozf/base/Wildcard.h"
#include "ozf/xml/QueryExpression.h"

#include <algorithm>
#include <charconv>
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

// Absent when an attribute is; NO_NUMBER when the value of one is none, and when
// there is no result.
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

std::optional<long double> parseQueryNumber(std::string_view text)
{
  static constexpr long double KILO = 1000;
  static constexpr long double KIBI = 1024;
  static constexpr std::pair<std::string_view, long double> UNITS[] = {
      {"", 1},
      {"B", 1},
      {"K", KIBI},
      {"KiB", KIBI},
      {"M", KIBI * KIBI},
      {"MiB", KIBI * KIBI},
      {"G", KIBI * KIBI * KIBI},
      {"GiB", KIBI * KIBI * KIBI},
      {"T", KIBI * KIBI * KIBI * KIBI},
      {"TiB", KIBI * KIBI * KIBI * KIBI},
      {"P", KIBI * KIBI * KIBI * KIBI * KIBI},
      {"PiB", KIBI * KIBI * KIBI * KIBI * KIBI},
      {"KB", KILO},
      {"MB", KILO * KILO},
      {"GB", KILO * KILO * KILO},
      {"TB", KILO * KILO * KILO * KILO},
      {"PB", KILO * KILO * KILO * KILO * KILO},
      {"s", 1},
      {"m", 60},
      {"h", 60 * 60},
      {"d", 24 * 60 * 60},
      {"w", 7 * 24 * 60 * 60},
  };
  bool const negative = text.starts_with('-');
  if (negative || text.starts_with('+'))
    text.remove_prefix(1);
  // from_chars would also take "inf", "nan" and a second sign.
  if (text.empty() || text.front() < '0' || text.front() > '9')
    return std::nullopt;
  long double number = 0;
  auto const [end, failure] =
      std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (failure != std::errc())
    return std::nullopt;
  std::string_view const rest(end, static_cast<std::size_t>(text.data() + text.size() - end));
  // Divided, since a hundredth is no binary number: 80% is what 8 / 10 is.
  if (rest == "%")
    return (negative ? -number : number) / 100;
  for (auto const& [unit, factor] : UNITS)
    if (rest == unit)
      return (negative ? -number : number) * factor;
  return std::nullopt;
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
