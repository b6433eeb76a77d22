// The metrics of the masters.

#pragma once

#include "web/KeptList.h"
#include "web/Plan.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace tqdiscoctl
{
struct ServiceFigures;
}

namespace Web
{

// Any thread. Of the fleet it tells from the kept list; what a master's service tells of
// itself is read when there is something new.
class MetricsAnswers
{
public:
  explicit MetricsAnswers(KeptList const& list) : m_list(list) {}

  Plan metrics(Request const& request);

private:
  // Of the discovery that a service makes of itself.
  struct Told
  {
    Quillon::Tessarine::Ozf::OzfObjTime discovered;
    std::shared_ptr<tqdiscoctl::ServiceFigures const> figures;
  };

  Answer read();
  std::shared_ptr<tqdiscoctl::ServiceFigures const> serviceOf(MasterList const& list);

  KeptList const& m_list;
  std::mutex m_mutex;
  std::map<std::string, Told> m_told; // by master
};

} // namespace Web
