// The context of one's own behind the parser's.

#pragma once

#include "ozf/log/Assertion.h"
#include "ozf/xml/XmlObjParseContext.h"

#include <type_traits>
#include <typeinfo>

namespace Quillon::Tessarine::Ozf
{

// Asserts, for the source and the operation, that it is one. Every event comes
// through here: where the type is final, comparing types says what a cast that
// may fail would, at a fraction of its price.
template <class Context>
Context& exactContext(XmlObjParseContext* context, char const* source, char const* operation)
{
  static_assert(std::is_final_v<Context>);
  OZF_ASSERT(context != nullptr && typeid(*context) == typeid(Context), "ctxt", source, operation);
  return static_cast<Context&>(*context);
}

} // namespace Quillon::Tessarine::Ozf
