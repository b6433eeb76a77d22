// A small directory tree as a disk holds it, and the operations that change it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tqtorture
{

// A file or directory, whatever names lead to it.
struct Node
{
  bool isDirectory = false;
  std::string bytes;                             // of a file
  std::map<std::string, std::string> attributes; // extended ones
  std::map<std::string, std::size_t> entries;    // of a directory: numbers of nodes
};

// Node 0 is the directory at the top. Nodes that lost their last name stay, so
// that numbers keep their meaning.
struct Image
{
  std::vector<Node> nodes{Node{true, {}, {}, {}}};

  // What can be reached by name, in one text: equal for equal trees.
  std::string fingerprint() const;
};

// What a process did, or asked for, or was told.
struct Event
{
  enum Kind
  {
    CREATE,       // name in directory is now the new node
    RENAME,       // name in directory becomes otherName in otherDirectory
    UNLINK,       // name in directory is gone
    WRITE,        // bytes at offset of node
    TRUNCATE,     // node has offset bytes
    ATTRIBUTE,    // attribute name of node is bytes
    NO_ATTRIBUTE, // attribute name of node is gone
    FLUSH,        // all of node
    FLUSH_DATA,   // the bytes of node
    FLUSH_ALL,    // everything
    ACKNOWLEDGED  // the operation of that number (offset) was reported done
  };

  Kind kind;
  std::size_t node = 0;
  std::size_t directory = 0;
  std::string name = {};
  std::size_t otherDirectory = 0;
  std::string otherName = {};
  std::uint64_t offset = 0;
  std::string bytes = {};
  bool makesDirectory = false; // CREATE

  bool changesNames() const { return kind == CREATE || kind == RENAME || kind == UNLINK; }
  bool flushes() const { return kind == FLUSH || kind == FLUSH_DATA || kind == FLUSH_ALL; }
  // "rename 0.updating to 2 a b.dat", for people.
  std::string text() const;
};

// Flushes and acknowledgements change nothing.
void apply(Image& image, Event const& event);

// The tree below a directory, with extended attributes of users' own. Throws
// std::system_error or std::filesystem::filesystem_error.
Image loadImage(std::string const& directory);

// Makes the directory hold that tree and nothing else. Throws likewise.
void storeImage(Image const& image, std::string const& directory);

// A log in a file, for another process. Throws std::runtime_error.
void saveLog(std::vector<Event> const& log, std::string const& path);
std::vector<Event> readLog(std::string const& path);

} // namespace tqtorture
