#include "web/OpenApi.h"

#include "web/OpenApiText.h"

namespace Web
{

Answer openApiDocument()
{
  static Answer const document = []
  {
    auto value = nlohmann::json::parse(OPEN_API_TEXT);
    value["info"]["version"] = TQ_VERSION;
    return answerOf(value);
  }();
  return document;
}

} // namespace Web
