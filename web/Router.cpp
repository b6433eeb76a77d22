#include "web/Router.h"

#include "tools/Output.h"
#include "web/OpenApi.h"

namespace Web
{

namespace
{

constexpr char NO_SUCH_PATH[] =
    "there is nothing at this path; /api/v1/openapi.json tells what there is";

} // namespace

Plan Router::plan(Request const& request) const
{
  auto const& path = request.target.path();
  if (path.front() == "api")
    return planOfApi(request);
  if (path.size() == 1 && path.front() == "metrics")
    return Plan::of(m_metrics.metrics(request));
  std::string file;
  for (std::string const& part : path)
    file += (file.empty() ? "" : "/") + part;
  Answer const* const found = m_page.find(file);
  return Plan::of(found != nullptr ? *found : problem(404, NO_SUCH_PATH));
}

Plan Router::planOfApi(Request const& request) const
{
  RequestTarget const& target = request.target;
  auto const& path = target.path();
  std::string const name = path.size() > 2 && path[1] == "v1" ? path[2] : std::string();
  if (path.size() == 3)
  {
    if (name == "status")
      return Plan::of(m_lists.status(target));
    if (name == "hosts")
      return m_lists.hosts(target);
    if (name == "discoveries")
      return m_lists.discoveries(target);
    if (name == "items")
      return m_reads.items(request);
    if (name == "openapi.json")
    {
      auto const refusal = refuseUnknown(target, {});
      return Plan::of(refusal ? *refusal : openApiDocument());
    }
    if (name == "events")
    {
      if (auto const refusal = refuseUnknown(target, {}))
        return Plan::of(*refusal);
      Plan plan;
      plan.events = true;
      return plan;
    }
  }
  // A name is what is looked for as records have it.
  if (path.size() == 4 && !path[3].empty() && name == "hosts")
    return m_lists.host(target, tqdiscoctl::asNamed(path[3]));
  if (path.size() == 4 && !path[3].empty() && name == "filters")
    return m_reads.filters(request, tqdiscoctl::asNamed(path[3]));
  if (path.size() == 5 && name == "discoveries")
    return m_reads.discovery(request, tqdiscoctl::asNamed(path[3]), tqdiscoctl::asNamed(path[4]));
  return Plan::of(problem(404, NO_SUCH_PATH));
}

} // namespace Web
