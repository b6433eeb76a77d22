#include "tests/torture/DiskImage.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace tqtorture
{
namespace
{

namespace fs = std::filesystem;

[[noreturn]] void fail(std::string const& what)
{
  throw std::system_error(errno, std::generic_category(), what);
}

void describe(Image const& image, std::size_t number, std::string& text)
{
  Node const& node = image.nodes[number];
  for (auto const& [name, value] : node.attributes)
    text += "@" + name + "=" + std::to_string(value.size()) + ":" + value;
  if (!node.isDirectory)
  {
    text += std::to_string(node.bytes.size()) + ":" + node.bytes;
    return;
  }
  text += "{";
  for (auto const& [name, child] : node.entries)
  {
    text += name + "/";
    describe(image, child, text);
  }
  text += "}";
}

std::map<std::string, std::string> attributesOf(std::string const& path)
{
  std::map<std::string, std::string> found;
  std::array<char, 65536> names;
  ssize_t const size = llistxattr(path.c_str(), names.data(), names.size());
  if (size < 0 && errno != ENOTSUP)
    fail(path);
  for (ssize_t at = 0; at < size;)
  {
    std::string const name = names.data() + at;
    at += static_cast<ssize_t>(name.size()) + 1;
    if (name.rfind("user.", 0) != 0)
      continue;
    std::array<char, 65536> value;
    ssize_t const length = lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (length < 0)
      fail(path);
    found[name].assign(value.data(), static_cast<std::size_t>(length));
  }
  return found;
}

void loadInto(Image& image, std::size_t number, std::string const& path)
{
  image.nodes[number].attributes = attributesOf(path);
  if (!image.nodes[number].isDirectory)
  {
    std::ifstream in(path, std::ios::binary);
    image.nodes[number].bytes.assign(std::istreambuf_iterator<char>(in), {});
    return;
  }
  for (auto const& entry : fs::directory_iterator(path))
  {
    std::size_t const child = image.nodes.size();
    image.nodes.emplace_back();
    image.nodes[child].isDirectory = entry.is_directory();
    image.nodes[number].entries[entry.path().filename().string()] = child;
    loadInto(image, child, entry.path().string());
  }
}

void storeNode(Image const& image, std::size_t number, std::string const& path)
{
  Node const& node = image.nodes[number];
  if (node.isDirectory)
  {
    fs::create_directory(path);
    for (auto const& [name, child] : node.entries)
      storeNode(image, child, path + "/" + name);
  }
  else
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << node.bytes;
    out.close();
    if (!out)
      throw std::runtime_error("cannot write " + path);
  }
  for (auto const& [name, value] : node.attributes)
    if (lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0)
      fail(path);
}

void put(std::ostream& out, std::string const& text) { out << text.size() << ' ' << text << '\n'; }

std::string get(std::istream& in)
{
  std::size_t size = 0;
  in >> size;
  in.get();
  std::string text(in ? size : 0, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  return text;
}

} // namespace

std::string Image::fingerprint() const
{
  std::string text;
  describe(*this, 0, text);
  return text;
}

std::string Event::text() const
{
  std::string const file = "node " + std::to_string(node);
  switch (kind)
  {
  case CREATE:
    return "create " + name + " as " + file;
  case RENAME:
    return "rename " + name + " to " + otherName;
  case UNLINK:
    return "unlink " + name;
  case WRITE:
    return "write " + std::to_string(bytes.size()) + " bytes at " + std::to_string(offset) +
           " of " + file;
  case TRUNCATE:
    return "truncate " + file + " to " + std::to_string(offset) + " bytes";
  case ATTRIBUTE:
    return "set " + name + " of " + file;
  case NO_ATTRIBUTE:
    return "remove " + name + " of " + file;
  case FLUSH:
    return "flush " + file;
  case FLUSH_DATA:
    return "flush the data of " + file;
  case FLUSH_ALL:
    return "flush everything";
  case ACKNOWLEDGED:
    return "acknowledged";
  }
  return {};
}

void apply(Image& image, Event const& event)
{
  Node& node = image.nodes.at(event.node);
  switch (event.kind)
  {
  case Event::CREATE:
    image.nodes.at(event.directory).entries[event.name] = event.node;
    node.isDirectory = event.makesDirectory;
    break;
  case Event::RENAME:
    image.nodes.at(event.otherDirectory).entries[event.otherName] = event.node;
    image.nodes.at(event.directory).entries.erase(event.name);
    break;
  case Event::UNLINK:
    image.nodes.at(event.directory).entries.erase(event.name);
    break;
  case Event::WRITE:
    if (node.bytes.size() < event.offset + event.bytes.size())
      node.bytes.resize(event.offset + event.bytes.size());
    node.bytes.replace(event.offset, event.bytes.size(), event.bytes);
    break;
  case Event::TRUNCATE:
    node.bytes.resize(event.offset);
    break;
  case Event::ATTRIBUTE:
    node.attributes[event.name] = event.bytes;
    break;
  case Event::NO_ATTRIBUTE:
    node.attributes.erase(event.name);
    break;
  case Event::FLUSH:
  case Event::FLUSH_DATA:
  case Event::FLUSH_ALL:
  case Event::ACKNOWLEDGED:
    break;
  }
}

Image loadImage(std::string const& directory)
{
  Image image;
  loadInto(image, 0, directory);
  return image;
}

void storeImage(Image const& image, std::string const& directory)
{
  fs::create_directories(directory);
  for (auto const& entry : fs::directory_iterator(directory))
    fs::remove_all(entry.path());
  storeNode(image, 0, directory);
}

void saveLog(std::vector<Event> const& log, std::string const& path)
{
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << log.size() << '\n';
  for (Event const& event : log)
  {
    out << event.kind << ' ' << event.node << ' ' << event.directory << ' ' << event.otherDirectory
        << ' ' << event.offset << ' ' << event.makesDirectory << '\n';
    for (std::string const* const text : {&event.name, &event.otherName, &event.bytes})
      put(out, *text);
  }
  out.close();
  if (!out)
    throw std::runtime_error("cannot write " + path);
}

std::vector<Event> readLog(std::string const& path)
{
  std::ifstream in(path, std::ios::binary);
  std::size_t size = 0;
  in >> size;
  std::vector<Event> log(in ? size : 0);
  for (Event& event : log)
  {
    int kind = 0;
    in >> kind >> event.node >> event.directory >> event.otherDirectory >> event.offset >>
        event.makesDirectory;
    event.kind = static_cast<Event::Kind>(kind);
    for (std::string* const text : {&event.name, &event.otherName, &event.bytes})
      *text = get(in);
  }
  if (!in)
    throw std::runtime_error("cannot read " + path);
  return log;
}

} // namespace tqtorture
