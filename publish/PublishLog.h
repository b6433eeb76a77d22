// The log of tqpublish.

#pragma once

#include "ozf/log/Logger.h"

namespace Publish
{

// The originator number of its own lines.
Quillon::Tessarine::Ozf::OzfLogger* getPublishLogger();

} // namespace Publish
