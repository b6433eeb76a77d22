// The API as programs read it.

#pragma once

#include "web/Answer.h"

namespace Web
{

// An OpenAPI 3 document.
Answer openApiDocument();

} // namespace Web
