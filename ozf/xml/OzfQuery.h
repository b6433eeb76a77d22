// Queries over attributes: what can be asked, what is asked, and the answer.
// docs/query-language.md describes the language and the description's XML.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"
#include "ozf/sync/OZFRefCounted.h"
#include "ozf/xml/XmlInterface.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Quillon::Tessarine::Ozf
{

struct QueryNode;

// A query has two sides. The description tells which attributes can be asked
// for; it travels as XML and descriptions of several sources are merged. The
// expression is set from text and evaluated; it is not part of the XML. Either
// side may be empty.
//
// Not locked; evaluate may be called by several threads at a time as long as
// nobody changes the query.
class OZF_EXPORT OzfQuery : public virtual OZFRefCounted, public XmlInterface
{
public:
  static constexpr char const* QUERY_DESCRIPTION_TAG = "QueryDescription";

  static constexpr std::size_t MAX_TEXT = 64 * 1024; // bytes
  static constexpr unsigned MAX_NESTING = 64;        // parentheses and nots

  enum class Type
  {
    TEXT,
    NUMBER,
    SIZE,     // in bytes
    DURATION, // in seconds
    TIME,     // as 2026-11-20T10:15:00Z
    BOOLEAN
  };

  struct Attribute
  {
    OzfString name;
    Type type = Type::TEXT;
    OzfString unit; // for display
    OzfString description;
  };

  OzfQuery();

  // The description.

  std::vector<Attribute> const& attributes() const noexcept { return m_attributes; }
  Attribute const* findAttribute(std::string const& name) const; // null when unknown

  // Takes an attribute in unless there is one of that name, or the name is
  // empty; returns whether it did.
  bool addAttribute(Attribute attribute);

  // Takes in the attributes of other. Of two of the same name the one that was
  // there stays.
  void merge(OzfQuery const& other);

  // The expression.

  enum Result : int
  {
    QUERY_OK = 0,
    QUERY_SYNTAX = 1,
    QUERY_TOO_LONG = 2,
    QUERY_TOO_DEEP = 3
  };

  // Replaces the expression. An empty text, or one of white space, asks for
  // everything. Returns QUERY_OK, or why the text was refused, with
  // lastError() saying where and what was expected; the expression is then
  // what it was.
  int setQuery(OzfString const& text);

  OzfString const& getQuery() const noexcept { return m_text; }
  std::string const& lastError() const noexcept { return m_lastError; }

  // The value of an attribute as text, absent when there is none of that name.
  // Numbers, sizes and durations are decimal numbers, with a unit if not in
  // the base unit; booleans are "true" and "false".
  using Lookup = std::function<std::optional<std::string>(std::string_view name)>;

  // Whether the attributes answer the expression. lookup may be called several
  // times for one name and is passed what was written in the query; an
  // attribute that is absent answers no comparison, "!=" included.
  bool evaluate(Lookup const& lookup) const;

  // XML: the description.

  int xmlCharacters(XmlObjParseContext* context, XMLCh const* chars, unsigned long length) override;
  int xmlStartElement(XmlObjParseContext* context, XMLCh const* name,
                      AttributeList& attributes) override;
  int xmlEndElement(XmlObjParseContext* context, XMLCh const* name) override;
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

  ~OzfQuery() override;

private:
  std::vector<Attribute> m_attributes;
  std::unordered_map<std::string, std::size_t> m_index; // of m_attributes by name
  OzfString m_text;
  std::shared_ptr<QueryNode const> m_expression; // null asks for everything
  std::string m_lastError;
};

// Starts reading a description from the element name: object becomes a new
// query with one reference for the caller. Returns the context for its events,
// which the caller owns; null, with object null, when the element is none of
// a query description.
OZF_EXPORT XmlObjParseContext* xmlCreateObject(XMLCh const* name, AttributeList& attributes,
                                               XmlObjParseContext const* parent, OzfQuery*& object);

} // namespace Quillon::Tessarine::Ozf
