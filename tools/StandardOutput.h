// Standard output that remembers why it could not be written.

#pragma once

#include <array>
#include <streambuf>

namespace tqdiscoctl
{

// Takes std::cout over while it lives. A failure leaves std::cout bad, as ever;
// when whoever reads it has gone, the process goes.
class StandardOutput : private std::streambuf
{
public:
  StandardOutput();
  ~StandardOutput() override;
  StandardOutput(StandardOutput const&) = delete;
  StandardOutput& operator=(StandardOutput const&) = delete;

  // The errno value of the write that failed, 0 when none has.
  int error() const noexcept { return m_error; }

private:
  int_type overflow(int_type character) override;
  int sync() override;

  std::streambuf* const m_before;
  std::array<char, 16384> m_buffer;
  int m_error = 0;
};

} // namespace tqdiscoctl
