// What hostile documents meet.

#include "RecordingDocument.h"
#include "ozf/xml/HardenedParser.h"
#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <limits>
#include <malloc.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <vector>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string utf16(std::string const& ascii, bool bigEndian, bool mark)
{
  std::string text;
  auto const append = [&](unsigned high, unsigned low)
  {
    text += static_cast<char>(bigEndian ? high : low);
    text += static_cast<char>(bigEndian ? low : high);
  };
  if (mark)
    append(0xFE, 0xFF);
  for (char const c : ascii)
    append(0, static_cast<unsigned char>(c));
  return text;
}

void expectRefused(std::string const& text)
{
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer(text)) << text.substr(0, 200);
  EXPECT_EQ(0U, document.lastError().find("line ")) << document.lastError();
  RecordingDocument next;
  EXPECT_TRUE(next.parseBuffer("<a/>")) << "the thread's parser did not survive";
}

void expectNoDeclaration(std::string const& text)
{
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer(text)) << text;
  EXPECT_NE(std::string::npos,
            document.lastError().find(": document type declarations are refused"))
      << text << ": " << document.lastError();
  EXPECT_EQ("", document.events);
}

// As it is read when it is too large to be given as a text.
bool parseAsSource(RecordingDocument& document, std::string const& text)
{
  initializeXml();
  xercesc::MemBufInputSource source(reinterpret_cast<XMLByte const*>(text.data()), text.size(),
                                    u"text");
  source.setCopyBufToStream(false);
  return document.parse(source);
}

} // namespace

TEST(HardenedParser, EveryDocumentTypeDeclarationIsRefused)
{
  expectNoDeclaration("<!DOCTYPE a><a/>");
  expectNoDeclaration("<?xml version='1.0'?>\n<!-- c --><!DOCTYPE a []><a/>");
  expectNoDeclaration("<!DOCTYPE a [<!ELEMENT a ANY>]><a/>");
  expectNoDeclaration("<!DOCTYPE a [<!ATTLIST a b CDATA 'x'>]><a/>");
  expectNoDeclaration("<!DOCTYPE a SYSTEM 'http://127.0.0.1:9/a.dtd'><a/>");
  expectNoDeclaration("<!DOCTYPE a PUBLIC 'p' 'http://127.0.0.1:9/a.dtd'><a/>");
  expectNoDeclaration("<!DOCTYPE a [<!ENTITY % p SYSTEM 'http://127.0.0.1:9/p'> %p;]><a/>");
  expectNoDeclaration("<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>");
}

TEST(HardenedParser, TheRefusalSaysWhere)
{
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer("<!-- c -->\n\n<!DOCTYPE a><a/>"));
  EXPECT_EQ(0U, document.lastError().find("line 3, column ")) << document.lastError();
}

TEST(HardenedParser, OnlyTheFirstVersionIsRead)
{
  for (std::string const& text : {std::string("<?xml version='1.1'?><a/>"),
                                  std::string("<?xml version=\"1.1\"?><a>&#11;</a>"),
                                  std::string("<?xml version='1.1' encoding='UTF-8'?><a/>"),
                                  utf16("<?xml version='1.1'?><a/>", true, true)})
  {
    RecordingDocument document;
    EXPECT_FALSE(document.parseBuffer(text)) << text;
    EXPECT_NE(std::string::npos, document.lastError().find(": only XML 1.0 is read"))
        << text << ": " << document.lastError();
    EXPECT_EQ(0U, document.lastError().find("line 1, column ")) << document.lastError();
    EXPECT_EQ("", document.events);
    // The parser does not keep the version in mind.
    RecordingDocument next;
    EXPECT_FALSE(next.parseBuffer("<a>&#11;</a>"));
    RecordingDocument last;
    EXPECT_TRUE(last.parseBuffer("<?xml version='1.0'?><a>&#9;</a>")) << last.lastError();
  }
  expectRefused("<?xml version='1.2'?><a/>");
  expectRefused("<?xml version='2.0'?><a/>");
}

TEST(HardenedParser, ADeclarationIsRefusedInEveryEncoding)
{
  expectNoDeclaration(utf16("<!DOCTYPE a><a/>", true, true));
  expectNoDeclaration(utf16("<!DOCTYPE a><a/>", false, true));
  expectNoDeclaration("\xEF\xBB\xBF<!DOCTYPE a><a/>");
}

TEST(HardenedParser, ABrokenDeclarationIsRefusedToo)
{
  for (char const* text : {"<!DOCTYPE", "<!DOCTYPE >", "<!DOCTYPE a", "<!DOCTYPE a [",
                           "<!doctype a>", "<a><!DOCTYPE a></a>", "<a/><!DOCTYPE a>"})
    expectRefused(text);
}

TEST(HardenedParser, AnEntityBombDoesNotGoOff)
{
  std::string text = "<!DOCTYPE a [<!ENTITY e0 'xxxxxxxxxx'>";
  for (int i = 1; i < 30; ++i)
  {
    text += "<!ENTITY e" + std::to_string(i) + " '";
    for (int j = 0; j < 10; ++j)
      text += "&e" + std::to_string(i - 1) + ";";
    text += "'>";
  }
  auto const start = std::chrono::steady_clock::now();
  expectNoDeclaration(text + "]><a b='&e29;'>&e29;</a>");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(HardenedParser, NoFileIsOpenedForAnEntity)
{
  TempDir directory;
  std::string const secret = directory / "secret";
  writeText(secret, "<!ENTITY y 'z'>");
  int const watch = inotify_init1(IN_NONBLOCK);
  ASSERT_GE(watch, 0);
  ASSERT_GE(inotify_add_watch(watch, secret.c_str(), IN_OPEN | IN_ACCESS), 0);

  expectNoDeclaration("<!DOCTYPE a [<!ENTITY x SYSTEM 'file://" + secret + "'>]><a>&x;</a>");
  expectNoDeclaration("<!DOCTYPE a [<!ENTITY x SYSTEM '" + secret + "'>]><a>&x;</a>");
  expectNoDeclaration("<!DOCTYPE a [<!ENTITY % p SYSTEM '" + secret + "'>%p;]><a>&y;</a>");
  expectNoDeclaration("<!DOCTYPE a SYSTEM '" + secret + "'><a>&y;</a>");
  RecordingDocument document;
  EXPECT_TRUE(document.parseBuffer(
      "<a xmlns:xsi='http://www.w3.org/2001/XMLSchema-instance' xsi:schemaLocation='u " + secret +
      "' xsi:noNamespaceSchemaLocation='" + secret + "'/>"));

  char events[4096];
  EXPECT_EQ(-1, read(watch, events, sizeof events)) << "the file was touched";
  EXPECT_EQ("<!ENTITY y 'z'>", readText(secret));
  EXPECT_GT(read(watch, events, sizeof events), 0) << "the watch does not watch";
  close(watch);
}

TEST(HardenedParser, UnknownEntitiesAreErrors)
{
  expectRefused("<a>&nbsp;</a>");
  expectRefused("<a b='&x;'/>");
  expectRefused("<a>%x;&</a>");
}

TEST(HardenedParser, ReferencesToForbiddenCharactersAreErrors)
{
  expectRefused("<a>&#0;</a>");
  expectRefused("<a>&#x1;</a>");
  expectRefused("<a>&#xD800;</a>");
  expectRefused("<a>&#xFFFF;</a>");
  expectRefused("<a>&#x110000;</a>");
  expectRefused("<a>&#99999999999999999999;</a>");
}

TEST(HardenedParser, EndlessNestingStopsAtTheLimit)
{
  std::string text;
  for (int i = 0; i < 100000; ++i)
    text += "<a>";
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer(text));
  EXPECT_NE(std::string::npos, document.lastError().find("elements nest more than 256 deep"));
  EXPECT_EQ(256U * 3, document.events.size());
  expectRefused(text);
}

TEST(HardenedParser, LargeValuesComeWhole)
{
  std::string const large(4 << 20, 'v');
  RecordingDocument document;
  ASSERT_TRUE(document.parseBuffer("<a b='" + large + "'>" + large + "</a>"));
  EXPECT_EQ("(a b=" + large + ")" + large + "/a:0", document.events);
}

TEST(HardenedParser, ManyAttributesTakeNoQuadraticTime)
{
  std::string text = "<a";
  std::string expected = "(a";
  for (int i = 0; i < 20000; ++i)
  {
    text += " a" + std::to_string(i) + "=''";
    expected += " a" + std::to_string(i) + "=";
  }
  auto const start = std::chrono::steady_clock::now();
  RecordingDocument document;
  EXPECT_TRUE(document.parseBuffer(text + "/>")) << document.lastError();
  EXPECT_EQ(expected + ")/a:0", document.events);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(HardenedParser, ALargeDocumentLeavesNoMemoryBehind)
{
  std::string text = "<r>";
  for (int i = 0; i < 50000; ++i)
    text += "<e" + std::to_string(i) + " a" + std::to_string(i) + "=''/>";
  text += "</r>";
  class Silent : public XmlDocumentInterface
  {
  };
  Silent document;
  ASSERT_TRUE(document.parseBuffer("<a/>"));
  std::size_t const before = mallinfo2().uordblks;
  ASSERT_TRUE(document.parseBuffer(text));
  EXPECT_FALSE(document.parseBuffer(text + "<"));
  EXPECT_LT(mallinfo2().uordblks, before + (2 << 20));
}

TEST(HardenedParser, AnAttributeGivenTwiceIsAnError) { expectRefused("<a b='1' b='2'/>"); }

TEST(HardenedParser, EveryCutOffTextIsRefused)
{
  std::string const text = "<?xml version='1.0' encoding='UTF-8'?><a b='1'>x&amp;y<!-- c --><?p i?>"
                           "<![CDATA[z]]><c/>\xC3\xA4</a>";
  RecordingDocument whole;
  ASSERT_TRUE(whole.parseBuffer(text)) << whole.lastError();
  for (std::size_t length = 0; length < text.size(); ++length)
  {
    RecordingDocument document;
    EXPECT_FALSE(document.parseBuffer(std::string_view(text).substr(0, length))) << length;
    EXPECT_NE("", document.lastError());
  }
}

TEST(HardenedParser, TextAfterTheDocumentIsRefused)
{
  expectRefused("<a/>x");
  expectRefused("<a/><b/>");
  expectRefused("<a/>&amp;");
  expectRefused("<a/><?xml version='1.0'?>");
}

TEST(HardenedParser, NulIsRefusedBehindTheXmlDeclaration)
{
  std::string const prolog = "<?xml version='1.0'?>";
  std::string const text = prolog + "<a b='1'>x<!--c--><c/></a>\n";
  RecordingDocument whole;
  ASSERT_TRUE(whole.parseBuffer(text));
  for (std::size_t at = prolog.size(); at <= text.size(); ++at)
  {
    std::string broken = text;
    broken.insert(at, 1, '\0');
    RecordingDocument document;
    EXPECT_FALSE(document.parseBuffer(std::string_view(broken))) << at;
    EXPECT_NE("", document.lastError()) << at;
  }
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer(std::string_view("<a/>\0<b/>", 9)));
  EXPECT_FALSE(document.parseBuffer(utf16("<a/>", false, true) + std::string(2, '\0')));
}

TEST(HardenedParser, ControlCharactersAreRefused)
{
  expectRefused("<a>\x01</a>");
  expectRefused("<a b='\x1F'/>");
  expectRefused("<a>\xEF\xBF\xBE</a>");
}

TEST(HardenedParser, BytesThatAreNotUtf8AreRefused)
{
  for (char const* bytes : {"\xFF", "\xC0\xAF", "\xE2\x82", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                            "\x80", "\xF8\x88\x80\x80\x80"})
  {
    RecordingDocument document;
    EXPECT_FALSE(document.parseBuffer("<a>" + std::string(bytes) + "</a>"));
    EXPECT_NE("", document.lastError());
    EXPECT_FALSE(document.parseBuffer("<a b='" + std::string(bytes) + "'/>"));
  }
  expectRefused("<a/>\xFF     ");
  expectRefused("<a/>\x80");
  RecordingDocument next;
  EXPECT_TRUE(next.parseBuffer("<a/>"));
}

TEST(HardenedParser, OtherEncodingsAreRead)
{
  for (bool const bigEndian : {false, true})
  {
    RecordingDocument document;
    EXPECT_TRUE(document.parseBuffer(
        utf16("<?xml version='1.0' encoding='UTF-16'?><a b='1'>x</a>", bigEndian, true)))
        << document.lastError();
    EXPECT_EQ("(a b=1)x/a:0", document.events);
  }
  RecordingDocument latin;
  EXPECT_TRUE(latin.parseBuffer("<?xml version='1.0' encoding='ISO-8859-1'?><a>\xE4</a>"));
  EXPECT_EQ("(a)\xC3\xA4/a:0", latin.events);
  // The text itself tells that it has no wide characters.
  RecordingDocument narrow;
  EXPECT_TRUE(narrow.parseBuffer("<?xml version='1.0' encoding='UTF-16'?><a>\xC3\xA4</a>"));
  EXPECT_EQ("(a)\xC3\xA4/a:0", narrow.events);
  RecordingDocument marked;
  EXPECT_TRUE(marked.parseBuffer("\xEF\xBB\xBF<a>\xC3\xA4</a>"));
  EXPECT_EQ("(a)\xC3\xA4/a:0", marked.events);
}

TEST(HardenedParser, WrongEncodingNamesAreErrors)
{
  for (char const* name : {"no-such-encoding", "", "../../etc/passwd"})
  {
    RecordingDocument document;
    EXPECT_FALSE(
        document.parseBuffer("<?xml version='1.0' encoding='" + std::string(name) + "'?><a>x</a>"))
        << name;
    EXPECT_NE("", document.lastError()) << name;
  }
  RecordingDocument document;
  EXPECT_FALSE(
      document.parseBuffer(utf16("<?xml version='1.0' encoding='UTF-8'?><a/>", true, true)));
  RecordingDocument next;
  EXPECT_TRUE(next.parseBuffer("<a/>"));
}

// The product's own prolog has ways of its own through the parser, one for
// small texts and one for sources. A prolog with single quotes says the same in
// as many characters and has not, so both must have the same events and
// complain of the same places.
TEST(HardenedParser, TheOwnPrologChangesNothing)
{
  std::string const own = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  std::string const other = "<?xml version='1.0' encoding='UTF-8'?>";
  std::string const good = "<a b='1'>x&amp;y<!-- c --><?p i?><![CDATA[z]]>&#x41;&#228;\r\n<c/></a>";
  std::vector<std::string> rests = {good, "", " ", "\n", "<", "<a", "text"};
  rests.push_back("\n" + good);
  rests.push_back(good + "\n<!-- c -->");
  rests.push_back("<a>\xC3\xA4</a>");
  rests.push_back("<a b='\xFF'/>");
  rests.push_back("<\xC3\xA4/>");
  rests.push_back("<a/>\xFF");
  rests.push_back("\xEF\xBB\xBF<a/>");
  rests.push_back(utf16("<a/>", false, false));
  rests.push_back(utf16("<a/>", true, true));
  rests.push_back(own + "<a/>");
  rests.push_back(other + "<a/>");
  rests.push_back(" " + own + "<a/>");
  rests.push_back("<?p i?><a/>");
  rests.push_back("<!-- c --><a/>");
  rests.push_back("<!DOCTYPE a><a/>");
  rests.push_back("\n\n<!DOCTYPE a><a/>");
  rests.push_back("<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>");
  rests.push_back("<a>&x;</a>");
  rests.push_back("<a b='1' b='2'/>");
  rests.push_back("<a></b>");
  rests.push_back("<a>\n  <b></a>");
  rests.push_back("<a/><b/>");
  rests.push_back("<a>\x01\x7F</a>");
  rests.push_back("<a>&#0;</a>");
  std::string nested;
  for (int i = 0; i <= XmlDocumentInterface::MAX_DEPTH; ++i)
    nested += "<a>";
  rests.push_back(nested);
  rests.push_back("<a b='" + std::string(100000, 'v') + "'></b>");
  // The parser takes 16,384 characters at a time.
  std::string const start = "<a>\n<b/>" + std::string(20000, 'x') + "<c/>";
  std::string const end = std::string(40000, 'y') + "</a>";
  rests.push_back(start + end);
  for (std::size_t const size : {0, 10, 100, 12640, 12641, 12642, 12643, 12644, 12645, 20000})
    for (char const* bytes :
         {"\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", "\xFF", "\xE2\x82", "\xF4\x90\x80\x80"})
      rests.push_back(start + std::string(size, 'z') + bytes + end);
  for (std::size_t length = 0; length < good.size(); ++length)
  {
    rests.push_back(good.substr(0, length));
    rests.push_back(good.substr(0, length) + '\0' + good.substr(length));
  }

  for (std::string const& rest : rests)
  {
    RecordingDocument expected;
    bool const accepted = expected.parseBuffer(std::string_view(other + rest));
    RecordingDocument document;
    EXPECT_EQ(accepted, document.parseBuffer(std::string_view(own + rest))) << rest;
    EXPECT_EQ(expected.events, document.events) << rest;
    EXPECT_EQ(expected.lastError(), document.lastError()) << rest;
    EXPECT_EQ(accepted, document.lastError().empty()) << rest;

    RecordingDocument expectedOfSource;
    EXPECT_EQ(accepted, parseAsSource(expectedOfSource, other + rest)) << rest;
    RecordingDocument fromSource;
    EXPECT_EQ(accepted, parseAsSource(fromSource, own + rest)) << rest;
    EXPECT_EQ(expectedOfSource.events, fromSource.events) << rest;
    EXPECT_EQ(expectedOfSource.lastError(), fromSource.lastError()) << rest;
  }
}

TEST(HardenedParser, ErrorsBehindTheOwnPrologCountItsCharacters)
{
  std::string const own = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  RecordingDocument document;
  EXPECT_FALSE(document.parseBuffer(own + "<a></b>"));
  EXPECT_EQ(0U, document.lastError().find("line 1, column 44: ")) << document.lastError();
  EXPECT_FALSE(document.parseBuffer(own + "<a>\n</b>"));
  EXPECT_EQ(0U, document.lastError().find("line 2, column 3: ")) << document.lastError();
  // The parser is the same one.
  EXPECT_FALSE(document.parseBuffer("<a></b>"));
  EXPECT_EQ(0U, document.lastError().find("line 1, column 6: ")) << document.lastError();
}

TEST(ParserMemory, whatIsGivenBackServesTheNextRequestOfItsSize)
{
  ParserMemory memory;
  void* const small = memory.allocate(40);
  void* const large = memory.allocate(100000);
  std::memset(small, 1, 40);
  std::memset(large, 1, 100000);
  std::size_t const held = memory.held();
  EXPECT_GE(held, 100040U);
  memory.deallocate(small);
  memory.deallocate(large);
  EXPECT_EQ(held, memory.held());
  EXPECT_EQ(small, memory.allocate(33)); // rounded up like 40
  EXPECT_EQ(large, memory.allocate(100000));
  EXPECT_EQ(held, memory.held());
  void* const other = memory.allocate(40);
  EXPECT_NE(small, other); // which is in use
  EXPECT_GT(memory.held(), held);
  memory.deallocate(other);
  memory.deallocate(nullptr);
  memory.deallocate(small);
  memory.deallocate(large);
}

TEST(ParserMemory, ofLargePiecesOnlyTheLastIsKept)
{
  ParserMemory memory;
  void* const first = memory.allocate(50000);
  void* const second = memory.allocate(60000);
  std::size_t const both = memory.held();
  memory.deallocate(first);
  memory.deallocate(second);
  EXPECT_LE(memory.held(), both - 50000);
}

TEST(ParserMemory, aSizeThatCannotBeIsRefused)
{
  ParserMemory memory;
  EXPECT_THROW(memory.allocate(std::numeric_limits<XMLSize_t>::max() - 8),
               xercesc::OutOfMemoryException);
}
