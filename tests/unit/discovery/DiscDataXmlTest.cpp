#include "discovery/DiscDataXml.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoAttributes.h"

#include <gtest/gtest.h>

#include <locale>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

constexpr char START_ELEMENT[] = "Discovery::xmlStartElement";
constexpr char END_ELEMENT[] = "Discovery::xmlEndElement";
constexpr char PROLOG[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

class ReadRecord : public Discovery
{
public:
  ReadRecord() : Discovery(nullptr, DQ_UNDEFINED) {}
  DiscoveryStatus persist() override { return DS_SUCCESS; }
  DiscoveryStatus open(OpenMode, char const*) override { return DS_SUCCESS; }
};

using RecordPtr = AutoDereference<ReadRecord>;

RecordPtr newRecord() { return RecordPtr(new ReadRecord); }

RecordPtr read(std::string const& text)
{
  RecordPtr record = newRecord();
  EXPECT_TRUE(record->parseBuffer(std::string_view(text))) << record->lastError();
  return record;
}

RecordPtr readInside(std::string const& inner)
{
  return read("<DiscoveryData>" + inner + "</DiscoveryData>");
}

RecordPtr readAttributes(std::string const& inner)
{
  return readInside("<DiscoveryAttributes Type=\"2\" Storage=\"1\">" + inner +
                    "</DiscoveryAttributes>");
}

std::string written(XmlInterface const& object, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  std::ostringstream os;
  object.writeXml(os, encoding);
  return os.str();
}

CollectionAttributes* someAttributes()
{
  return new CollectionAttributes(CT_POINT_IN_TIME, CS_CENTRALREPOSITORY, OzfObjTime(),
                                  OzfObjTime(), 7);
}

OzfObjTime g_readingTime;

} // namespace

TEST(MetadataWriting, AnEmptyRecordIsPrologAndDocumentElement)
{
  EXPECT_EQ(std::string(PROLOG) + "<DiscoveryData></DiscoveryData>", written(*newRecord()));
}

TEST(MetadataWriting, PartsStandInOrderWithNothingBetween)
{
  RecordPtr const record = newRecord();
  record->setAttributes(someAttributes());
  record->setSubject(new Subject("host B"));
  record->setAuthority(new Authority("hostA", AT_TQUCLIENT));
  record->getAttributes()->setDiscoveryTime(OzfObjTime(1772368205, 999999));
  record->getAttributes()->setExpiresTime(OzfObjTime(1772368206, 250));
  record->getAttributes()->setSignature("a<b");
  EXPECT_EQ(std::string(PROLOG) +
                "<DiscoveryData>"
                "<DiscoveryAuthority Name=\"hostA\" Type=\"2\"></DiscoveryAuthority>"
                "<DiscoverySubject Name=\"host B\"></DiscoverySubject>"
                "<DiscoveryAttributes Type=\"2\" Storage=\"1\"><Priority>7</Priority>"
                "<DiscoveryTime>2026-03-01T12:30:05Z</DiscoveryTime>"
                "<ExpiresTime>2026-03-01T12:30:06.000250Z</ExpiresTime>"
                "<Signature>a&lt;b</Signature></DiscoveryAttributes></DiscoveryData>",
            written(*record));
}

TEST(MetadataWriting, ZeroTimesAndAnEmptySignatureAreLeftOut)
{
  std::unique_ptr<CollectionAttributes> const attributes(someAttributes());
  attributes->setExpiresTime(OzfObjTime());
  EXPECT_EQ("<DiscoveryAttributes Type=\"2\" Storage=\"1\"><Priority>7</Priority>"
            "</DiscoveryAttributes>",
            written(*attributes));
}

TEST(MetadataWriting, RemotePullIsTypeFour)
{
  EXPECT_EQ("<DiscoveryAuthority Name=\"h\" Type=\"4\"></DiscoveryAuthority>",
            written(Authority("h", AT_REMOTEPULL)));
}

TEST(MetadataWriting, TheStatusMessageIsTheContentOfItsPart)
{
  AutoDereference<StatusMsg> const status(new StatusMsg(13, StatusMsg::ERROR, "full"));
  std::string const message = written(*status);
  EXPECT_EQ("<DiscoverySubject Name=\"s\">" + message + "</DiscoverySubject>",
            written(Subject("s", status.get())));
  EXPECT_EQ("<DiscoveryAuthority Name=\"a\" Type=\"3\">" + message + "</DiscoveryAuthority>",
            written(Authority("a", AT_EXTSRC, status.get())));
}

TEST(MetadataWriting, EscapesForTheEncodingAskedFor)
{
  Subject const subject("a&\"\xC3\xA9");
  EXPECT_EQ("<DiscoverySubject Name=\"a&amp;&quot;\xC3\xA9\"></DiscoverySubject>",
            written(subject));
  EXPECT_EQ("<DiscoverySubject Name=\"a&amp;&quot;&#xE9;\"></DiscoverySubject>",
            written(subject, XmlStr::US_ASCII));
  RecordPtr const record = newRecord();
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><DiscoveryData></DiscoveryData>",
            written(*record, XmlStr::ISO_8859_1));
}

TEST(MetadataWriting, TheStreamsLocaleDoesNotGroupDigits)
{
  struct Grouping : std::numpunct<char>
  {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  std::unique_ptr<CollectionAttributes> const attributes(someAttributes());
  attributes->setPriority(1234567);
  std::ostringstream os;
  os.imbue(std::locale(os.getloc(), new Grouping));
  attributes->writeXml(os, XmlStr::UTF_8);
  EXPECT_NE(std::string::npos, os.str().find("<Priority>1234567</Priority>")) << os.str();
}

TEST(MetadataReading, RestoresWhatWasWritten)
{
  AutoDereference<StatusMsg> const status(new StatusMsg(13, StatusMsg::WARNING, "half <full>"));
  RecordPtr const record = newRecord();
  record->setAuthority(new Authority("h&1", AT_EXTSRC, status.get()));
  record->setSubject(new Subject("s \"1\" <&> %41", status.get()));
  record->setAttributes(someAttributes());
  record->getAttributes()->setDiscoveryTime(OzfObjTime(1772368205, 5));
  record->getAttributes()->setExpiresTime(OzfObjTime(1772368206, 250));
  record->getAttributes()->setSignature("x & y");

  RecordPtr const again = read(written(*record));
  EXPECT_EQ("h&1", again->getAuthority()->getName().str());
  EXPECT_EQ(AT_EXTSRC, again->getAuthority()->getType());
  EXPECT_EQ("s \"1\" <&> %41", again->getSubject()->getName().str());
  ASSERT_NE(nullptr, again->getAuthority()->getStatusMsg());
  ASSERT_NE(nullptr, again->getSubject()->getStatusMsg());
  EXPECT_EQ("half <full>", again->getSubject()->getStatusMsg()->text().str());
  EXPECT_EQ(13u, again->getAuthority()->getStatusMsg()->code());
  CollectionAttributes const& attributes = *again->getAttributes();
  EXPECT_EQ(CT_POINT_IN_TIME, attributes.getType());
  EXPECT_EQ(CS_CENTRALREPOSITORY, attributes.getStorage());
  EXPECT_EQ(OzfObjTime(1772368205), attributes.getDiscoveryTime()) << "to the second";
  EXPECT_EQ(OzfObjTime(1772368206, 250), attributes.getExpiresTime());
  EXPECT_EQ(OzfObjTime(), attributes.getValidityInterval());
  EXPECT_EQ("x & y", attributes.getSignature().str());
  EXPECT_EQ(0u, attributes.getPriority());
}

TEST(MetadataReading, WithoutExpiresTimeTheRecordExpiresAtTheMomentOfReading)
{
  RecordPtr const record = newRecord();
  record->setAttributes(someAttributes());
  record->getAttributes()->setExpiresTime(OzfObjTime());
  std::string const text = written(*record);
  EXPECT_FALSE(isExpired(record.get()));

  g_readingTime = OzfObjTime(5000, 7);
  OzfObjTime::setClock([] { return g_readingTime; });
  RecordPtr const again = read(text);
  EXPECT_EQ(g_readingTime, again->getAttributes()->getExpiresTime());
  EXPECT_TRUE(again->getAttributes()->getDiscoveryTime().isZero());
  g_readingTime = OzfObjTime(5000, 8);
  EXPECT_TRUE(isExpired(again.get()));
  OzfObjTime::setClock(nullptr);
}

TEST(MetadataReading, APriorityReadsBackAsZero)
{
  LogCapture log;
  EXPECT_EQ(0u, readAttributes("<Priority>7</Priority>")->getAttributes()->getPriority());
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(MetadataReading, WhiteSpaceAroundAPriorityIsIgnored)
{
  LogCapture log;
  readAttributes("<Priority>\n\t7 </Priority>");
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(MetadataReading, TheHighestPriorityIsOneAndWhatIsBeyondIsNone)
{
  LogCapture log;
  readAttributes("<Priority>4294967295</Priority>");
  EXPECT_TRUE(log.lines().empty()) << log.text();
  readAttributes("<Priority>4294967296</Priority>");
  EXPECT_EQ(1, log.count(1, END_ELEMENT, "Unable to convert priority 4294967296")) << log.text();

  std::string highest = "<DiscoveryData><Priority>4294967295</Priority></DiscoveryData>";
  EXPECT_EQ(4294967295U, storedPriority(highest));
  std::string beyond = "<DiscoveryData><Priority>4294967296</Priority></DiscoveryData>";
  EXPECT_EQ(std::nullopt, storedPriority(beyond));
}

TEST(MetadataReading, APriorityThatIsNoNumberIsLogged)
{
  LogCapture log;
  EXPECT_EQ(0u, readAttributes("<Priority>x</Priority>")->getAttributes()->getPriority());
  EXPECT_EQ(1, log.count(1, END_ELEMENT, "Unable to convert priority x")) << log.text();
  EXPECT_NE(std::string::npos, log.text().find("(DiscData:"));
}

TEST(MetadataReading, TimesThatAreNoneAreLoggedAndLeaveTheValue)
{
  LogCapture log;
  RecordPtr const record =
      readAttributes("<DiscoveryTime>2026-03-01T12:30:05Z</DiscoveryTime>"
                     "<DiscoveryTime>soon</DiscoveryTime>"
                     "<ExpiresTime>2026-03-01T12:30:06.5Z</ExpiresTime>"
                     "<ExpiresTime>2026-13-01T00:00:00Z</ExpiresTime><Signature>s</Signature>");
  EXPECT_EQ(OzfObjTime(1772368205), record->getAttributes()->getDiscoveryTime());
  EXPECT_EQ(OzfObjTime(1772368206, 500000), record->getAttributes()->getExpiresTime());
  EXPECT_EQ("s", record->getAttributes()->getSignature().str()) << "the parse goes on";
  EXPECT_EQ(1, log.count(1, END_ELEMENT, "Unable to convert discovery time soon")) << log.text();
  EXPECT_EQ(1, log.count(1, END_ELEMENT, "Unable to convert expires time 2026-13-01T00:00:00Z"))
      << log.text();
}

TEST(MetadataReading, AnAuthorityWithoutNameIsSkippedWithALine)
{
  LogCapture log;
  RecordPtr const record =
      readInside("<DiscoveryAuthority Type=\"2\"><STATUSMSG Code=\"1\">x</STATUSMSG>"
                 "</DiscoveryAuthority><DiscoverySubject Name=\"s\"></DiscoverySubject>");
  EXPECT_EQ(nullptr, record->getAuthority());
  ASSERT_NE(nullptr, record->getSubject());
  EXPECT_EQ(nullptr, record->getSubject()->getStatusMsg());
  EXPECT_EQ(1, log.count(1, START_ELEMENT, "Authority name not specified")) << log.text();

  EXPECT_EQ(nullptr, readInside("<DiscoveryAuthority Name=\"\" Type=\"2\"/>")->getAuthority());
  EXPECT_EQ(2, log.count(1, START_ELEMENT, "Authority name not specified")) << log.text();
}

TEST(MetadataReading, ASubjectWithoutNameIsSkippedWithALine)
{
  LogCapture log;
  EXPECT_EQ(nullptr, readInside("<DiscoverySubject></DiscoverySubject>")->getSubject());
  EXPECT_EQ(nullptr, readInside("<DiscoverySubject Name=\"\"/>")->getSubject());
  EXPECT_EQ(2, log.count(1, START_ELEMENT, "Subject name not specified")) << log.text();
}

TEST(MetadataReading, LogsNothingAtLevelZero)
{
  LogCapture log(0);
  readInside("<DiscoverySubject/><DiscoveryAuthority/>");
  readAttributes("<Priority>x</Priority>");
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(MetadataReading, NumbersOutsideAnEnumerationReadAsItsFirstValue)
{
  LogCapture log;
  for (std::string const value : {"5", "-1", "x", "", "4294967296", "99999999999999999999"})
  {
    RecordPtr const record =
        readInside("<DiscoveryAuthority Name=\"a\" Type=\"" + value +
                   "\"/><DiscoveryAttributes Type=\"" + value + "\" Storage=\"" + value + "\"/>");
    ASSERT_NE(nullptr, record->getAuthority());
    EXPECT_EQ(AT_ANYANDALL, record->getAuthority()->getType()) << value;
    EXPECT_EQ(CT_CONFIGURATION, record->getAttributes()->getType()) << value;
    EXPECT_EQ(CS_LOCALONLY, record->getAttributes()->getStorage()) << value;
    EXPECT_TRUE(log.has(1, START_ELEMENT, "Unable to convert authority type " + value))
        << log.text();
    EXPECT_TRUE(log.has(1, START_ELEMENT, "Unable to convert collection type " + value))
        << log.text();
    EXPECT_TRUE(log.has(1, START_ELEMENT, "Unable to convert collection storage " + value))
        << log.text();
  }
}

TEST(MetadataReading, ElementsThatAreUnknownAtTheirPlaceAreIgnored)
{
  LogCapture log;
  RecordPtr const record = readInside(
      "<Priority>x</Priority>"
      "<Other><DiscoverySubject Name=\"inner\"/><Priority>x</Priority></Other>"
      "<DiscoverySubject Name=\"s\">text<Other><STATUSMSG Code=\"1\">no</STATUSMSG></Other>"
      "<DiscoverySubject Name=\"nested\"/></DiscoverySubject>"
      "<DiscoveryAttributes Type=\"1\" Storage=\"0\"><DiscoveryAuthority Name=\"a\" Type=\"1\"/>"
      "<Signature>one<Priority>x</Priority>two</Signature></DiscoveryAttributes>"
      "<discoveryauthority Name=\"case\" Type=\"1\"/>");
  ASSERT_NE(nullptr, record->getSubject());
  EXPECT_EQ("s", record->getSubject()->getName().str());
  EXPECT_EQ(nullptr, record->getSubject()->getStatusMsg());
  EXPECT_EQ(nullptr, record->getAuthority());
  EXPECT_EQ("onetwo", record->getAttributes()->getSignature().str());
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(MetadataReading, AnotherDocumentElementYieldsNoParts)
{
  RecordPtr const record = read("<Other><DiscoverySubject Name=\"s\"/></Other>");
  EXPECT_EQ(nullptr, record->getSubject());
}

TEST(MetadataReading, TheLastStatusMessageOfAPartCounts)
{
  RecordPtr const record =
      readInside("<DiscoverySubject Name=\"s\"><STATUSMSG Code=\"1\">a</STATUSMSG>"
                 "<STATUSMSG Code=\"2\">b</STATUSMSG></DiscoverySubject>"
                 "<DiscoveryAuthority Name=\"a\" Type=\"1\"/>");
  ASSERT_NE(nullptr, record->getSubject()->getStatusMsg());
  EXPECT_EQ(2u, record->getSubject()->getStatusMsg()->code());
  EXPECT_EQ("b", record->getSubject()->getStatusMsg()->text().str());
  EXPECT_EQ(nullptr, record->getAuthority()->getStatusMsg());
}

TEST(MetadataReading, ADocumentReadAgainReplacesTheParts)
{
  RecordPtr const record = readInside("<DiscoverySubject Name=\"one\"/>");
  EXPECT_TRUE(
      record->parseBuffer("<DiscoveryData><DiscoverySubject Name=\"two\"/></DiscoveryData>"));
  EXPECT_EQ("two", record->getSubject()->getName().str());
}

TEST(MetadataReading, ATextThatIsNotWellFormedIsRefused)
{
  RecordPtr const record = newRecord();
  EXPECT_FALSE(record->parseBuffer("<DiscoveryData><DiscoverySubject Name=\"s\">"));
  EXPECT_FALSE(record->parseBuffer(""));
}

TEST(MetadataReading, EventsThatCannotBeAreProgrammingErrors)
{
  LogCapture log;
  RecordPtr const record = newRecord();
  EXPECT_THROW(record->xmlEndElement(nullptr, u"x"), AssertionFailure);
  EXPECT_TRUE(log.has(1, END_ELEMENT, "Assertion failed: ctxt")) << log.text();

  std::unique_ptr<XmlObjParseContext> const context(record->getObjParseContext(u"DiscoveryData"));
  EXPECT_THROW(record->xmlEndElement(context.get(), u"DiscoveryData"), AssertionFailure);
  EXPECT_TRUE(log.has(1, END_ELEMENT, "Assertion failed: SHOULD_NOT_GET_HERE")) << log.text();

  XmlObjParseContext plain(u"DiscoverySubject", nullptr);
  Subject subject("s");
  EXPECT_THROW(subject.xmlEndElement(&plain, u"DiscoverySubject"), AssertionFailure);
  EXPECT_TRUE(log.has(1, "Description::xmlEndElement", "Assertion failed: ctxt")) << log.text();

  tqtest::NoAttributes none;
  for (XmlInterface* const reader :
       {static_cast<XmlInterface*>(record.get()), static_cast<XmlInterface*>(&subject)})
    for (XmlObjParseContext* const wrong : {static_cast<XmlObjParseContext*>(nullptr), &plain})
    {
      EXPECT_THROW(reader->xmlStartElement(wrong, u"x", none), AssertionFailure);
      EXPECT_THROW(reader->xmlCharacters(wrong, u"x", 1), AssertionFailure);
    }
  for (std::string const reader : {"Discovery", "Description"})
    for (std::string const event : {"xmlStartElement", "xmlCharacters"})
      EXPECT_EQ(2, log.count(1, reader + "::" + event, "Assertion failed: ctxt"))
          << reader << event << log.text();
}

TEST(MetadataReading, ADescriptionWithoutItsContextOrItsObjectIsAProgrammingError)
{
  LogCapture log;
  RecordPtr const record = newRecord();
  DiscoveryDocContext context(u"DiscoveryData", nullptr);
  context.m_nodes = {MetadataNode::DOCUMENT, MetadataNode::SUBJECT};
  EXPECT_THROW(record->xmlEndElement(&context, u"DiscoverySubject"), AssertionFailure);
  EXPECT_EQ(1, log.count(1, END_ELEMENT, "Assertion failed: ctxt->m_subContext")) << log.text();

  context.m_subContext.emplace(u"DiscoverySubject", &context);
  EXPECT_THROW(record->xmlEndElement(&context, u"DiscoverySubject"), AssertionFailure);
  EXPECT_EQ(1, log.count(1, END_ELEMENT, "Assertion failed: ctxt->m_subInterface")) << log.text();
  EXPECT_THROW(record->xmlCharacters(&context, u"x", 1), AssertionFailure);
  EXPECT_EQ(1, log.count(1, "Discovery::xmlCharacters", "Assertion failed: ctxt->m_subInterface"));
  tqtest::NoAttributes none;
  EXPECT_THROW(record->xmlStartElement(&context, u"StatusMsg", none), AssertionFailure);
  EXPECT_EQ(1,
            log.count(1, "Discovery::xmlStartElement", "Assertion failed: ctxt->m_subInterface"));
}
