// Event handlers of the reactor that are counted objects.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/sync/OZFRefCounted.h"

#include <ace/Event_Handler.h>

namespace Quillon::Tessarine::Ozf
{

// The reactor adds a reference while a timer of this handler is registered
// and while its handler runs, so the object lives through both.
class OZF_EXPORT OZFRefAceEvent : public virtual OZFRefCounted, public ACE_Event_Handler
{
public:
  Reference_Count add_reference() override;
  Reference_Count remove_reference() override;

protected:
  OZFRefAceEvent();
};

} // namespace Quillon::Tessarine::Ozf
