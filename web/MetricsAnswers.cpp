#include "web/MetricsAnswers.h"

#include "tools/Metrics.h"
#include "web/ListAnswers.h"

namespace Web
{

using namespace tqdiscoctl;

Answer MetricsAnswers::metrics(Request const& request) const
{
  if (auto refusal = refuseUnknown(request.target, {}))
    return *refusal;
  auto const look = m_list.look();
  std::vector<Figures> all;
  for (MasterList const& list : look->masters)
  {
    Figures figures;
    if (look->masters.size() > 1)
      figures.master = list.master;
    figures.up = list.state == MasterList::UP;
    if (list.figures)
      figures.fleet = *list.figures;
    // Of a master that is away it would be taken for what holds.
    if (figures.up && list.service)
      figures.service = *list.service;
    all.push_back(std::move(figures));
  }
  return answerOf(metricsText(gather(all)), "text/plain; version=0.0.4; charset=utf-8");
}

} // namespace Web
