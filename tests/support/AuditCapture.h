// The audit log of the process in a file of a test's own, for a scope.

#pragma once

#include "ozf/log/AuditLog.h"
#include "tests/support/TempDir.h"

#include <string>

namespace tqtest
{

class AuditCapture
{
public:
  AuditCapture() { Quillon::Tessarine::Ozf::AuditLog::setFile(m_file); }
  ~AuditCapture() { Quillon::Tessarine::Ozf::AuditLog::setFile(""); }
  AuditCapture(AuditCapture const&) = delete;
  AuditCapture& operator=(AuditCapture const&) = delete;

  std::string text() const { return readText(m_file); }

  // Whether a record says that of a call about those names.
  bool has(std::string const& operation, std::string const& subject, std::string const& authority,
           std::string const& result) const
  {
    return text().find("\"operation\":\"" + operation + "\",\"subject\":\"" + subject +
                       "\",\"authority\":\"" + authority + "\",\"result\":\"" + result + "\"") !=
           std::string::npos;
  }

private:
  TempDir m_dir;
  std::string const m_file = m_dir / "audit.log";
};

} // namespace tqtest
