// The payload of a stored discovery: a file beside its metadata.

#pragma once

#include "discovery/DiscData.h"
#include "discovery/DiscDBLock.h"
#include "ozf/base/OzfPathname.h"
#include "ozf/base/SystemError.h"

#include <memory>
#include <optional>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Reading opens the payload file. Writing goes to a numbered temporary file in
// the database directory, which replaces the payload file at persist; until
// then a reader sees the old payload, and a writer that dies leaves only the
// temporary file. Used by one thread at a time.
class TQ_EXPORT DBCollectionData : public CollectionData
{
public:
  // Touches no file. For writing only the directory of path counts.
  explicit DBCollectionData(OzfPathname path);

  // Abandons what was written and not persisted.
  ~DBCollectionData() override;
  DBCollectionData(DBCollectionData const&) = delete;
  DBCollectionData& operator=(DBCollectionData const&) = delete;

  // From now on a payload is opened for reading under the lock of its stored
  // discovery, if that holds one; both arguments outlive this. Another thread
  // may have cost the process that lock, so it is taken once more.
  void openUnder(HeldFile const& metadataLock, OzfPathname const& metadataPath);

  int open(OpenMode mode, char const* name) override;
  long readCollection(unsigned long len, void* buf) const override;
  long writeCollection(unsigned long len, void const* buf) const override;

  // Brings what was written to the disk, an empty payload when nothing is open,
  // and makes everything ready that persist could still lack. False, with a log
  // line, when the payload must not be persisted. Nothing stored is touched. With
  // a target, the name of a payload file, the temporary file says from then on
  // that it is to have that name once the document is in place, so that the next
  // start can see to it.
  bool flush(std::string const& target = {}, std::string const& document = {});

  // What a flush noted no longer counts.
  void forgetTarget() const;

  // Makes what was written the file target, replacing the one that is there in
  // one step. Without flush before it a power cut may take the content. False,
  // with log lines, when target is as it was; the temporary file then stays, and
  // nothing can be persisted until the next open for update.
  bool persist(OzfPathname const& target);

  // Makes the new name durable, where the file system can do that, together with
  // those of other writers (FlushGroup). Only after a flush and a persist. False,
  // with a log line, when a power cut may take it.
  bool flushDirectory();

  // Throws an open temporary file away. Always true.
  bool cleanup();

  // Deletes the payload file; a missing one is fine. False when it is still
  // there. Only when nothing is open.
  bool expire() const;

  OzfPathname const& getPath() const noexcept { return m_path; }

private:
  bool openPayload();
  bool lockMetadata(std::optional<MetadataGuard>& guard) const;
  bool openTemporary();
  bool syncDirectory(char const* operation) const;
  void closeHandle(char const* operation);

  // Lets go of what an earlier open left.
  void abandon();

  OzfPathname m_path;
  ACE_HANDLE m_handle = ACE_INVALID_HANDLE;
  int m_mode = OM_READ; // an OpenMode, or whatever number was given for one
  bool m_renameFailed = false;
  bool m_marked = false; // the temporary file says what it is for
  std::unique_ptr<CleanupLock> m_cleanupLock;
  UniqueFd m_directory; // open from flush to persist
  HeldFile const* m_metadataLock = nullptr;
  OzfPathname const* m_metadataPath = nullptr;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
