#include "discovery/PayloadCache.h"

#include "discovery/DiscoveryLog.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

namespace
{

constexpr char SOURCE[] = "PayloadCache";
constexpr std::size_t FIRST_CAPACITY = 1024;

// Below it, copying costs less than another block to walk over.
constexpr std::size_t LEAST_TAKEN_OVER = 16 * 1024;

// A file that has no name any more. Invalid, with errno, when there is none.
UniqueFd openNameless(std::string const& folder)
{
  UniqueFd fd(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC | O_EXCL, 0600));
  // Not every file system makes such a file in one step.
  if (fd.valid() || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL))
    return fd;
  std::string name = folder + "/tq-payload-XXXXXX";
  fd.reset(mkostemp(name.data(), O_CLOEXEC));
  if (fd.valid())
    unlink(name.c_str());
  return fd;
}

} // namespace

std::vector<std::string> PayloadCache::temporaryFolders()
{
  std::vector<std::string> folders;
  char const* const chosen = std::getenv("TMPDIR");
  if (chosen != nullptr && *chosen == '/')
    folders.emplace_back(chosen);
  // The second is often kept in memory.
  folders.insert(folders.end(), {"/var/tmp", "/tmp"});
  return folders;
}

PayloadCache::PayloadCache(std::vector<std::string> folders) : m_folders(std::move(folders)) {}

void PayloadCache::clear()
{
  m_size = 0;
  m_capacity = 0;
  m_blocks.clear();
  m_file.reset();
  m_mayUseFile = true;
  m_failed = false;
}

// Before count bytes are added.
void PayloadCache::chooseStore(std::size_t count)
{
  if (!inFile() && m_mayUseFile && m_size + count > MOST_IN_MEMORY)
    m_mayUseFile = moveToFile();
}

bool PayloadCache::append(Piece bytes, std::size_t count)
{
  if (std::exchange(m_failed, true))
    return false;
  m_failed = !appendPiece(std::move(bytes), count);
  return !m_failed;
}

bool PayloadCache::append(char const* bytes, std::size_t count)
{
  if (std::exchange(m_failed, true))
    return false;
  m_failed = !appendBytes(bytes, count);
  return !m_failed;
}

bool PayloadCache::appendPiece(Piece bytes, std::size_t count)
{
  chooseStore(count);
  if (inFile() || count < LEAST_TAKEN_OVER)
    return appendBytes(bytes.get(), count);
  if (m_size < m_capacity)
    m_blocks.back().capacity -= m_capacity - m_size;
  m_blocks.emplace_back(std::move(bytes), count);
  m_size += count;
  m_capacity = m_size;
  return true;
}

bool PayloadCache::appendBytes(char const* bytes, std::size_t count)
{
  constexpr char OPERATION[] = "PayloadCache::append";
  chooseStore(count);
  if (inFile() && !appendToFile(bytes, count))
  {
    OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
            "Failed to write collection data to a temporary file, keeping it in memory: "
                << errorText(errno));
    if (!backToMemory())
    {
      OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
              "Failed to read collection data back from the temporary file");
      return false;
    }
  }
  if (inFile())
    m_size += count;
  else
    appendToMemory(bytes, count);
  return true;
}

void PayloadCache::appendToMemory(char const* bytes, std::size_t count)
{
  while (count != 0)
  {
    if (m_size == m_capacity)
      // One piece may be larger than all that is held so far.
      m_capacity += m_blocks.emplace_back(std::max({FIRST_CAPACITY, m_capacity, count})).capacity;
    Block const& last = m_blocks.back();
    std::size_t const room = m_capacity - m_size;
    std::size_t const part = std::min(room, count);
    std::memcpy(last.bytes.get() + (last.capacity - room), bytes, part);
    m_size += part;
    bytes += part;
    count -= part;
  }
}

void PayloadCache::readFromMemory(std::size_t position, std::size_t count, char* buffer) const
{
  for (Block const& block : m_blocks)
  {
    if (position >= block.capacity)
    {
      position -= block.capacity;
      continue;
    }
    std::size_t const part = std::min(count, block.capacity - position);
    std::memcpy(buffer, block.bytes.get() + position, part);
    position = 0;
    buffer += part;
    count -= part;
    if (count == 0)
      return;
  }
}

bool PayloadCache::appendToFile(char const* bytes, std::size_t count)
{
  for (std::size_t done = 0; done < count;)
  {
    ssize_t const written =
        pwrite(m_file.get(), bytes + done, count - done, static_cast<off_t>(m_size + done));
    if (written < 0 && errno == EINTR)
      continue;
    if (written <= 0)
      return false;
    done += static_cast<std::size_t>(written);
  }
  return true;
}

bool PayloadCache::moveToFile()
{
  constexpr char OPERATION[] = "PayloadCache::moveToFile";
  for (std::string const& folder : m_folders ? *m_folders : temporaryFolders())
  {
    m_file = openNameless(folder);
    std::size_t const size = std::exchange(m_size, 0);
    bool moved = inFile();
    for (Block const& block : m_blocks)
    {
      std::size_t const part = std::min(block.capacity, size - m_size);
      moved = moved && appendToFile(block.bytes.get(), part);
      m_size += part;
    }
    if (moved)
    {
      m_blocks.clear();
      m_capacity = 0;
      return true;
    }
    OZF_LOG(getOzfLogger(), 4, SOURCE, OPERATION,
            "No temporary file in " << folder << ": " << errorText(errno));
    m_file.reset();
  }
  OZF_LOG(getOzfLogger(), 1, SOURCE, OPERATION,
          "No temporary file for collection data, keeping it in memory");
  return false;
}

// What was written of the piece in hand is passed over.
bool PayloadCache::backToMemory()
{
  Block memory(std::max(FIRST_CAPACITY, m_size));
  for (std::size_t done = 0; done < m_size;)
  {
    long const count = readHeld(done, m_size - done, memory.bytes.get() + done);
    if (count <= 0)
      return false;
    done += static_cast<std::size_t>(count);
  }
  m_capacity = memory.capacity;
  m_blocks.push_back(std::move(memory));
  m_file.reset();
  m_mayUseFile = false;
  return true;
}

long PayloadCache::read(std::size_t position, std::size_t count, void* buffer) const
{
  return m_failed ? -1 : readHeld(position, count, buffer);
}

long PayloadCache::readHeld(std::size_t position, std::size_t count, void* buffer) const
{
  std::size_t const most = position < m_size ? std::min(count, m_size - position) : 0;
  if (most == 0)
    return 0;
  if (!inFile())
  {
    readFromMemory(position, most, static_cast<char*>(buffer));
    return static_cast<long>(most);
  }
  for (;;)
  {
    ssize_t const done = pread(m_file.get(), buffer, most, static_cast<off_t>(position));
    if (done > 0)
      return done;
    if (done == 0 || errno != EINTR)
      return -1; // it holds what was appended
  }
}

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
