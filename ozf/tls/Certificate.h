// A certificate, as far as this product looks at it.

#pragma once

#include "ozf/base/Export.h"

#include <ctime>
#include <memory>
#include <string>
#include <vector>

using X509 = struct x509_st;

namespace Quillon::Tessarine::Ozf
{

// Immutable; copies share what they hold. Any thread.
class OZF_EXPORT Certificate
{
public:
  // Takes the caller's reference, which is not null.
  explicit Certificate(X509* certificate);

  // The alternative names, hosts' and addresses alike ("backup1.example",
  // "192.0.2.7"), or the common name when there are none. As the authority wrote
  // them, that is of any bytes.
  std::vector<std::string> const& names() const noexcept { return m_names; }

  // The names for eyes: "backup1.example, 192.0.2.7".
  std::string shownNames() const;

  // Whose it is, and who signed it, for eyes: the common name, "Discovery fleet", or all of
  // the name where it has none.
  std::string shownSubject() const;
  std::string shownIssuer() const;

  // Valid from and until; 0 for a time that cannot be told.
  std::time_t begin() const noexcept { return m_begin; }
  std::time_t end() const noexcept { return m_end; }

  // Whether it names that host, of which an address is compared with addresses
  // alone. The common name counts where there are no alternative names, of hosts or
  // of addresses.
  bool names(std::string const& host) const;

  // Whether it may be shown to who calls, and by who calls.
  bool mayServe() const;
  bool mayCall() const;

  X509* get() const noexcept { return m_certificate.get(); }

private:
  std::shared_ptr<X509> m_certificate;
  std::vector<std::string> m_names;
  bool m_hasAlternatives = false;
  std::time_t m_begin = 0;
  std::time_t m_end = 0;
};

// "2027-03-01 12:00 UTC".
OZF_EXPORT std::string shownTime(std::time_t time);

// Text of a certificate's, or of whoever it comes from, for a log line.
OZF_EXPORT std::string shownName(std::string const& name);

} // namespace Quillon::Tessarine::Ozf
