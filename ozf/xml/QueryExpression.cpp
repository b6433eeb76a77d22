// The query language. docs/query-language.md has the grammar for people.

#include "ozf/xml/QueryExpression.h"

#include "ozf/xml/OzfQuery.h"
#include "ozf/xml/QueryNumber.h"

#include <tao/pegtl.hpp>

#include <type_traits>
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

// In a calculation the signs that calculate end a word, but for the dash, which
// names have: blanks around it tell it from theirs.
struct TermCharacter : pegtl::seq<pegtl::not_at<pegtl::one<'+', '*', '/'>>, WordCharacter>
{
};
struct Word : pegtl::seq<pegtl::not_at<pegtl::sor<And, Or, Not, Like>>,
                         pegtl::opt<pegtl::seq<pegtl::one<'+'>, pegtl::at<pegtl::digit>>>,
                         pegtl::plus<TermCharacter>>
{
};
struct Sum;
struct TermOpen : pegtl::one<'('>
{
};
struct TermClose : pegtl::one<')'>
{
};
struct TermGroup : pegtl::seq<TermOpen, Blank, pegtl::must<Sum>, Blank, pegtl::must<TermClose>>
{
};
struct TermName : pegtl::sor<Quoted<'"'>, Quoted<'\''>>
{
};
struct TermWord : Word
{
};
struct Factor : pegtl::sor<TermGroup, TermName, TermWord>
{
};
template <char Sign, class Right>
struct Tail : pegtl::seq<Blank, pegtl::one<Sign>, Blank, pegtl::must<Right>>
{
};
struct Product : pegtl::seq<Factor, pegtl::star<pegtl::sor<Tail<'*', Factor>, Tail<'/', Factor>>>>
{
};
struct Sum : pegtl::seq<Product, pegtl::star<pegtl::sor<Tail<'+', Product>, Tail<'-', Product>>>>
{
};

struct Sign : pegtl::one<'+', '-', '*', '/'>
{
};

// Whether the parenthesis ahead holds a part of a calculation: one that is
// compared or calculated with goes on behind it. In a loop, as what is ahead
// may be nested to any depth.
struct TermGroupAhead
{
  using rule_t = TermGroupAhead;
  using subs_t = pegtl::empty_list;

  template <class Input>
  static bool match(Input& in)
  {
    std::string_view const text(in.current(), in.size());
    if (!text.starts_with('('))
      return false;
    std::size_t depth = 0;
    char quote = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
    {
      char const c = text[i];
      if (quote != 0)
        quote = c == quote ? '\0' : quote;
      else if (c == '"' || c == '\'')
        quote = c;
      else if (c == '(')
        ++depth;
      else if (c == ')' && --depth == 0)
      {
        auto const next = text.find_first_not_of(" \t\n\v\f\r", i + 1);
        return next != std::string_view::npos &&
               std::string_view("+-*/=!<>").find(text[next]) != std::string_view::npos;
      }
    }
    return false;
  }
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
struct NumberComparator : pegtl::sor<pegtl::string<'!', '='>, pegtl::string<'<', '='>,
                                     pegtl::string<'>', '='>, pegtl::one<'=', '<', '>'>>
{
};
struct LeftSum : Sum
{
};
struct RightSum : Sum
{
};
struct LeftSumAhead
    : pegtl::sor<TermGroupAhead, pegtl::seq<pegtl::sor<TermName, Word>, Blank, Sign>>
{
};
// What is compared with a value is a name, and so are the names that are
// calculated with; other words of a value are texts, signs in them included.
struct RightSumAhead
    : pegtl::sor<pegtl::one<'('>, pegtl::seq<Text, pegtl::plus<pegtl::space>, Sign>>
{
};
struct Calculation : pegtl::seq<pegtl::at<LeftSumAhead>, pegtl::must<LeftSum>, Blank,
                                pegtl::must<NumberComparator>, Blank, pegtl::must<RightSum>>
{
};
struct PlainComparison
    : pegtl::seq<
          AttributeName, Blank, pegtl::must<Comparator>, Blank,
          pegtl::if_then_else<pegtl::at<RightSumAhead>, pegtl::must<RightSum>, pegtl::must<Value>>>
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
struct Operand : pegtl::sor<Negation, Calculation, Group, PlainComparison>
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

template <class Rule, class... Others>
constexpr bool IS_ONE_OF = (std::is_same_v<Rule, Others> || ...);

template <class Rule>
constexpr char const* EXPECTED =
    IS_ONE_OF<Rule, LeftSum, RightSum, Sum, Product, Factor> ? "expected a number, a name or \"(\""
    : IS_ONE_OF<Rule, Disjunction, Conjunction, Operand> ? "expected a comparison, \"not\" or \"(\""
                                                         : nullptr;
template <>
constexpr char const* EXPECTED<QuoteEnd<'"'>> = "expected the closing \"";
template <>
constexpr char const* EXPECTED<QuoteEnd<'\''>> = "expected the closing '";
template <>
constexpr char const* EXPECTED<Comparator> = "expected one of = != < <= > >= like";
template <>
constexpr char const* EXPECTED<Value> = "expected a value";
template <>
constexpr char const* EXPECTED<NumberComparator> = "expected one of + - * / = != < <= > >=";
template <>
constexpr char const* EXPECTED<TermClose> = "expected one of + - * / or \")\"";
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
  std::vector<QueryTerm> terms;    // likewise
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

  void add(QueryTerm::Kind kind, std::string termText, QueryPlace place, long double number = 0)
  {
    QueryTerm term;
    term.kind = kind;
    term.text = std::move(termText);
    term.place = place;
    term.number = number;
    terms.push_back(std::move(term));
  }

  // From the left, so that a chain of one kind is one term.
  void calculate(QueryTerm::Kind kind, char sign)
  {
    QueryTerm right = std::move(terms.back());
    terms.pop_back();
    QueryTerm& left = terms.back();
    if (left.kind != kind)
    {
      QueryTerm chain;
      chain.kind = kind;
      chain.operands.push_back(std::move(left));
      left = std::move(chain);
    }
    left.operators += sign;
    left.operands.push_back(std::move(right));
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

template <class Input>
QueryPlace placeOf(Input const& in)
{
  auto const position = in.position();
  return {position.line, position.column};
}

template <class Rule>
struct Action : pegtl::nothing<Rule>
{
};

// What nests goes one deeper, or is too deep.
struct EnterAction
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.enter(in);
  }
};
struct LeaveAction
{
  static void apply0(Builder& builder) { --builder.nesting; }
};

template <>
struct Action<TermName>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.add(QueryTerm::Kind::NAME, std::move(builder.text), placeOf(in));
  }
};

template <>
struct Action<TermWord>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    auto const number = parseQueryNumber(in.string_view());
    if (!number && looksLikeNumberWithUnit(in.string_view()))
      throw pegtl::parse_error(EXPECTED_QUERY_UNIT, in);
    builder.add(number ? QueryTerm::Kind::NUMBER : QueryTerm::Kind::NAME, in.string(), placeOf(in),
                number.value_or(0));
  }
};

template <>
struct Action<TermOpen> : EnterAction
{
};

template <>
struct Action<TermClose> : LeaveAction
{
};

template <char Sign, class Right>
struct Action<Tail<Sign, Right>>
{
  static void apply0(Builder& builder)
  {
    builder.calculate(Sign == '+' || Sign == '-' ? QueryTerm::Kind::SUM : QueryTerm::Kind::PRODUCT,
                      Sign);
  }
};

template <>
struct Action<RightSum>
{
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    QueryNode& node = builder.comparison;
    if (node.comparison == Operator::LIKE)
      throw pegtl::parse_error(EXPECTED<Value>, in);
    node.kind = Kind::CALCULATION;
    if (builder.terms.size() == 1)
    {
      builder.add(QueryTerm::Kind::NAME, std::move(node.attribute), node.place);
      std::swap(builder.terms[0], builder.terms[1]);
      node.attribute.clear();
    }
    node.terms = std::exchange(builder.terms, {});
    builder.operands.push_back(std::exchange(node, QueryNode()));
  }
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
  template <class Input>
  static void apply(Input const& in, Builder& builder)
  {
    builder.comparison.attribute = std::move(builder.text);
    builder.comparison.place = placeOf(in);
  }
};

struct ComparatorAction
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
struct Action<Comparator> : ComparatorAction
{
};
template <>
struct Action<NumberComparator> : ComparatorAction
{
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
        throw pegtl::parse_error(EXPECTED_QUERY_UNIT, in);
      if (!node.number && orders(node.comparison) && looksLikeCalculation(builder.text))
        throw pegtl::parse_error("expected blanks around what calculates, or a text in quotes", in);
    }
    node.value = std::move(builder.text);
    builder.operands.push_back(std::exchange(node, QueryNode()));
  }
};

template <>
struct Action<Open> : EnterAction
{
};

template <>
struct Action<Close> : LeaveAction
{
};

template <>
struct Action<Not> : EnterAction
{
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

} // namespace

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
    parsed.mistake = {position.line, position.column};
    parsed.result = builder.tooDeep ? OzfQuery::QUERY_TOO_DEEP : OzfQuery::QUERY_SYNTAX;
    parsed.error = "line " + std::to_string(position.line) + ", column " +
                   std::to_string(position.column) + ": " + std::string(mistake.message());
  }
  return parsed;
}

} // namespace Quillon::Tessarine::Ozf
