// A discovery in the file database.

#pragma once

#include "discovery/DiscDBCollection.h"
#include "discovery/DiscData.h"
#include "ozf/base/OzfPathname.h"

#include <ace/File_Lock.h>

#include <iosfwd>
#include <optional>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Either new, made for a producer who fills, opens and persists it, or stored,
// with its metadata file held open under a read lock until it is destroyed or
// expires. Used by one thread at a time.
class TQ_EXPORT DBDiscovery : public Discovery
{
public:
  // Stored: takes the lock, which holds the opened metadata file, and the
  // payload over. path is the metadata file's.
  DBDiscovery(ACE_File_Lock* lock, DBCollectionData* data, DiscoveryQuery query,
              OzfPathname const& path);
  // New, to be written into the directory.
  DBDiscovery(OzfPathname const& dir, DBCollectionData* data, DiscoveryQuery query);
  ~DBDiscovery() override;

  // DS_SUCCESS when both files are in place and on the disk. On any failure but
  // that of the last flushes, which is logged, what was stored is as it
  // was. After a failure another persist fails until an open for update
  // succeeded.
  DiscoveryStatus persist() override;
  DiscoveryStatus open(OpenMode mode, char const* name) override;
  void setAuthority(Authority* authority) override;
  void setSubject(Subject* subject) override;
  void setAttributes(CollectionAttributes* attributes) override;

  // The text that was loaded, byte for byte, as long as no part was replaced.
  std::ostream& writeXml(std::ostream& os, XmlStr::Encoding encoding) const override;

  // Reads and parses the metadata file held, or the text: to its first NUL, or
  // the whole of it, which is what is done with a file.
  bool load();
  bool load(char const* text);
  bool load(std::string text);

  // What load reads is not kept for the next reader of the same text.
  void readOnce() noexcept { m_once = true; }

  // The error of the system because of which load could not read the file; 0
  // when it could, whatever it holds.
  int readError() const noexcept { return m_readError; }

  // Whether this discovery may replace the stored one of the same name: there
  // is none that counts, or its priority is not higher. False when it cannot be
  // opened or locked, or memory runs out; true when it cannot be read, although
  // persist then refuses, since it could not put it back. Asserts that this is
  // not a stored discovery itself.
  bool canOverride();

  // Rewrites the file in place so that a crash at any moment leaves a
  // readable document.
  static bool writeMetadata(int fd, std::string const& text);

  // Deletes a stored discovery if it is still expired: DS_SUCCESS, or
  // DS_NONE_FOUND when it was refreshed meanwhile, or DS_LOGIC_ERROR.
  DiscoveryStatus expire();

  // "2 hostA hostB.xml" and "2 hostA hostB.dat".
  void generateMetabaseFileName(std::ostringstream& os) const;
  void generatecollectionBaseFileName(std::ostringstream& os) const;

private:
  bool loadInternal();
  bool parseText(std::string const& text);
  // Whether the stored discovery may be replaced.
  enum class Answer
  {
    YES,
    NO,
    UNREADABLE, // it could be opened but not read
    UNKNOWN     // it could not be opened, or memory ran out
  };

  Answer askForPermission();
  Answer askForPermission(OzfPathname const& path, LockWait& wait, std::string& seen);
  Answer readAndJudge(OzfPathname const& path, LockWait& wait, std::string& seen) const;
  bool priorityAllows(std::string& stored) const;
  using NameWriter = void (DBDiscovery::*)(std::ostringstream&) const;
  OzfPathname pathOf(NameWriter writeName) const;
  bool renderDocument(OzfPathname const& path, std::string& document) const;
  DiscoveryStatus persistFiles(DBCollectionData& data, OzfPathname const& path,
                               OzfPathname const& dataPath);
  DiscoveryStatus readStored(int fd, std::string const& seen, std::optional<std::string>& stored,
                             OzfPathname const& path) const;
  DiscoveryStatus replaceFiles(int fd, std::optional<std::string>& stored,
                               std::string const& document, DBCollectionData& data,
                               OzfPathname const& path, OzfPathname const& dataPath) const;
  bool upgradeLock();
  DiscoveryStatus expireLocked();

  HeldFile m_fileLock;    // null when no file is held
  std::string m_metadata; // empty when a producer set the parts
  OzfPathname m_directory;
  OzfPathname m_heldPath;       // of the metadata file held; guards its closing
  bool m_persistFailed = false; // since the last open for update
  int m_readError = 0;
  bool m_once = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
