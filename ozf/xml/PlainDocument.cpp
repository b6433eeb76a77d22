#include "ozf/xml/PlainDocument.h"

#include <algorithm>
#include <array>
#include <utility>
#include <xercesc/util/XMLString.hpp>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::size_t MOST_ATTRIBUTES = 16;

constexpr char16_t ATTRIBUTE_TYPE[] = u"CDATA";

// What a character may be part of.
constexpr unsigned char NAME_START = 1;
constexpr unsigned char NAME_CHAR = 2;
constexpr unsigned char IN_VALUE = 4;
constexpr unsigned char IN_TEXT = 8;

constexpr auto CLASSES = []
{
  std::array<unsigned char, 256> classes = {};
  auto const add = [&](std::string_view chars, int bits)
  {
    for (char const c : chars)
      classes[static_cast<unsigned char>(c)] |= static_cast<unsigned char>(bits);
  };
  for (unsigned char c = ' '; c <= '~'; ++c)
    classes[c] = IN_VALUE | IN_TEXT;
  for (char const c : {'<', '>', '&'})
    classes[static_cast<unsigned char>(c)] = 0;
  classes['"'] = IN_TEXT;
  add("\t\n", IN_TEXT);
  add("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_:", NAME_START | NAME_CHAR);
  add("0123456789-.", NAME_CHAR);
  return classes;
}();

bool is(char c, unsigned char allowed)
{
  return (CLASSES[static_cast<unsigned char>(c)] & allowed) != 0;
}

constexpr std::pair<std::string_view, char16_t> REFERENCES[] = {
    {"&lt;", u'<'}, {"&gt;", u'>'}, {"&amp;", u'&'}, {"&quot;", u'"'}, {"&apos;", u'\''}};

} // namespace

bool PlainDocument::read(std::string_view text)
{
  if (text.size() > LARGEST)
    return false;
  m_text = text;
  m_at = 0;
  // What comes out is no longer than the text: a name or value has more around
  // it than the NUL behind it, and a text has a tag.
  if (m_wide.size() < text.size())
    m_wide.resize(text.size());
  m_used = 0;
  m_pieces.clear();
  m_open.clear();
  return readElements() && m_at == text.size();
}

bool PlainDocument::readElements()
{
  do
  {
    if (m_at < m_text.size() && m_text[m_at] == '<')
    {
      bool const atEnd = m_at + 1 < m_text.size() && m_text[m_at + 1] == '/';
      if (!(atEnd ? readEnd() : readStart()))
        return false;
    }
    else if (m_open.empty() || !readChars(Kind::TEXT, IN_TEXT))
      return false;
  } while (!m_open.empty());
  return true;
}

bool PlainDocument::readStart()
{
  std::size_t const start = m_pieces.size();
  if (!skip('<') || !readName(Kind::START))
    return false;
  while (skip(' '))
    if (!readAttribute(start))
      return false;
  m_open.push_back(static_cast<std::uint16_t>(start));
  bool const isEmpty = skip('/');
  if (!skip('>'))
    return false;
  m_pieces[start].behind = static_cast<std::uint16_t>(m_at);
  if (isEmpty)
    end();
  return true;
}

bool PlainDocument::readAttribute(std::size_t start)
{
  std::size_t const name = m_pieces.size();
  if (name - start > 2 * MOST_ATTRIBUTES || !readName(Kind::NAME))
    return false;
  for (std::size_t other = start + 1; other < name; other += 2)
    if (xercesc::XMLString::equals(chars(m_pieces[other]), chars(m_pieces[name])))
      return false;
  return skip('=') && skip('"') && readChars(Kind::VALUE, IN_VALUE) && skip('"');
}

bool PlainDocument::readEnd()
{
  if (m_open.empty())
    return false;
  m_at += 2;
  Piece const& start = m_pieces[m_open.back()];
  std::string_view const rest = m_text.substr(m_at);
  if (rest.size() <= start.length || rest[start.length] != '>' ||
      !std::equal(chars(start), chars(start) + start.length, rest.begin()))
    return false;
  m_at += start.length + 1;
  end();
  return true;
}

bool PlainDocument::readName(Kind kind)
{
  if (m_at == m_text.size() || !is(m_text[m_at], NAME_START))
    return false;
  return readChars(kind, NAME_CHAR);
}

// Up to the first character that is not allowed. References are in nothing that
// is a name.
bool PlainDocument::readChars(Kind kind, unsigned char allowed)
{
  std::size_t const first = m_used;
  do
  {
    char16_t* out = m_wide.data() + m_used;
    char const* in = m_text.data() + m_at;
    char const* const last = m_text.data() + m_text.size();
    while (in != last && is(*in, allowed))
      *out++ = static_cast<unsigned char>(*in++);
    m_used = static_cast<std::size_t>(out - m_wide.data());
    m_at = static_cast<std::size_t>(in - m_text.data());
  } while (allowed != NAME_CHAR && readReference());
  if (m_at == m_text.size())
    return false;
  m_pieces.push_back({kind, static_cast<std::uint16_t>(first),
                      static_cast<std::uint16_t>(m_used - first),
                      static_cast<std::uint16_t>(m_at)});
  m_wide[m_used++] = u'\0';
  return kind != Kind::TEXT || m_used > first + 1;
}

bool PlainDocument::readReference()
{
  if (m_at == m_text.size() || m_text[m_at] != '&')
    return false;
  for (auto const& [reference, meant] : REFERENCES)
    if (m_text.compare(m_at, reference.size(), reference) == 0)
    {
      m_wide[m_used++] = meant;
      m_at += reference.size();
      return true;
    }
  return false;
}

bool PlainDocument::skip(char expected)
{
  bool const found = m_at < m_text.size() && m_text[m_at] == expected;
  m_at += found;
  return found;
}

// The element that was opened last.
void PlainDocument::end()
{
  Piece piece = m_pieces[m_open.back()];
  piece.kind = Kind::END;
  piece.behind = static_cast<std::uint16_t>(m_at);
  m_pieces.push_back(piece);
  m_open.pop_back();
}

void PlainDocument::tell(xercesc::DocumentHandler& handler)
{
  struct Telling
  {
    explicit Telling(std::size_t& told) : offset(told) {}
    ~Telling() { offset = 0; }

    std::size_t& offset;
  };

  Telling const telling(m_offset);
  Piece const* piece = m_pieces.data();
  Piece const* const last = piece + m_pieces.size();
  while (piece != last)
  {
    Piece const& told = *piece++;
    m_offset = told.behind;
    if (told.kind == Kind::TEXT)
      handler.characters(chars(told), told.length);
    else if (told.kind == Kind::END)
      handler.endElement(chars(told));
    else
    {
      m_attributes = piece;
      while (piece->kind == Kind::NAME) // an element that starts ends
        piece += 2;
      m_attributeCount = static_cast<std::size_t>(piece - m_attributes) / 2;
      handler.startElement(chars(told), *this);
    }
  }
}

std::size_t PlainDocument::line() const
{
  return 1 + static_cast<std::size_t>(std::count(m_text.begin(), m_text.begin() + m_offset, '\n'));
}

std::size_t PlainDocument::column() const
{
  std::string_view const told = m_text.substr(0, m_offset);
  return told.size() - (told.rfind('\n') + 1) + 1;
}

XMLCh const* PlainDocument::getName(XMLSize_t index) const
{
  return index < m_attributeCount ? chars(m_attributes[2 * index]) : nullptr;
}

XMLCh const* PlainDocument::getType(XMLSize_t index) const
{
  return index < m_attributeCount ? ATTRIBUTE_TYPE : nullptr;
}

XMLCh const* PlainDocument::getValue(XMLSize_t index) const
{
  return index < m_attributeCount ? chars(m_attributes[2 * index + 1]) : nullptr;
}

// Of the value; null when there is no attribute of that name.
PlainDocument::Piece const* PlainDocument::find(XMLCh const* name) const
{
  for (std::size_t i = 0; i < m_attributeCount; ++i)
    if (xercesc::XMLString::equals(getName(i), name))
      return &m_attributes[2 * i + 1];
  return nullptr;
}

XMLCh const* PlainDocument::getType(XMLCh const* name) const
{
  return find(name) != nullptr ? ATTRIBUTE_TYPE : nullptr;
}

XMLCh const* PlainDocument::getValue(XMLCh const* name) const
{
  Piece const* const value = find(name);
  return value != nullptr ? chars(*value) : nullptr;
}

XMLCh const* PlainDocument::getValue(char const* name) const
{
  std::string_view const narrow = name;
  return getValue(std::u16string(narrow.begin(), narrow.end()).c_str());
}

} // namespace Quillon::Tessarine::Ozf
