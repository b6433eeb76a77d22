// Where a payload is kept between its coming, from another host or a pull
// explorer, and its reading.

#pragma once

#include "discovery/Export.h"
#include "ozf/base/SystemError.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// A payload is fetched whole before its first byte is read, so that a failure
// shows when it is opened. Small ones are held in memory. A large one goes to
// a file without a name, which the system drops when it is closed, however
// this process ends: a reader that streams it needs no more memory for it than
// for a small one. Where no such file can be had, or the disk fills up, memory
// has to do. Used by one thread at a time.
class TQ_EXPORT PayloadCache
{
public:
  // The most that is held in memory when there is a file for the rest.
  static constexpr std::size_t MOST_IN_MEMORY = std::size_t(4) << 20;

  // $TMPDIR, then those for files that may be large.
  static std::vector<std::string> temporaryFolders();

  // In the temporary folders as they are when a file is needed: of most records
  // no payload is ever fetched.
  PayloadCache() = default;
  // The file is made in the first of the folders that lets it.
  explicit PayloadCache(std::vector<std::string> folders);

  void clear();
  // Both: false, with a log line, when what was held before cannot be had any
  // more. A piece would be missing from then on, so every later append is false
  // and every read fails, until clear; the same after an exception. The second
  // takes a large piece over as it is.
  bool append(char const* bytes, std::size_t count);
  using Piece = std::unique_ptr<char[], void (*)(char*)>;
  bool append(Piece bytes, std::size_t count);
  std::size_t size() const noexcept { return m_size; }

  // Copies up to count bytes from position on and returns how many; 0 at the
  // end, -1 when the file cannot be read or an append has failed.
  long read(std::size_t position, std::size_t count, void* buffer) const;

  bool inFile() const noexcept { return m_file.valid(); }

private:
  struct Block
  {
    explicit Block(std::size_t size)
        : Block(Piece(new char[size], [](char* memory) { delete[] memory; }), size)
    {
    }
    Block(Piece piece, std::size_t size) : bytes(std::move(piece)), capacity(size) {}

    Piece bytes;
    std::size_t capacity;
  };

  void chooseStore(std::size_t count);
  bool appendPiece(Piece bytes, std::size_t count);
  bool appendBytes(char const* bytes, std::size_t count);
  void appendToMemory(char const* bytes, std::size_t count);
  long readHeld(std::size_t position, std::size_t count, void* buffer) const;
  void readFromMemory(std::size_t position, std::size_t count, char* buffer) const;
  bool appendToFile(char const* bytes, std::size_t count);
  bool moveToFile();
  bool backToMemory();

  std::optional<std::vector<std::string>> m_folders;
  std::size_t m_size = 0;
  // Empty when there is a file; all full but the last. A new one doubles what
  // there is room for, and what is held stays where it is.
  std::vector<Block> m_blocks;
  std::size_t m_capacity = 0; // of all blocks
  UniqueFd m_file;
  bool m_mayUseFile = true;
  bool m_failed = false; // also while a piece is being appended
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
