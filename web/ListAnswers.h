// What is answered from the kept list.

#pragma once

#include "ozf/base/OzfObjTime.h"
#include "web/Answer.h"
#include "web/AnswerCache.h"
#include "web/KeptList.h"
#include "web/Plan.h"

#include <functional>
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
  Plan hosts(RequestTarget const& target);
  Plan host(RequestTarget const& target, std::string const& subject);
  Plan discoveries(RequestTarget const& target);

private:
  using Make = std::function<std::string()>;

  // At once where it was made before. What is made of tens of thousands of records is not for
  // the few threads that serve everybody.
  Plan kept(std::string const& key, KeptList::Look const& look, Make make);

  KeptList const& m_list;
  Quillon::Tessarine::Ozf::OzfObjTime const m_start = Quillon::Tessarine::Ozf::OzfObjTime::now();
  AnswerCache m_cache;
};

// The type parameter; false, with the mistake, when it is none. any where it is not given.
bool readType(RequestTarget const& target,
              Quillon::Tessarine::Ozf::DiscoverySvc::AuthorityType& type, Mistake& mistake);

// A parameter that is a number from 1 on; otherwise where it is not given, nothing when it is
// none.
std::optional<std::size_t> readCount(RequestTarget const& target, char const* parameter,
                                     std::size_t most, std::size_t otherwise);
Mistake notCounted(char const* parameter, std::size_t most);

// The mistake of a parameter that the endpoint does not know, as an answer.
std::optional<Answer> refuseUnknown(RequestTarget const& target,
                                    std::vector<std::string_view> const& known);

// What is answered before any master has given its list.
Answer nothingListed();

} // namespace Web
