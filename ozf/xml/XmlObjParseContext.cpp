#include "ozf/xml/XmlObjParseContext.h"

#include "ozf/xml/HardenedParser.h"

#include <algorithm>
#include <string>

namespace Quillon::Tessarine::Ozf
{

namespace
{

// What most texts fit in. Contexts are made for single elements, and a text
// that grows into its place costs more than the place.
constexpr std::size_t FIRST_CAPACITY = 120;

// In one pass, which ends at the NUL of a shorter name at the latest.
bool isSame(std::u16string_view own, XMLCh const* name)
{
  auto const [end, other] = std::mismatch(own.begin(), own.end(), name);
  return end == own.end() && *other == u'\0';
}

} // namespace

XmlObjParseContext::XmlObjParseContext(XMLCh const* name, XmlObjParseContext const* parent)
    : m_parent(parent),
      m_tally(parent != nullptr ? parent->m_tally : &m_ownTally),
      m_openedAt(m_tally->depth)
{
  takeName(name);
}

XmlObjParseContext::XmlObjParseContext(XMLCh const* name, DocumentTally& tally)
    : m_parent(nullptr), m_tally(&tally), m_openedAt(tally.depth)
{
  takeName(name);
}

void XmlObjParseContext::takeName(XMLCh const* name)
{
  std::u16string_view const text = name;
  m_nameLength = text.size();
  if (m_nameLength <= m_shortName.size())
    std::copy(text.begin(), text.end(), m_shortName.begin());
  else
    m_longName = text;
}

XmlObjParseContext::~XmlObjParseContext() = default;

bool XmlObjParseContext::isEndTag(XMLCh const* name) const
{
  if (m_tally->depth != m_openedAt)
    return false;
  char16_t const* const own = m_longName.empty() ? m_shortName.data() : m_longName.data();
  return isSame({own, m_nameLength}, name);
}

OzfString XmlObjParseContext::text() const { return OzfString(std::u16string_view(m_text)); }

void XmlObjParseContext::appendText(XMLCh const* chars, unsigned long length)
{
  if (m_text.capacity() < FIRST_CAPACITY)
    m_text.reserve(FIRST_CAPACITY);
  if (length > m_tally->mostBuilt / sizeof(XMLCh) - m_text.size())
    refuseBuilt();
  m_text.append(chars, length);
}

void XmlObjParseContext::refuseBuilt() const
{
  throw DocumentRefused(
      "more than " + std::to_string(m_tally->mostBuilt) + " bytes of what is made of it", true);
}

} // namespace Quillon::Tessarine::Ozf
