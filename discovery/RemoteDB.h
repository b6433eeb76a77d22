// The master's discovery service as one more store: what is written here is
// streamed to the master, what is read here is fetched from the host that has
// it. Every operation that calls another host blocks for the request time-out
// at worst. No CORBA exception escapes from here.

#pragma once

#include "discovery/DiscDB.h"
#include "discovery/DiscData.h"
#include "discovery/HeldRecords.h"
#include "discovery/PayloadCache.h"
#include "discovery/RemoteDBDrain.h"
#include "ozf/orb/Corba.h"

#include <DiscoveryServiceC.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>

namespace Quillon::Tessarine::Ozf::DiscoverySvc
{

// Holds a remote iterator and releases it at the end, whatever comes of that.
template <class Var, class Ptr>
class AutoReleaseIterator
{
public:
  // Takes the caller's reference over; it may be nil.
  explicit AutoReleaseIterator(Ptr iterator) : m_iterator(iterator) {}

  ~AutoReleaseIterator()
  {
    if (CORBA::is_nil(m_iterator.in()))
      return;
    try
    {
      m_iterator->release();
    }
    catch (...)
    {
      // The other side drops the iterator by itself when it is idle.
    }
  }
  AutoReleaseIterator(AutoReleaseIterator const&) = delete;
  AutoReleaseIterator& operator=(AutoReleaseIterator const&) = delete;

  Ptr operator->() const { return m_iterator.in(); }

  // Releases it now, and passes on what the call raises.
  void release()
  {
    Var const iterator = m_iterator._retn();
    iterator->release();
  }

  // No call any more: the other side drops an idle iterator by itself.
  void abandon() { m_iterator = {}; }

private:
  Var m_iterator;
};

// Makes remote discoveries. Any thread.
class TQ_EXPORT RemoteDBCreator : public DiscoveryCreator
{
public:
  RemoteDBCreator();

  // Asks the platform anew whether this host is the master.
  void setIsMaster();
  bool isMaster() const noexcept { return m_isMaster; }

  // An empty discovery of that kind, to be written; one reference for the
  // caller.
  Discovery* newDiscovery(DiscoveryQuery query) override;

  // A discovery to be read, with own as RemoteCollectionData says. Takes the record over, whose
  // names are usable (areUsableNames); one reference for the caller.
  Discovery* newDiscovery(Remote::Discovery* record, bool own = false);

  // Not supported: fails an assertion.
  DiscoveryIterator* getIterator(DiscoveryQuery query) const override;

private:
  std::atomic<bool> m_isMaster{false};
};

// The process's one creator, made on first use.
TQ_EXPORT RemoteDBCreator& getRemoteDiscoveryDatabase();

// The payload of a remote discovery, used either for reading (made from a
// record) or for writing (made from a kind). Used by one thread at a time.
class TQ_EXPORT RemoteCollectionData : public CollectionData
{
public:
  // The most that is read of one payload, in bytes. A peer that sends more is
  // broken or hostile.
  static constexpr std::size_t MAX_SIZE = 256UL * 1024 * 1024;

  explicit RemoteCollectionData(DiscoveryQuery query);
  // With own the host is asked for its own collection of these names alone
  // (OwnCollections_i), whatever else its service would answer with.
  explicit RemoteCollectionData(std::unique_ptr<Remote::Discovery> record, bool own = false);
  ~RemoteCollectionData() override;

  // For reading: fetches the whole payload from the host that the record
  // names; name is the filter parameters text. An empty payload is a failure.
  // For update: opens a writer on the master. One that is open already and has
  // been given nothing is kept: only close ends a writer, and close stores. One
  // that has been given something is left to its time-out on the master.
  int open(OpenMode mode, char const* name) override;

  // From what open fetched; -1 when that cannot be read any more.
  long readCollection(unsigned long len, void* buf) const override;

  // Sends the bytes, at most COLLECTION_WRITE_SIZE a call, 1,024 when that is absent;
  // 0 when one failed, or when the calls since open have taken too long
  // (DrainLimit, by which 1,024 bytes count as a call). The time between two writes
  // is the writer's own.
  long writeCollection(unsigned long len, void const* buf) const override;

private:
  friend class RemoteDiscovery;

  bool openRead(char const* filter);
  bool openWrite();
  bool hasFreshWriter() const;
  bool fetch(Remote::CollectionDataIterator_ptr iterator);
  bool keep(Remote::CollectionDataSeq& page); // empties it
  void fillRecord(Remote::Discovery& record) const;
  Remote::DiscoveryService_ptr connect() const;
  Remote::DiscoveryService_ptr connectToSource() const;

  DiscoveryQuery m_query;
  bool const m_own = false;
  std::unique_ptr<Remote::Discovery> m_discovery; // null when for writing
  Subject const* m_subject = nullptr;             // the discovery's own
  Authority const* m_authority = nullptr;
  CollectionAttributes const* m_attributes = nullptr;
  Remote::RemoteWriter_var m_writer; // from openWrite to persist
  mutable DrainLimit m_putLimit;     // of m_writer; runs while calls are made
  mutable std::size_t m_puts = 0;    // of 1,024 bytes
  bool m_recordSent = false;         // m_writer was opened for the record as it is
  bool m_cached = false;
  PayloadCache m_cache;
  mutable std::size_t m_position = 0;
};

class TQ_EXPORT RemoteDiscovery : public Discovery
{
public:
  // Take the payload over, a RemoteCollectionData. The second makes subject,
  // authority and attributes from the record.
  RemoteDiscovery(CollectionData* data, DiscoveryQuery query);
  RemoteDiscovery(CollectionData* data, Remote::Discovery const* record);

  void setSubject(Subject* subject) override;
  void setAuthority(Authority* authority) override;
  void setAttributes(CollectionAttributes* attributes) override;

  // DS_SUCCESS or DS_OPEN_FAILED.
  DiscoveryStatus open(OpenMode mode, char const* name) override;

  // Ends a write that open began: what the master says of it, DS_COM_ERROR
  // when it could not be asked. Nothing is stored there before. The writer is
  // gone afterwards, whatever the result.
  DiscoveryStatus persist() override;

private:
  RemoteCollectionData* remoteData(char const* operation) const;
};

// Asks a peer for pages of DISCOVERY_PAGE_SIZE records, when that is configured.
// One that refuses goes on with pages of its own size, which any page may be of.
// Throws the CORBA exceptions that tell of no answer.
TQ_EXPORT void requestPageSize(Remote::DiscoveryIterator_ptr iterator);

// The discoveries behind a remote iterator, all fetched at construction. All
// these lists of the process share the bounds of HeldRecords.
class TQ_EXPORT RemoteDiscoveryIterator : public virtual DiscoveryIterator
{
public:
  // The most that is fetched from one remote iterator.
  static constexpr std::size_t MAX_RECORDS = 1'000'000;
  static constexpr std::size_t MAX_RECORD_BYTES = std::size_t(256) << 20;

  // Adds a reference of its own to remote, drains it, has it released on the
  // other side, and drops the reference; the caller keeps its own. When that
  // fails, failure() says why and there are no discoveries: what was fetched
  // of a broken answer is dropped. Where the other side says at the end that its
  // answer is incomplete, so is this, with what was fetched and a log line.
  RemoteDiscoveryIterator(AuthorityType const& type, std::string const& subject,
                          std::string const& authority, Remote::DiscoveryIterator_ptr remote);

  // Records whose names cannot be used are passed over with a log line.
  Discovery* getNext() override;

  // The text of the failure that ended the fetch; empty when it was complete.
  std::string const& failure() const noexcept { return m_failure; }

  // Whether that is the text of a CORBA exception, and not of a bound or the
  // end of the service.
  bool raised() const noexcept { return m_raised; }

  // What is left of the list takes so much memory, in bytes.
  std::size_t heldBytes() const noexcept { return m_held.bytes(); }

private:
  void fetch(Remote::DiscoveryIterator_ptr remote);
  bool keep(Remote::DiscoverySeq& page); // takes its records over
  std::unique_ptr<Remote::Discovery> takeFirst();

  HeldRecords m_held;      // what m_records takes
  std::size_t m_bytes = 0; // of all that was fetched
  std::deque<std::unique_ptr<Remote::Discovery>> m_records;
  std::string m_failure;
  bool m_raised = false;
};

} // namespace Quillon::Tessarine::Ozf::DiscoverySvc
