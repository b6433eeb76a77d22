// The metadata document: what is read and written again is read as the same
// record, in every encoding.

#include "tests/fuzz/Fuzz.h"

#include "discovery/DiscData.h"
#include "discovery/XMLHelper.h"
#include "ozf/xml/OzfDOMHandler.h"

#include <xercesc/framework/MemBufInputSource.hpp>

namespace
{

using namespace fuzz;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

// Records without an expiry expire at the moment they are read.
OzfObjTime now() { return OzfObjTime(1'700'000'000, 250); }

// A record that is in no store.
class Record : public Discovery
{
public:
  Record() : Discovery(nullptr, DQ_UNDEFINED) {}
  DiscoveryStatus persist() override { return DS_LOGIC_ERROR; }
  DiscoveryStatus open(OpenMode, char const*) override { return DS_LOGIC_ERROR; }
};

std::string describe(Description const& part)
{
  StatusMsg const* const status = part.getStatusMsg();
  if (status == nullptr)
    return "no status";
  return "status " + std::to_string(status->code()) + ' ' + std::to_string(status->severity()) +
         " [" + status->text().str() + ']';
}

std::string describe(OzfObjTime const& time)
{
  return std::to_string(time.seconds()) + '.' + std::to_string(time.microseconds());
}

std::string describe(Discovery const& record)
{
  std::string text;
  if (Authority const* const authority = record.getAuthority())
    text += "authority [" + authority->getName().str() + "] [" + authority->getFileKey().str() +
            "] " + std::to_string(authority->getType()) + ' ' + describe(*authority) + '\n';
  if (Subject const* const subject = record.getSubject())
    text += "subject [" + subject->getName().str() + "] [" + subject->getFileKey().str() + "] " +
            describe(*subject) + '\n';
  if (CollectionAttributes const* const attributes = record.getAttributes())
  {
    // Of the discovery time only the seconds are written, and of a time that
    // is not set nothing.
    OzfObjTime const& expires = attributes->getExpiresTime();
    text += "attributes " + std::to_string(attributes->getType()) + ' ' +
            std::to_string(attributes->getStorage()) + ' ' +
            std::to_string(attributes->getDiscoveryTime().seconds()) + ' ' +
            describe(expires.isZero() ? now() : expires) + ' ' +
            describe(attributes->getValidityInterval()) + " [" + attributes->getSignature().str() +
            "] " + std::to_string(attributes->getPriority());
  }
  return text;
}

// A time that is not set is not written, and a discovery time within the first
// second of 1970 is not set any more once its fraction is gone.
bool keepsItsTimes(Discovery const& record)
{
  CollectionAttributes const* const attributes = record.getAttributes();
  return attributes == nullptr || (!attributes->getExpiresTime().isZero() &&
                                   (attributes->getDiscoveryTime().isZero() ||
                                    attributes->getDiscoveryTime().seconds() != 0));
}

void checkRecord(Discovery const& record)
{
  if (Authority const* const authority = record.getAuthority())
  {
    require(!authority->getName().empty(), "an authority has a name");
    require(isPrintable(authority->getName().str()), "an authority's name is printable");
    require(authority->getType() <= AT_REMOTEPULL, "the authority's type is one there is");
  }
  if (Subject const* const subject = record.getSubject())
  {
    require(!subject->getName().empty(), "a subject has a name");
    require(isPrintable(subject->getName().str()), "a subject's name is printable");
  }
  if (CollectionAttributes const* const attributes = record.getAttributes())
  {
    require(attributes->getType() <= CT_POINT_IN_TIME, "the collection's type is one there is");
    require(attributes->getStorage() <= CS_CENTRALREPOSITORY, "the storage is one there is");
    require(attributes->getPriority() == 0, "a priority reads back as 0");
    require(attributes->getValidityInterval().isZero(), "a document has no interval");
  }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
  prepare();
  OzfObjTime::setClock(now);
  initializeXml();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
  std::string const text(textOf(data, size));
  AutoDereference<Record> const record(new Record);
  bool const read = record->parseBuffer(std::string_view(text));
  require(read == record->lastError().empty(), "a document is refused with a reason, or read");
  // What was read before a mistake is a record as good as any.
  checkRecord(*record);

  // A text at hand may be read in shorter ways than a stream.
  AutoDereference<Record> const streamed(new Record);
  xercesc::MemBufInputSource const source(data, size, "text");
  require(read == streamed->parse(source), "text and stream are read alike",
          record->lastError() + '\n' + streamed->lastError());
  requireEqual(record->lastError(), streamed->lastError(), "text and stream fail alike");
  requireEqual(describe(*record), describe(*streamed), "text and stream are the same record");

  OzfDOMHandler values;
  require(read == (values.parse(text) == 0), "the readers agree on what a document is",
          record->lastError() + '\n' + values.lastError());

  std::string const described = describe(*record);
  for (XmlStr::Encoding const encoding : ENCODINGS)
  {
    std::string document = written(*record, encoding);
    AutoDereference<Record> const again(new Record);
    require(again->parseBuffer(std::string_view(document)), "what was written can be read",
            document + '\n' + again->lastError());
    requireEqual(described, describe(*again), "what was written reads as the same record");
    if (keepsItsTimes(*record))
      requireEqual(document, written(*again, encoding), "writing is stable");
    unsigned priority = 1;
    int const expected = record->getAttributes() == nullptr ? -1 : 0;
    require(XMLHelper::parse(document, priority) == expected && (expected != 0 || priority == 0),
            "the priority written is found", document);
  }
  return 0;
}
