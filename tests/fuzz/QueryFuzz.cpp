// The query language: a query that is understood, written down again, is
// understood as the same; its answers agree with one another; one that is not
// understood says where.

#include "tests/fuzz/Fuzz.h"

#include "ozf/sync/AutoDereference.h"
#include "ozf/xml/OzfQuery.h"
#include "ozf/xml/QueryExpression.h"
#include "ozf/xml/QueryNumber.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>
#include <vector>

namespace
{

using namespace fuzz;
using Kind = QueryNode::Kind;
using Operator = QueryNode::Operator;

char const* symbolOf(Operator comparison)
{
  switch (comparison)
  {
  case Operator::EQUAL:
    return "=";
  case Operator::NOT_EQUAL:
    return "!=";
  case Operator::LESS:
    return "<";
  case Operator::LESS_OR_EQUAL:
    return "<=";
  case Operator::GREATER:
    return ">";
  case Operator::GREATER_OR_EQUAL:
    return ">=";
  case Operator::LIKE:
    break;
  }
  return "like";
}

std::string quoted(std::string const& text)
{
  std::string result = "\"";
  for (char const c : text)
    result += c == '"' ? std::string("\"\"") : std::string(1, c);
  return result + '"';
}

std::string print(QueryTerm const& term)
{
  if (term.kind == QueryTerm::Kind::NUMBER)
    return term.text;
  if (term.kind == QueryTerm::Kind::NAME)
    return quoted(term.text);
  require(term.operands.size() >= 2 && term.operators.size() + 1 == term.operands.size(),
          "a chain of a calculation has a sign before each link but the first");
  std::string text;
  for (std::size_t i = 0; i < term.operands.size(); ++i)
  {
    QueryTerm const& operand = term.operands[i];
    if (i != 0)
      text += std::string(" ") + term.operators[i - 1] + ' ';
    bool const group =
        operand.kind == QueryTerm::Kind::SUM ||
        (operand.kind == QueryTerm::Kind::PRODUCT && term.kind == QueryTerm::Kind::PRODUCT);
    text += group ? '(' + print(operand) + ')' : print(operand);
  }
  return text;
}

// What stands alone is taken for a plain comparison, but for parentheses.
std::string printCalculation(QueryNode const& node)
{
  require(node.terms.size() == 2, "a calculation has two sides");
  QueryTerm const& left = node.terms[0];
  QueryTerm const& right = node.terms[1];
  bool const plain = left.kind == QueryTerm::Kind::NAME;
  bool const single = right.kind == QueryTerm::Kind::NAME || right.kind == QueryTerm::Kind::NUMBER;
  return (left.kind == QueryTerm::Kind::NUMBER ? '(' + print(left) + ')' : print(left)) + ' ' +
         symbolOf(node.comparison) + ' ' +
         (plain && single ? '(' + print(right) + ')' : print(right));
}

std::string describe(QueryTerm const& term)
{
  if (term.operands.empty())
    return (term.kind == QueryTerm::Kind::NUMBER ? "number [" : "name [") + term.text + ']';
  std::string text = "(";
  for (std::size_t i = 0; i < term.operands.size(); ++i)
    text += (i == 0 ? std::string() : std::string(1, term.operators[i - 1])) +
            describe(term.operands[i]);
  return text + ')';
}

// The query that node stands for. Operands get no more parentheses than they
// need, so that no query gets deeper than it was.
std::string print(QueryNode const& node)
{
  switch (node.kind)
  {
  case Kind::NOT:
    require(node.operands.size() == 1, "a negation has one operand");
    return node.operands.front().kind == Kind::AND || node.operands.front().kind == Kind::OR
               ? "not (" + print(node.operands.front()) + ')'
               : "not " + print(node.operands.front());
  case Kind::AND:
  case Kind::OR:
  {
    require(node.operands.size() >= 2, "a chain has two links at least");
    std::string text;
    for (QueryNode const& operand : node.operands)
    {
      if (!text.empty())
        text += node.kind == Kind::AND ? " and " : " or ";
      // A chain in a chain of the same kind stood in parentheses, or it would
      // have become one with it.
      bool const group =
          operand.kind == Kind::OR || (operand.kind == Kind::AND && node.kind == Kind::AND);
      text += group ? '(' + print(operand) + ')' : print(operand);
    }
    return text;
  }
  case Kind::CALCULATION:
    return printCalculation(node);
  case Kind::COMPARISON:
    break;
  }
  // A value without quotes is the one that is a number.
  return quoted(node.attribute) + ' ' + symbolOf(node.comparison) + ' ' +
         (node.number ? node.value : quoted(node.value));
}

std::string describe(QueryNode const& node)
{
  if (node.kind == Kind::COMPARISON)
    return '[' + node.attribute + "] " + symbolOf(node.comparison) + " [" + node.value + ']' +
           (node.number ? " number" : "");
  if (node.kind == Kind::CALCULATION)
    return describe(node.terms[0]) + symbolOf(node.comparison) + describe(node.terms[1]);
  std::string text = node.kind == Kind::NOT ? "not(" : node.kind == Kind::AND ? "and(" : "or(";
  for (QueryNode const& operand : node.operands)
    text += describe(operand) + ", ";
  return text + ')';
}

void collect(QueryNode const& node, std::vector<QueryNode const*>& comparisons)
{
  if (node.kind == Kind::COMPARISON)
    comparisons.push_back(&node);
  for (QueryNode const& operand : node.operands)
    collect(operand, comparisons);
}

// Says what a mistake looks like: "line 1, column 8: expected a value".
void checkMistake(std::string const& text, std::string const& mistake)
{
  unsigned long line = 0;
  unsigned long column = 0;
  int end = 0;
  require(std::sscanf(mistake.c_str(), "line %lu, column %lu: %n", &line, &column, &end) == 2 &&
              end > 0 && static_cast<std::size_t>(end) < mistake.size(),
          "a mistake has a place and a reason", mistake);
  auto const lines = 1 + static_cast<unsigned long>(std::count(text.begin(), text.end(), '\n'));
  require(line >= 1 && line <= lines && column >= 1 && column <= text.size() + 1,
          "the place of a mistake lies in the query", mistake);
}

QueryNode withOperator(QueryNode node, Operator comparison)
{
  node.comparison = comparison;
  return node;
}

void checkComparison(QueryNode const& node, std::string const& actual)
{
  auto const answers = [&](Operator comparison)
  {
    return evaluateQuery(withOperator(node, comparison),
                         [&](std::string_view) { return std::optional<std::string>(actual); });
  };
  std::string const details = describe(node) + " for [" + actual + ']';
  int const orders =
      answers(Operator::LESS) + answers(Operator::EQUAL) + answers(Operator::GREATER);
  bool const ordered = !node.number || parseQueryNumber(actual);
  require(orders == (ordered ? 1 : 0), "a value is less, equal or greater", details);
  require(answers(Operator::NOT_EQUAL) == !answers(Operator::EQUAL),
          "a value that is there is equal or not", details);
  require(answers(Operator::LESS_OR_EQUAL) == (answers(Operator::LESS) || answers(Operator::EQUAL)),
          "less or equal is one of the two", details);
  require(answers(Operator::GREATER_OR_EQUAL) ==
              (answers(Operator::GREATER) || answers(Operator::EQUAL)),
          "greater or equal is one of the two", details);
  require(!evaluateQuery(node, [](std::string_view) { return std::nullopt; }),
          "an attribute that is absent answers nothing", details);
}

void checkNumber(std::string const& text)
{
  auto const number = parseQueryNumber(text);
  if (!number)
    return;
  require(!std::isnan(*number), "a number is a number", text);
  require(text.find_first_of("0123456789") <= 1, "a number begins with a digit or a sign", text);
}

void checkUnderstood(std::string const& text, QueryNode const& expression)
{
  std::string const printed = print(expression);
  ParsedQuery const again = parseQuery(printed);
  require(again.result == OzfQuery::QUERY_OK, "what was written is understood",
          printed + '\n' + again.error);
  requireEqual(describe(expression), describe(again.expression),
               "what was written is understood as the same");

  std::vector<QueryNode const*> comparisons;
  collect(expression, comparisons);
  auto const names = namesIn(expression);
  for (QueryName const& each : names)
    require(each.place.line >= 1 && each.place.column >= 1 && each.place.column <= text.size() + 1,
            "a name stands in the query", each.name);

  AutoDereference<OzfQuery> const whole(new OzfQuery);
  require(whole->setQuery(text) == OzfQuery::QUERY_OK && whole->getQuery() == OzfString(text),
          "a query that is understood is set");
  AutoDereference<OzfQuery> const negation(new OzfQuery);
  int const negated = negation->setQuery("not (" + text + ')');
  require(negated != OzfQuery::QUERY_SYNTAX, "a query can stand in parentheses",
          negation->lastError());

  // Attributes with the values that the query itself names, or none.
  for (std::uint32_t round = 0; round < 4; ++round)
  {
    auto const lookup = [&](std::string_view name) -> std::optional<std::string>
    {
      std::uint32_t const choice = choiceOf(name) + round;
      if (choice % 5 == 0)
        return std::nullopt;
      if (comparisons.empty())
        return std::to_string(choice % 7);
      return comparisons[choice % comparisons.size()]->value;
    };
    bool const answer = whole->evaluate(lookup);
    require(answer == evaluateQuery(again.expression, lookup),
            "the query written answers the same");
    if (negated == OzfQuery::QUERY_OK)
      require(answer != negation->evaluate(lookup), "a negation answers the opposite");
  }

  // Few are enough: every input brings its own.
  std::size_t const some = std::min<std::size_t>(comparisons.size(), 8);
  for (std::size_t i = 0; i < some; ++i)
  {
    checkNumber(comparisons[i]->value);
    for (std::size_t j = 0; j < some; ++j)
    {
      checkComparison(*comparisons[i], comparisons[j]->value);
      checkComparison(*comparisons[i], comparisons[j]->attribute);
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  std::string const text(textOf(data, size));
  checkNumber(text);

  AutoDereference<OzfQuery> const query(new OzfQuery);
  require(query->setQuery("kept = 1") == OzfQuery::QUERY_OK, "a plain query is understood");
  int const result = query->setQuery(text);
  require((result == OzfQuery::QUERY_OK) == query->lastError().empty(),
          "a query is refused with a reason, or set");
  if (result != OzfQuery::QUERY_OK)
  {
    require(query->getQuery() == OzfString("kept = 1"), "a query that is refused changes nothing");
    if (result != OzfQuery::QUERY_TOO_LONG)
      checkMistake(text, query->lastError());
    return 0;
  }
  if (text.find_first_not_of(" \t\n\v\f\r") == std::string::npos)
  {
    require(query->evaluate([](std::string_view) { return std::nullopt; }),
            "a blank query asks for everything");
    return 0;
  }
  ParsedQuery const parsed = parseQuery(text);
  require(parsed.result == OzfQuery::QUERY_OK, "a query is understood or not");
  checkUnderstood(text, parsed.expression);
  return 0;
}
