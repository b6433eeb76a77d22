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

// What the contexts of one document know together.
struct DocumentTally
{
  std::size_t mostBuilt = 256UL * 1024 * 1024; // bytes
  std::size_t built = 0;                       // of what has been made of the document and is kept
  int depth = 1;
  unsigned ignored = 0; // elements
};

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

  // For a document's element, with a tally that outlives the context.
  XmlObjParseContext(XMLCh const* name, DocumentTally& tally);
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

  // Counts bytes that an object of the document keeps. Ends the parse, with a
  // reason, when the document has made more than it may; appendText does so for a
  // text that is too long for that alone.
  void noteBuilt(std::size_t bytes)
  {
    m_tally->built += bytes;
    if (m_tally->built > m_tally->mostBuilt)
      refuseBuilt();
  }

  // Counts an element that nobody knows what to do with. True for the first few
  // of a document, which are worth a line each.
  bool noteIgnored() noexcept { return ++m_tally->ignored <= MOST_IGNORED_TOLD; }
  static constexpr unsigned MOST_IGNORED_TOLD = 8;

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
  void enter() noexcept { ++m_tally->depth; }
  void leave() noexcept { --m_tally->depth; }

private:
  void takeName(XMLCh const* name);
  [[noreturn]] void refuseBuilt() const;

  XmlObjParseContext const* m_parent;
  DocumentTally m_ownTally;
  DocumentTally* m_tally; // the document's, in its first context or beside it
  int m_openedAt;
  // The name of the element, in one of the two.
  std::size_t m_nameLength;
  std::array<char16_t, 20> m_shortName;
  std::u16string m_longName;
  std::u16string m_text;
};

} // namespace Quillon::Tessarine::Ozf
