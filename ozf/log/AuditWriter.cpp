#include "ozf/log/AuditWriter.h"

#include <cerrno>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

namespace Quillon::Tessarine::Ozf
{

namespace
{

constexpr std::chrono::minutes COMPLAINT_PERIOD(1);

} // namespace

AuditWriter::AuditWriter(std::string const& path, Hooks hooks, std::chrono::milliseconds patience)
    : m_hooks(std::move(hooks)), m_path(path), m_patience(patience), m_file(path)
{
}

int AuditWriter::open()
{
  std::unique_lock lock(m_mutex);
  if (!isRunning())
    return EAGAIN;
  await(lock, 1);
  return m_openError;
}

void AuditWriter::append(std::string line, bool waits)
{
  std::unique_lock lock(m_mutex);
  if (!isRunning() || m_held + line.size() > MOST_HELD)
  {
    ++m_leftOut;
    lock.unlock();
    m_hooks.lost(1);
    return;
  }
  std::size_t const size = line.size();
  m_lines.push_back({std::move(line), m_leftOut});
  m_held += size;
  m_leftOut = 0;
  std::uint64_t const number = ++m_given;
  m_changed.notify_all();
  if (waits)
    await(lock, number);
}

void AuditWriter::end() noexcept
{
  std::lock_guard const guard(m_mutex);
  m_ending = true;
  m_changed.notify_all();
}

// The thread keeps the writer alive, and is waited for by nobody: it may hang for good.
bool AuditWriter::isRunning()
{
  try
  {
    if (!m_running)
      std::thread([self = shared_from_this()] { self->loop(); }).detach();
    m_running = true;
  }
  catch (std::system_error const&)
  {
  }
  return m_running;
}

void AuditWriter::await(std::unique_lock<std::mutex>& lock, std::uint64_t number)
{
  if (m_changed.wait_for(lock, m_patience, [&] { return m_hangs || m_done >= number; }))
    return;
  m_hangs = true;
  m_changed.notify_all();
  lock.unlock();
  tell("Nothing was written to the audit file " + m_path + " for " +
       std::to_string(std::chrono::duration_cast<std::chrono::seconds>(m_patience).count()) +
       " seconds: calls go on without waiting for it");
  lock.lock();
}

void AuditWriter::loop() noexcept
{
  std::unique_lock lock(m_mutex);
  if (m_done == 0)
  {
    lock.unlock();
    int const error = m_file.open();
    lock.lock();
    m_openError = error;
    noteDone(lock);
  }
  while (true)
  {
    m_changed.wait(lock, [this] { return m_ending || !m_lines.empty(); });
    if (m_lines.empty())
    {
      m_running = false;
      return;
    }
    Line const& line = m_lines.front(); // others add behind it
    lock.unlock();
    try
    {
      write(line);
    }
    catch (std::exception const&)
    {
      ++m_missing;
      m_hooks.lost(1);
    }
    lock.lock();
    m_held -= m_lines.front().text.size();
    m_lines.pop_front();
    noteDone(lock);
  }
}

void AuditWriter::noteDone(std::unique_lock<std::mutex>& lock)
{
  ++m_done;
  bool const hung = std::exchange(m_hangs, false);
  m_changed.notify_all();
  if (!hung)
    return;
  lock.unlock();
  try
  {
    tell("The audit file " + m_path + " is written again");
  }
  catch (std::exception const&)
  {
  }
  lock.lock();
}

void AuditWriter::write(Line const& line)
{
  m_missing += line.missing;
  std::string const text = m_missing == 0 ? line.text : m_hooks.missingLine(m_missing) + line.text;
  if (int const error = m_file.append(text))
  {
    ++m_missing;
    m_hooks.lost(1);
    if (Time const now = m_hooks.now(); now >= m_nextComplaint)
    {
      m_nextComplaint = now + COMPLAINT_PERIOD;
      tell("Unable to write the audit file " + m_path + ": " + errorText(error) + "; " +
           std::to_string(m_missing) + " records are missing so far");
    }
  }
  else if (m_missing > 0)
  {
    tell("The audit file " + m_path + " is written again, " + std::to_string(m_missing) +
         " records are missing");
    m_missing = 0;
    m_nextComplaint = {};
  }
}

void AuditWriter::tell(std::string const& complaint) const
{
  try
  {
    m_hooks.complain(complaint);
  }
  catch (std::exception const&)
  {
  }
}

} // namespace Quillon::Tessarine::Ozf
