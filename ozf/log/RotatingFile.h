// A file that lines are added to, and that makes room by itself.

#pragma once

#include "ozf/base/Export.h"
#include "ozf/base/SystemError.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Quillon::Tessarine::Ozf
{

// A full file "x.log" becomes "x.1.log", that one "x.2.log", and so on; the oldest
// goes. A file that is made is for the owner to write and the group to read,
// whatever the umask allows beyond that; one that is there keeps its mode. What is
// no regular file (a device) is written to and does not rotate.
//
// Not locked. Nothing waits: a FIFO that nobody reads is an error.
class OZF_EXPORT RotatingFile
{
public:
  static constexpr std::size_t SIZE = 10UL * 1024 * 1024;
  static constexpr std::size_t OLD_FILES = 5;

  explicit RotatingFile(std::string path) : m_path(std::move(path)) {}

  // Opens the file, and makes it and its folders where they are not there. 0, or
  // the errno value of the failure.
  int open();

  // Adds text whole or not at all; opens the file first when it is not open. 0, or
  // why it could not be written. Where rotation fails the file grows, as what is
  // in it is worth more than its bound, and rotation is tried again later.
  int append(std::string_view text);

  std::string const& path() const noexcept { return m_path; }

private:
  std::string numbered(std::size_t number) const;
  void rotate();
  void takeBack(std::size_t count);

  std::string m_path;
  UniqueFd m_fd;
  std::size_t m_size = 0;
  bool m_regular = false;
  bool m_moved = false; // the open file has another name by now
};

} // namespace Quillon::Tessarine::Ozf
