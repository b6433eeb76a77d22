// The query language. docs/query-language.md has the grammar for people.

#include "ozf/xml/QueryExpression.h"

#include "ozf/base/Wildcard.h"
#include "ozf/xml/OzfQuery.h"

#include <tao/pegtl.hpp>

#include <algorithm>
#include <charconv>
#include <compare>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

namespace pegtl = tao::pegtl;

using Kind = QueryNode::Kind;
using Operator = QueryNode::Operator;

// ---- the grammar ----

struct Blank : pegtl::star<pegtl::space>
{
};

// Bytes of other alphabets are word characters too.
struct WordCharacter
    : pegtl::not_one<' ', '\t', '\n', '\v', '\f', '\r', '(', ')', '=', '!', '<', '>', '"', '\''>
{
};

template <char... C>
struct Keyword : pegtl::seq<pegtl::istring<C...>, pegtl::not_at<WordCharacter>>
{
};
struct And : Keyword<'a', 'n', 'd'>
{
};
struct Or : Keyword<'o', 'r'>
{
};
struct Not : Keyword<'n', 'o', 't'>
{
};
struct Like : Keyword<'l', 'i', 'k', 'e'>
{
};

struct Bare : pegtl::seq<pegtl::not_at<pegtl::sor<And, Or, Not, Like>>, pegtl::plus<WordCharacter>>
{
};

template <char Quote>
struct QuoteEnd : pegtl::one<Quote>
{
};
template <char Quote>
struct QuotedText : pegtl::star<pegtl::sor<pegtl::two<Quote>, pegtl::not_one<Quote>>>
{
};
template <char Quote>
struct Quoted : pegtl::seq<pegtl::one<Quote>, QuotedText<Quote>, pegtl::must<QuoteEnd<Quote>>>
{
};

struct Text : pegtl::sor<Quoted<'"'>, Quoted<'\''>, Bare>
{
};
struct AttributeName : Text
{
};
struct Value : Text
{
};
struct Comparator : pegtl::sor<pegtl::string<'!', '='>, pegtl::string<'<', '='>,
                               pegtl::string<'>', '='>, pegtl::one<'=', '<', '>'>, Like>
{
};
struct Comparison
    : pegtl::seq<AttributeName, Blank, pegtl::must<Comparator>, Blank, pegtl::must<Value>>
{
};

struct Disjunction;
struct Open : pegtl::one<'('>
{
};
struct Close : pegtl::one<')'>
{
};
struct Group : pegtl::seq<Open, Blank, pegtl::must<Disjunction>, Blank, pegtl::must<Close>>
{
};
struct Operand;
struct Negation : pegtl::seq<Not, Blank, pegtl::must<Operand>>
{
};
struct Operand : pegtl::sor<Negation, Group, Comparison>
{
};
struct AndTail : pegtl::seq<Blank, And, Blank, pegtl::must<Operand>>
{
};
struct Conjunction : pegtl::seq<Operand, pegtl::star<AndTail>>
{
};
struct OrTail : pegtl::seq<Blank, Or, Blank, pegtl::must<Conjunction>>
{
};
struct Disjunction : pegtl::seq<Conjunction, pegtl::star<OrTail>>
{
};
struct Query : pegtl::seq<Blank, pegtl::must<Disjunction>, Blank, pegtl::must<pegtl::eof>>
{
};

// ---- mistakes ----

constexpr char EXPECTED_OPERAND[] = "expected a comparison, \"not\" or \"(\"";

template <class Rule>
constexpr char const* EXPECTED = nullptr;
template <>
constexpr char const* EXPECTED<QuoteEnd<'"'>> = "expected the closing \"";
template <>
constexpr char const* EXPECTED<QuoteEnd<'\''>> = "expected the closing '";
template <>
constexpr char const* EXPECTED<Comparator> = "expected one of = != < <= > >= like";
template <>
constexpr char const* EXPECTED<Value> = "expected a value";
template <>
constexpr char const* EXPECTED<Disjunction> = EXPECTED_OPERAND;
template <>
constexpr char const* EXPECTED<Conjunction> = EXPECTED_OPERAND;
template <>
constexpr char const* EXPECTED<Operand> = EXPECTED_OPERAND;
template <>
constexpr char const* EXPECTED<Close> = "expected \"and\", \"or\" or \")\"";
template <>
constexpr char const* EXPECTED<pegtl::eof> = "expected \"and\", \"or\" or the end";

template <class Rule>
struct Control : pegtl::normal<Rule>
{
  template <class Input, class... States>
  [[noreturn]] static void raise(Input const& in, States&&...)
  {
    static_assert(EXPECTED<Rule> != nullptr);
    throw pegtl::parse_error(EXPECTED<Rule>, in);
  }
};

// ---- building the expression ----

struct Builder
{
  std::vector<QueryNode> operands; // finished, waiting for what joins them
  QueryNode comparison;            // being read
  std::string text;
  bool quoted = false;
  unsigned nesting = 0;
  bool tooDeep = false;

  template <class Input>
  void enter(Input const& in)
  {
    if (++nesting <= OzfQuery::MAX_NESTING)
      return;
    tooDeep = true;
    throw pegtl::parse_error("nested more than " + std::to_string(OzfQuery::MAX_NESTING) + " deep",
                             in);
  }

  // A chain of one kind becomes one node, so that its length is not a depth.
  void join(Kind kind)
  {
    QueryNode right = std::move(operands.back());
    operands.pop_back();
    QueryNode& left = operands.back();
    if (left.kind != kind)
    {
      QueryNode chain;
      chain.kind = kind;
      chain.operands.push_back(std::move(left));
      left = std::move(chain);
    }
    left.operands.push_back(std::move(right));
  }
};

bool orders(Operator comparison)
{
  return comparison == Operator::LESS || comparison == Operator::LESS_OR_EQUAL ||
         comparison == Operator::GREATER || comparison == Operator::GREATER_OR_EQUAL;
}

// A number and a short run of letters: most likely a unit with a slip of the
// pen, which must not turn into a comparison of texts.
bool looksLikeNumberWithUnit(std::string_view text)
{
  auto const letters = text.find_first_not_of("+-.0123456789");
  auto const isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  return letters != std::string_view::npos && letters > 0 && text.size() - letters <= 3 &&
         std::all_of(text.begin() + static_cast<std::ptrdiff_t>(letters), text.end(), isLetter);
}

template <class Rule>
struct Action : pegtl::nothing<Rule>
{
};

template <>
struct Action<Bare>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.text = in.string();
    builder.quoted = false;
  }
};

template <char Quote>
struct Action<QuotedText<Quote>>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.text.clear();
    builder.quoted = true;
    for (char const* p = in.begin(); p != in.end(); ++p)
    {
      builder.text += *p;
      if (*p == Quote)
        ++p; // the second of the pair
    }
  }
};

template <>
struct Action<AttributeName>
{
  static void apply0(Builder& builder) { builder.comparison.attribute = std::move(builder.text); }
};

template <>
struct Action<Comparator>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    static constexpr std::pair<std::string_view, Operator> OPERATORS[] = {
        {"=", Operator::EQUAL},   {"!=", Operator::NOT_EQUAL},
        {"<", Operator::LESS},    {"<=", Operator::LESS_OR_EQUAL},
        {">", Operator::GREATER}, {">=", Operator::GREATER_OR_EQUAL},
    };
    builder.comparison.comparison = Operator::LIKE;
    for (auto const& [text, comparison] : OPERATORS)
      if (in.string_view() == text)
        builder.comparison.comparison = comparison;
  }
};

template <>
struct Action<Value>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    QueryNode& node = builder.comparison;
    if (!builder.quoted && node.comparison != Operator::LIKE)
    {
      node.number = parseQueryNumber(builder.text);
      if (!node.number && orders(node.comparison) && looksLikeNumberWithUnit(builder.text))
        throw pegtl::parse_error("expected a number with one of the units B K M G T P KiB MiB GiB "
                                 "TiB PiB KB MB GB TB PB "
                                 "s m h d w, or a text in quotes",
                                 in);
    }
    node.value = std::move(builder.text);
    builder.operands.push_back(std::exchange(node, QueryNode()));
  }
};

template <>
struct Action<Open>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.enter(in);
  }
};

template <>
struct Action<Close>
{
  static void apply0(Builder& builder) { --builder.nesting; }
};

template <>
struct Action<Not>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.enter(in);
  }
};

template <>
struct Action<Negation>
{
  static void apply0(Builder& builder)
  {
    --builder.nesting;
    QueryNode negation;
    negation.kind = Kind::NOT;
    negation.operands.push_back(std::move(builder.operands.back()));
    builder.operands.back() = std::move(negation);
  }
};

template <>
struct Action<AndTail>
{
  static void apply0(Builder& builder) { builder.join(Kind::AND); }
};

template <>
struct Action<OrTail>
{
  static void apply0(Builder& builder) { builder.join(Kind::OR); }
};

// ---- evaluating ----

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

} // namespace

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
  for (auto const& [unit, factor] : UNITS)
    if (rest == unit)
      return (negative ? -number : number) * factor;
  return std::nullopt;
}

ParsedQuery parseQuery(std::string_view text)
{
  ParsedQuery parsed;
  Builder builder;
  try
  {
    pegtl::memory_input<> in(text.data(), text.size(), "query");
    pegtl::parse<Query, Action, Control>(in, builder);
    parsed.expression = std::move(builder.operands.back());
  }
  catch (pegtl::parse_error const& mistake)
  {
    auto const& position = mistake.positions().front();
    parsed.result = builder.tooDeep ? OzfQuery::QUERY_TOO_DEEP : OzfQuery::QUERY_SYNTAX;
    parsed.error = "line " + std::to_string(position.line) + ", column " +
                   std::to_string(position.column) + ": " + std::string(mistake.message());
  }
  return parsed;
}

bool evaluateQuery(QueryNode const& node,
                   std::function<std::optional<std::string>(std::string_view name)> const& lookup)
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
  case Kind::COMPARISON:
    break;
  }
  auto const actual = lookup(node.attribute);
  return actual && compare(node, *actual);
}

} // namespace Quillon::Tessarine::Ozf
