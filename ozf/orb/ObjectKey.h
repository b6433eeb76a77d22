// Ids of objects that strangers cannot guess.

#pragma once

#include <string>

namespace Quillon::Tessarine::Ozf
{

// Bytes that never come twice in this process, 64 random bits among them: who
// has not been given an object's reference cannot make one. Raises NO_RESOURCES when
// the system has no random numbers. Any thread.
std::string makeObjectKey();

} // namespace Quillon::Tessarine::Ozf
