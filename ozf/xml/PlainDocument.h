// Documents in the plain form that the product writes its records in.
//
// The XML parser takes some 26,000 instructions for a record, which is most of
// what a walk over the database costs besides its system calls; this takes 6,200.
// Whatever is not clearly in the form is left to the parser, before anything of it
// has been told: what a mistake is, and how it is put, is decided in one place.

#pragma once

#include "ozf/base/Export.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>
#include <xercesc/sax/AttributeList.hpp>
#include <xercesc/sax/DocumentHandler.hpp>

namespace Quillon::Tessarine::Ozf
{

// The form, behind the prolog:
//
//   element   = '<' name *( ' ' name '="' value '"' ) ( '/>' / '>' content '</' name '>' )
//   content   = *( element / 1*( text / reference ) )
//   value     = *( text, without '"', tab and line feed / reference )
//   reference = '&lt;' / '&gt;' / '&amp;' / '&quot;' / '&apos;'
//
// text being the printable characters of ASCII, tab and line feed, without '<',
// '>' and '&'. An element has at most 16 attributes, each once.
class OZF_EXPORT PlainDocument : private xercesc::AttributeList
{
public:
  static constexpr std::size_t LARGEST = 16 * 1024;

  PlainDocument() = default;

  // Takes text apart, which has to live until it has been told. False when it is
  // not in the form, or larger than LARGEST.
  bool read(std::string_view text);

  // Tells handler what has been read.
  void tell(xercesc::DocumentHandler& handler);

  // Where a handler is that is told something, as the parser counts. The offset
  // is 0 otherwise.
  std::size_t offset() const noexcept { return m_offset; }
  std::size_t line() const;
  std::size_t column() const;

private:
  enum class Kind : std::uint8_t
  {
    START,
    NAME, // of an attribute of the element before, with its value behind
    VALUE,
    TEXT,
    END
  };
  struct Piece
  {
    Kind kind;
    std::uint16_t first; // its characters in m_wide, with a NUL behind them
    std::uint16_t length;
    std::uint16_t behind; // where it ends in the text
  };

  bool readElements();
  bool readStart();
  bool readAttribute(std::size_t start);
  bool readEnd();
  bool readName(Kind kind);
  bool readChars(Kind kind, unsigned char allowed);
  bool readReference();
  bool skip(char expected);
  void end();
  XMLCh const* chars(Piece const& piece) const { return m_wide.data() + piece.first; }
  Piece const* find(XMLCh const* name) const;

  XMLSize_t getLength() const override { return m_attributeCount; }
  XMLCh const* getName(XMLSize_t index) const override;
  XMLCh const* getType(XMLSize_t index) const override;
  XMLCh const* getValue(XMLSize_t index) const override;
  XMLCh const* getType(XMLCh const* name) const override;
  XMLCh const* getValue(XMLCh const* name) const override;
  XMLCh const* getValue(char const* name) const override;

  std::string_view m_text;
  std::size_t m_at = 0; // what is read next
  std::u16string m_wide;
  std::size_t m_used = 0; // of m_wide
  std::vector<Piece> m_pieces;
  std::vector<std::uint16_t> m_open; // the pieces that start the open elements

  // While it is told.
  std::size_t m_offset = 0;
  Piece const* m_attributes = nullptr;
  std::size_t m_attributeCount = 0;
};

} // namespace Quillon::Tessarine::Ozf
