// What an object remembers while it is read from XML.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <xercesc/util/XercesDefs.hpp>

namespace Quillon::Tessarine::Ozf
{

// One context for each object that is being read; derive to keep more. A
// context is opened by an element, knows its parent's context, and collects
// the character data of the element being read. Contexts of one document
// share the document's depth, so that an inner element of the same name is
// not taken for the end of the outer one.
class OZF_EXPORT XmlObjParseContext
{
public:
  // For the element name under parent; parent null: the document's own. The
  // parent must outlive the context.
  XmlObjParseContext(XMLCh const* name, XmlObjParseContext const* parent);
  virtual ~XmlObjParseContext();
  XmlObjParseContext(XmlObjParseContext const&) = delete;
  XmlObjParseContext& operator=(XmlObjParseContext const&) = delete;

  // Whether the end tag name, met now, closes the element that opened this
  // context.
  bool isEndTag(XMLCh const* name) const;

  XmlObjParseContext const* parent() const noexcept { return m_parent; }

  // The text collected since the last clearText(), as UTF-8 and as it came.
  OzfString text() const;
  std::u16string_view rawText() const noexcept { return m_text; }
  bool hasText() const noexcept { return !m_text.empty(); }
  void clearText() { m_text.clear(); }
  void appendText(XMLCh const* chars, unsigned long length);

  // Exact and case-sensitive.
  static bool cmptag(XMLCh const* name, char const* tag)
  {
    while (*tag != '\0' && *name == static_cast<unsigned char>(*tag))
    {
      ++name;
      ++tag;
    }
    return *tag == '\0' && *name == u'\0';
  }

  // The document's depth. A context without parent starts it at 1, inside the
  // document element; the document handler enters and leaves every element
  // below that one. It enters before it hands the start tag on and leaves
  // after it has handed on the end tag, so a context that an object makes from
  // a start tag is at the depth of that element. Contexts driven without a
  // document handler stay at 1: every end tag of their name closes them.
  void enter() noexcept { ++*m_depth; }
  void leave() noexcept { --*m_depth; }

private:
  XmlObjParseContext const* m_parent;
  int m_ownDepth = 1;
  int* m_depth; // the document's, which lies in its first context
  int m_openedAt;
  // The name of the element, in one of the two.
  std::size_t m_nameLength;
  std::array<char16_t, 20> m_shortName;
  std::u16string m_longName;
  std::u16string m_text;
};

} // namespace Quillon::Tessarine::Ozf
