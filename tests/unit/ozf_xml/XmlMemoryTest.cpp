// What an end of memory leaves behind.

#include "RecordingDocument.h"
#include "ozf/xml/HardenedParser.h"
#include "ozf/xml/OzfDOMHandler.h"
#include "tests/support/FailingXmlMemory.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>
#include <xercesc/framework/MemBufInputSource.hpp>

using namespace Quillon::Tessarine::Ozf;

namespace
{

constexpr char OWN_PROLOG[] = R"(<?xml version="1.0" encoding="UTF-8"?>)";
constexpr char BODY[] = "<record a='1'><name>x&amp;y</name><name>z</name></record>";

bool readInStream(RecordingDocument& document)
{
  return document.parseBuffer(std::string(OWN_PROLOG) + BODY);
}

bool readAsText(RecordingDocument& document) { return document.parseBuffer(BODY); }

// The source is the caller's, and not what is tested.
bool readAsSource(RecordingDocument& document)
try
{
  std::string const text = std::string(OWN_PROLOG) + BODY;
  xercesc::MemBufInputSource source(reinterpret_cast<XMLByte const*>(text.data()), text.size(),
                                    u"text");
  source.setCopyBufToStream(false);
  return document.parse(source);
}
catch (xercesc::OutOfMemoryException const&)
{
  throw std::bad_alloc();
}

// Refused requests in one reading by a thread that has not read before.
long failWith(FailingXmlMemory& memory, bool (*read)(RecordingDocument&), long granted)
{
  long failed = 0;
  std::thread(
      [&]
      {
        RecordingDocument expected;
        memory.failAfter(granted);
        bool thrown = false;
        try
        {
          read(expected);
        }
        catch (std::bad_alloc const&)
        {
          thrown = true;
        }
        failed = memory.failed();
        memory.recover();
        EXPECT_EQ(failed > 0, thrown) << "after " << granted;

        for (int again = 0; again < 2; ++again)
        {
          RecordingDocument document;
          EXPECT_TRUE(read(document)) << "after " << granted << ": " << document.lastError();
          EXPECT_EQ("(record a=1)(name)x&y/name:1(name)z/name:1/record:0", document.events);
        }
      })
      .join();
  return failed;
}

void failEverywhere(bool (*read)(RecordingDocument&))
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  long granted = 0;
  failWith(memory, read, granted); // the machinery sets itself up
  long const inUse = memory.inUse();
  while (!testing::Test::HasFailure() && failWith(memory, read, granted) > 0)
  {
    EXPECT_EQ(inUse, memory.inUse()) << "after " << granted;
    ++granted;
  }
  EXPECT_GT(granted, 50); // a parser asks for its own parts, too
}

} // namespace

TEST(XmlMemory, aThreadWhoseMemoryRanOutInAStreamReadsOn) { failEverywhere(&readInStream); }

TEST(XmlMemory, aThreadWhoseMemoryRanOutInATextReadsOn) { failEverywhere(&readAsText); }

TEST(XmlMemory, aThreadWhoseMemoryRanOutInASourceReadsOn) { failEverywhere(&readAsSource); }

// The parser of the thread is there and has met what it reads; only what is
// larger than ever makes it ask for more.
TEST(XmlMemory, aParserInUseThatMeetsTheEndOfMemoryIsGivenUp)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  std::string const large = "<record>" + std::string(200000, 'x') + "</record>";
  for (std::string const& prolog : {std::string(), std::string(OWN_PROLOG)})
  {
    RecordingDocument first;
    ASSERT_TRUE(first.parseBuffer(prolog + BODY));
    memory.failAfter(0);
    RecordingDocument second;
    EXPECT_THROW(second.parseBuffer(prolog + large), std::bad_alloc);
    EXPECT_GT(memory.failed(), 0);
    memory.recover();
    RecordingDocument third;
    EXPECT_TRUE(third.parseBuffer(prolog + BODY)) << third.lastError();
    EXPECT_EQ(first.events, third.events);
  }
}

TEST(XmlMemory, aHandlerWithoutMemorySaysNothingOfTheDocument)
{
  for (std::string const& prolog : {std::string(), std::string(OWN_PROLOG)})
  {
    RecordingDocument document;
    document.onStart = [](std::string const& name)
    {
      if (name == "name")
        throw std::bad_alloc();
    };
    EXPECT_THROW(document.parseBuffer(prolog + BODY), std::bad_alloc);
    document.onStart = nullptr;
    EXPECT_TRUE(document.parseBuffer(prolog + BODY)) << document.lastError();
  }
}

TEST(XmlMemory, namedValuesThatCannotBeReadForWantOfMemoryAreNotMissing)
{
  FailingXmlMemory& memory = FailingXmlMemory::install();
  OzfDOMHandler handler;
  memory.failAfter(0);
  EXPECT_THROW(handler.parse("<Priority>50</Priority>"), std::bad_alloc);
  memory.recover();
  EXPECT_EQ(0, handler.parse("<Priority>50</Priority>"));
  unsigned priority = 0;
  EXPECT_TRUE(handler.getValue("Priority", priority));
  EXPECT_EQ(50U, priority);
}
