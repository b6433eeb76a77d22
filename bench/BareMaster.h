// The floor of what is written to another process, and of a payload that is read
// from it: a discovery service that takes every write and keeps nothing, and whose
// one payload lies ready.

#pragma once

#include "ozf/orb/Orb.h"

#include <DiscoveryServiceC.h>

namespace tqbench
{

// The caller owns the servant. It takes writes by putCollection, answers
// getCollectionData with the payload, a CollectionDataIterator, and everything else
// with NO_IMPLEMENT.
PortableServer::ServantBase* makeBareMaster(Quillon::Tessarine::Ozf::Orb& orb,
                                            CORBA::Object_ptr payload);

} // namespace tqbench
