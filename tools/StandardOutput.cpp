#include "tools/StandardOutput.h"

#include "tools/ReaderGone.h"

#include <cerrno>
#include <iostream>
#include <unistd.h>

namespace tqdiscoctl
{

StandardOutput::StandardOutput() : m_before(std::cout.rdbuf(this))
{
  setp(m_buffer.data(), m_buffer.data() + m_buffer.size());
}

StandardOutput::~StandardOutput()
{
  std::cout.flush();
  std::cout.rdbuf(m_before);
}

StandardOutput::int_type StandardOutput::overflow(int_type character)
{
  if (sync() != 0)
    return traits_type::eof();
  if (!traits_type::eq_int_type(character, traits_type::eof()))
    sputc(traits_type::to_char_type(character));
  return traits_type::not_eof(character);
}

int StandardOutput::sync()
{
  char const* next = pbase();
  while (m_error == 0 && next < pptr())
  {
    ssize_t const written = ::write(STDOUT_FILENO, next, static_cast<std::size_t>(pptr() - next));
    if (written > 0)
      next += written;
    else if (errno == EPIPE)
      endWithReader();
    else if (errno != EINTR)
      m_error = errno;
  }
  setp(m_buffer.data(), m_buffer.data() + m_buffer.size());
  return m_error == 0 ? 0 : -1;
}

} // namespace tqdiscoctl
