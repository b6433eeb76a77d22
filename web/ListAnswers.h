// What is answered from the kept list.

#pragma once

#include "ozf/base/OzfObjTime.h"
#include "web/Answer.h"
#include "web/AnswerCache.h"
#include "web/KeptList.h"

#include <string>

namespace Web
{

// Any thread; calls nobody.
class ListAnswers
{
public:
  // kept: bytes of answers.
  ListAnswers(KeptList const& list, std::size_t kept) : m_list(list), m_cache(kept) {}

  // Of a path below /api/v1/.
  Answer status(RequestTarget const& target) const;
  Answer hosts(RequestTarget const& target);
  Answer host(RequestTarget const& target, std::string const& subject) const;
  Answer discoveries(RequestTarget const& target);

private:
  template <class Make>
  Answer kept(std::string const& key, KeptList::Look const& look, Make const& make);

  KeptList const& m_list;
  Quillon::Tessarine::Ozf::OzfObjTime const m_start = Quillon::Tessarine::Ozf::OzfObjTime::now();
  AnswerCache m_cache;
};

// The type parameter; false, with the mistake, when it is none. any where it is not given.
bool readType(RequestTarget const& target,
              Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType& type, Mistake& mistake);

// The mistake of a parameter that the endpoint does not know, as an answer.
std::optional<Answer> refuseUnknown(RequestTarget const& target,
                                    std::vector<std::string_view> const& known);

// What is answered before any master has given its list.
Answer nothingListed();

} // namespace Web
