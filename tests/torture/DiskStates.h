// What a disk may hold when the power goes in the middle of recorded
// operations.

#pragma once

#include "tests/torture/DiskImage.h"

#include <functional>
#include <string>
#include <vector>

namespace tqtorture
{

enum class DiskRule
{
  // Only what was flushed is there for sure: names when their directory was,
  // bytes and attributes when their file was. Of the rest any part may be there,
  // without regard to the order; a write also in part, by sectors of 512 bytes,
  // or as nothing but a new size. A renamed file may have both names.
  STRICT,
  // As a journalling file system leaves it: changes of names, sizes and
  // attributes are there up to some moment and in order, at least up to the last
  // one that a flush has committed. Bytes that were not flushed may be absent,
  // or zeros, or there in part by pages of 4,096 bytes.
  JOURNALLED
};

// How much of one event is on the disk.
enum class Extent : unsigned char
{
  NOTHING,
  WHOLE,
  SIZE_ONLY,
  FIRST_BLOCK,
  ALL_BUT_FIRST_BLOCK,
  BOTH_NAMES
};

struct DiskState
{
  Image image;
  std::size_t cut;             // so many events of the log had happened
  std::vector<Extent> extents; // of each of these
};

// Every event that is not as it should be, for people.
std::string storyOf(DiskState const& state, std::vector<Event> const& log);

struct StateBounds
{
  std::size_t mostPerCut = 4096; // beyond it a random choice of so many
  unsigned seed = 1;
};

// Calls visit with every state that may be left after the first cut events,
// some more than once. Returns false when there were too many and some were
// left out.
bool visitStates(Image const& base, std::vector<Event> const& log, std::size_t cut, DiskRule rule,
                 StateBounds const& bounds, std::function<void(DiskState const&)> const& visit);

} // namespace tqtorture
