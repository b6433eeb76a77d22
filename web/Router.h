// Which request is answered with what.

#pragma once

#include "web/ListAnswers.h"
#include "web/Plan.h"
#include "web/ReadAnswers.h"
#include "web/StaticFiles.h"

#include <functional>
#include <string>

namespace Web
{

// Any thread.
class Router
{
public:
  Router(ListAnswers& lists, ReadAnswers& reads, StaticFiles const& page)
      : m_lists(lists), m_reads(reads), m_page(page)
  {
  }

  Plan plan(Request const& request) const;

private:
  Plan planOfApi(Request const& request) const;

  ListAnswers& m_lists;
  ReadAnswers& m_reads;
  StaticFiles const& m_page;
};

} // namespace Web
