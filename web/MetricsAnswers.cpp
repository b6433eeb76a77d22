#include "web/MetricsAnswers.h"

#include "tools/Hosts.h"
#include "tools/Metrics.h"
#include "web/ListAnswers.h"

#include <algorithm>

namespace Web
{

using namespace tqdiscoctl;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

Plan MetricsAnswers::metrics(Request const& request)
{
  if (auto refusal = refuseUnknown(request.target, {}))
    return Plan::of(*refusal);
  Plan plan;
  plan.read = [this] { return read(); };
  return plan;
}

// A master that is away is not asked; what it told last would be taken for what holds.
std::shared_ptr<ServiceFigures const> MetricsAnswers::serviceOf(MasterList const& list)
{
  auto const own = std::find_if(list.records->begin(), list.records->end(),
                                [&list](Record const& record)
                                {
                                  return record.subject == list.ownName &&
                                         record.authority == SERVICE_AUTHORITY &&
                                         record.type == AT_TQUCLIENT;
                                });
  if (list.state != MasterList::UP || own == list.records->end())
    return nullptr;
  std::lock_guard const guard(m_mutex);
  Told& told = m_told[list.master];
  if (told.figures && told.discovered == own->discovered)
    return told.figures;
  ServiceState const state = readState(*own);
  if (!state.complete)
    return nullptr;
  told = {own->discovered, std::make_shared<ServiceFigures const>(figuresOf(state))};
  return told.figures;
}

Answer MetricsAnswers::read()
{
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
    if (auto const service = serviceOf(list))
      figures.service = *service;
    all.push_back(std::move(figures));
  }
  return answerOf(metricsText(gather(all)), "text/plain; version=0.0.4; charset=utf-8");
}

} // namespace Web
