#include "ozf/sync/OZFRefAceEvent.h"

namespace Quillon::Tessarine::Ozf
{

OZFRefAceEvent::OZFRefAceEvent()
{
  reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
}

ACE_Event_Handler::Reference_Count OZFRefAceEvent::add_reference() { return addReference(); }

ACE_Event_Handler::Reference_Count OZFRefAceEvent::remove_reference() { return removeReference(); }

} // namespace Quillon::Tessarine::Ozf
