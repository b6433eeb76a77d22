// Reads named values out of a small XML document.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/OzfString.h"

#include <map>
#include <string>

namespace Quillon::Tessarine::Ozf
{

class OZF_EXPORT OzfDOMHandler
{
public:
  // Reads the document under the rules of XmlDocumentInterface. Returns 0, or
  // non-zero when it is refused or not well-formed. Throws std::bad_alloc when
  // memory runs out, which says nothing of the document.
  int parse(std::string const& text);

  // The value of an element that has no child elements, wherever it stands:
  // its text without surrounding white space. The first of that name counts.
  // False when there is none or when it is not of the type asked for; value
  // is then unchanged.
  bool getValue(char const* name, OzfString& value) const;
  bool getValue(char const* name, unsigned& value) const; // decimal, 32 bits

  // What parse refused and where.
  std::string const& lastError() const noexcept { return m_lastError; }

private:
  std::map<std::string, std::string, std::less<>> m_values;
  std::string m_lastError;
};

} // namespace Quillon::Tessarine::Ozf
