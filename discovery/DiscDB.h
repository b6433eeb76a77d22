// The local discovery database: a directory with a metadata file and a payload
// file for each discovery. docs/database.md describes the format.

#pragma once

#include "discovery/DiscData.h"
#include "ozf/sync/OzfLockable.h"

#include <dirent.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

class DiscoveryIndex;

// Makes discoveries and iterators of one store. Both results carry one
// reference for the caller.
class TQ_EXPORT DiscoveryCreator : public virtual OzfLockable
{
public:
  ~DiscoveryCreator() override = default;
  virtual DiscoveryIterator* getIterator(DiscoveryQuery query) const = 0;
  virtual Discovery* newDiscovery(DiscoveryQuery query) = 0;
};

// The creator of the file database. After init any number of threads may use
// it: the directory is fixed then, and nothing else is kept.
class TQ_EXPORT DiscoveryDBCreator : public DiscoveryCreator
{
public:
  DiscoveryDBCreator();

  // Settles the directory, the default one joined with name, makes it and
  // cleans it. Once, before anything else; a second call fails an assertion.
  void init(std::string const& name);

  // Makes the directory and, unless a writer is at work, finishes or deletes the
  // temporary files that writers left. A directory of this user's that is there
  // is closed to others. One that others may write to even so is refused: it is
  // as if it could not be made.
  void setupDB();

  // The query kind does not filter. Asserts that init has run.
  DiscoveryIterator* getIterator(DiscoveryQuery query) const override;
  Discovery* newDiscovery(DiscoveryQuery query) override;

  // The stored discovery whose metadata file has that name, with one reference
  // for the caller; null, with a log line, when it cannot be opened, locked or
  // loaded, or is expired (it is then deleted). Waits for a writer's lock.
  Discovery* getDiscovery(char const* metadataFileName) const;

  // The same; with mayBeAbsent a file that is not there costs no log line.
  // error is 0, or the error of the system because of which a file that may be
  // sound is not returned. With once, what it says is not kept for the next reader.
  Discovery* getDiscovery(char const* metadataFileName, bool mayBeAbsent, int& error,
                          bool once = false) const;

  // Whether there is a metadata file for the names of the discovery, or it cannot
  // be found out.
  bool isStored(Discovery const& discovery) const;

  // From now on the iterators answer lists from an index of the directory, which
  // the first list makes; or no longer. For a service, which lists again and again.
  void keepIndex(bool keep);

  std::string const& getDirectory() const noexcept { return m_directory; }
  bool isInitialized() const noexcept { return m_init; }

private:
  std::string m_directory;
  bool m_init = false;
  mutable std::mutex m_indexMutex;
  std::shared_ptr<DiscoveryIndex> m_index; // iterators have a share; null: none is kept
};

// The process's one creator, made on first use.
TQ_EXPORT DiscoveryDBCreator* getDiscoveryDBDatabase();

// Walks the directory in the file system's order. Filters are compared with the
// file names, and where a name is too long for its file name with the name
// itself. A filter without wildcards
// and with a type names one file, which is opened without a walk. Discoveries
// of type AT_REMOTEPULL are returned only to an iterator of that type. It is
// incomplete when the directory cannot be read to its end, or a metadata file
// not be opened, locked or read.
class TQ_EXPORT DBDiscoveryIterator : public virtual DiscoveryIterator
{
public:
  // Over the directory of that creator, which outlives it. index may be null.
  DBDiscoveryIterator(char const* dir, DiscoveryDBCreator const& creator,
                      std::shared_ptr<DiscoveryIndex> index = nullptr);
  // Over that of the process's one creator.
  explicit DBDiscoveryIterator(char const* dir);
  ~DBDiscoveryIterator() override;

  Discovery* getNext() override;
  bool list(Taker const& take) override;

private:
  bool isPattern();
  bool openDirectory();
  Discovery* findNext();
  std::optional<bool> listIndexed(Taker const& take);
  Discovery* fetch(char const* name, bool mayBeAbsent, bool once = false);
  bool isWanted(Discovery const& discovery) const;
  // Whether the filters match the names themselves.
  bool answers(Discovery const& discovery) const;
  void close();
  void failed(int error);

  DiscoveryDBCreator const& m_creator;
  std::string m_dirName;
  std::shared_ptr<DiscoveryIndex> m_index; // null: the directory is walked
  std::string m_listed;                    // the last name that was met in the index
  DIR* m_directory = nullptr;              // open from the first getNext that walks to the end
  std::string m_pattern;                   // empty until the first getNext or list
  bool m_exhausted = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
