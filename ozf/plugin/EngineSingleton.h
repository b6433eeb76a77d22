// Objects of which an engine has one.

#pragma once

#include "ozf/base/Export.h"

namespace Quillon::Tessarine::Ozf
{

class OZF_EXPORT EngineSingleton
{
public:
  virtual ~EngineSingleton() = default;

  // The engine ends. Default: the object deletes itself.
  virtual void closeObject();
};

} // namespace Quillon::Tessarine::Ozf
