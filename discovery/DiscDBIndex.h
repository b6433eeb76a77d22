// What the metadata files of a directory say, for those who only list them.

#pragma once

#include "discovery/DiscData.h"
#include "ozf/base/SystemError.h"

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// The essay on what makes it hold stands at the head of DiscDBIndex.cpp. Any
// thread.
class TQ_EXPORT DiscoveryIndex
{
public:
  // Nothing is read or watched before the first update.
  explicit DiscoveryIndex(std::string directory);
  ~DiscoveryIndex();
  DiscoveryIndex(DiscoveryIndex const&) = delete;
  DiscoveryIndex& operator=(DiscoveryIndex const&) = delete;

  // Takes up every change to the directory that was over when this was called;
  // reads the names of all files when it does not know them. False: changes
  // cannot be followed here and now, and the directory is to be walked; if that
  // is for another reason than before, a log line tells it. Throws
  // std::bad_alloc.
  bool update();

  // A file that somebody has to read, and what was known of it.
  struct Unread
  {
    std::string name;
    std::uint64_t change = 0;
  };

  enum class Listed
  {
    ENOUGH, // take said no
    UNREAD, // the file at hand is not known, expired, or not for the index to say
    END,
    UNKNOWN // the index was lost since the update
  };

  // What a name is to the list.
  enum class Match
  {
    NONE,
    NAME, // what is known of the file answers
    MAYBE // only its content says
  };

  // Hands the discoveries behind the name `after`, in the order of the names, to
  // take, and moves `after` along with them. Those of type AT_REMOTEPULL only if
  // that is asked for. take is called under the lock of the index.
  Listed list(std::string& after, std::function<Match(std::string_view name)> const& match,
              AuthorityType type, DiscoveryIterator::Taker const& take, Unread& unread);

  // What a file that list came upon turned out to say. Forgotten if the file was
  // changed since, or if it is to be reported each time.
  void learn(Unread const& unread, Discovery const& discovery);

  // That there is no such file. Nothing if it was changed since.
  void learnAbsent(Unread const& unread);

  // Whether every change to the files of a directory of such a file system (statfs),
  // with such flags (FS_IOC_GETFLAGS), passes through this system and is told by
  // the file's own name.
  static bool tellsChanges(std::uint64_t fileSystem, unsigned flags);

private:
  struct Entry
  {
    std::uint64_t change = 0; // the number of the last one, unique
    bool known = false;
    AuthorityType type = AT_ANYANDALL;
    std::string authority;
    std::string subject;
    std::optional<CollectionAttributes> attributes;
  };

  bool isWatched() const noexcept { return m_watch >= 0; }
  bool isSameDirectory() const;
  void takeChanges();
  void keepTakingChanges();
  void takeChange(std::uint32_t mask, int watch, std::string_view name);
  bool begin();
  bool readNames(int directory);
  bool unavailable(std::string const& reason);
  void forget() noexcept;
  void markChanged(std::string_view name);
  void followChanges();

  std::string const m_directory;
  std::mutex m_mutex; // of all below but the two descriptors, once they are open
  std::map<std::string, Entry, std::less<>> m_entries; // by file name
  std::uint64_t m_changes = 0;
  UniqueFd m_events; // of inotify
  int m_watch = -1;  // that of the directory; -1: nothing is known
  dev_t m_device = 0;
  ino_t m_inode = 0;
  std::string m_reason; // why it could not begin, the last time

  bool m_ending = false;
  std::condition_variable m_end; // of m_ending
  UniqueFd m_wake;               // readable when m_follower is to look
  std::thread m_follower;        // keeps the queue of changes from filling up between two lists
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
