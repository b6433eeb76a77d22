// Which request is answered with what.

#pragma once

#include "web/ListAnswers.h"
#include "web/MetricsAnswers.h"
#include "web/Plan.h"
#include "web/ReadAnswers.h"
#include "web/StaticFiles.h"

#include <string>

namespace Web
{

// Any thread.
class Router
{
public:
  Router(ListAnswers& lists, ReadAnswers& reads, MetricsAnswers const& metrics,
         StaticFiles const& page)
      : m_lists(lists), m_reads(reads), m_metrics(metrics), m_page(page)
  {
  }

  Plan plan(Request const& request) const;

private:
  Plan planOfApi(Request const& request) const;

  ListAnswers& m_lists;
  ReadAnswers& m_reads;
  MetricsAnswers const& m_metrics;
  StaticFiles const& m_page;
};

} // namespace Web
