// Records what this process does to the files below a directory.

#pragma once

#include "tests/torture/DiskImage.h"

#include <map>
#include <string>
#include <vector>

namespace tqtorture
{

// Only calls of the thread that made it are seen, and only those for which
// FileRecorder.cpp defines the function of the C library; the dynamic linker
// prefers those of the program to the library's own. Whoever records compares
// now() with the directory afterwards: they differ when a call was missed.
class FileRecorder
{
public:
  // The directory need not exist; nodes are numbered as loadImage does it.
  explicit FileRecorder(std::string directory);
  ~FileRecorder();
  FileRecorder(FileRecorder const&) = delete;
  FileRecorder& operator=(FileRecorder const&) = delete;

  void acknowledge(std::size_t operation);

  std::vector<Event> const& log() const { return m_log; }
  Image const& now() const { return m_image; }

  // From now on flushes of this process do nothing and succeed: nobody will cut
  // its power.
  static void leaveOutFlushes();

  // For the functions that stand in.
  static FileRecorder* current();
  static bool flushesAreLeftOut();
  void opened(int fd, std::string const& path, int flags, bool wasThere);
  void closed(int fd);
  void madeDirectory(std::string const& path);
  void renamed(std::string const& from, std::string const& to);
  void unlinked(std::string const& path);
  void wrote(int fd, std::uint64_t offset, void const* bytes, std::size_t size);
  void truncated(int fd, std::uint64_t size);
  void setAttribute(std::size_t node, std::string const& name, void const* value, std::size_t size);
  void removedAttribute(std::size_t node, std::string const& name);
  void flushed(int fd, Event::Kind kind);

  static constexpr std::size_t NONE = static_cast<std::size_t>(-1);
  std::size_t nodeOf(int fd) const;
  std::size_t nodeAt(std::string const& path) const;

private:
  // The directory's node and the last component.
  std::size_t parentOf(std::string const& path, std::string& name) const;
  void note(Event event);

  std::string const m_directory;
  Image m_image;
  std::vector<Event> m_log;
  std::map<int, std::size_t> m_open;
};

} // namespace tqtorture
