// The metrics of the masters.

#pragma once

#include "web/KeptList.h"
#include "web/Plan.h"

namespace Web
{

// Any thread; calls nobody.
class MetricsAnswers
{
public:
  explicit MetricsAnswers(KeptList const& list) : m_list(list) {}

  Answer metrics(Request const& request) const;

private:
  KeptList const& m_list;
};

} // namespace Web
