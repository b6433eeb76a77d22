#include "ozf/plugin/EngineSingleton.h"

namespace Quillon::Tessarine::Ozf
{

void EngineSingleton::closeObject() { delete this; }

} // namespace Quillon::Tessarine::Ozf
