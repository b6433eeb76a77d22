#include "discovery/XMLHelper.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

struct ParsedRegistration
{
  OzfString serviceName{"before"};
  OzfString sourceHost{"before"};
  unsigned priority = 99;
  AuthorityType originType = AT_TQUSERVER;
  int result;

  explicit ParsedRegistration(std::string const& text)
  {
    std::stringstream xml(text);
    result = XMLHelper::parse(xml, serviceName, sourceHost, priority, originType);
  }
};

} // namespace

TEST(XMLHelper, ReadsAPullRegistration)
{
  ParsedRegistration const read("<R><ServiceName>svc</ServiceName><SourceHost>h&amp;1</SourceHost>"
                                "<Priority>7</Priority><OriginType>3</OriginType></R>");
  EXPECT_EQ(0, read.result);
  EXPECT_EQ("svc", read.serviceName.str());
  EXPECT_EQ("h&1", read.sourceHost.str());
  EXPECT_EQ(7u, read.priority);
  EXPECT_EQ(AT_EXTSRC, read.originType);
}

TEST(XMLHelper, WithoutSourceHostKeepsTheServiceNameReadBefore)
{
  LogCapture log(1);
  ParsedRegistration const read("<R><ServiceName>svc</ServiceName><Priority>7</Priority>"
                                "<OriginType>3</OriginType></R>");
  EXPECT_EQ(-1, read.result);
  EXPECT_EQ("svc", read.serviceName.str());
  EXPECT_EQ(99u, read.priority) << "nothing after the missing value is read";
  EXPECT_EQ(AT_TQUSERVER, read.originType);
  EXPECT_TRUE(log.lines().empty()) << log.text();
}

TEST(XMLHelper, AnOriginTypeThatIsNoneCountsAsMissing)
{
  ParsedRegistration const read("<R><ServiceName>svc</ServiceName><SourceHost>h</SourceHost>"
                                "<Priority>7</Priority><OriginType>5</OriginType></R>");
  EXPECT_EQ(-1, read.result);
  EXPECT_EQ(7u, read.priority);
  EXPECT_EQ(AT_TQUSERVER, read.originType);
}

TEST(XMLHelper, LogsABufferThatIsNotWellFormed)
{
  LogCapture log;
  ParsedRegistration const read("<R><ServiceName>");
  EXPECT_NE(0, read.result);
  EXPECT_EQ("before", read.serviceName.str());
  EXPECT_TRUE(log.has(1, "XMLHelper::parse", "Failed to parse buffer: <R><ServiceName>"))
      << log.text();

  std::string broken = "nothing";
  unsigned priority = 99;
  EXPECT_NE(0, XMLHelper::parse(broken, priority));
  EXPECT_EQ(99u, priority);
  EXPECT_TRUE(log.has(1, "XMLHelper::parse", "Failed to parse buffer: nothing")) << log.text();
}

TEST(XMLHelper, ReadsThePriorityOfAMetadataDocument)
{
  std::string text = "<DiscoveryData><DiscoveryAttributes Type=\"1\" Storage=\"1\">"
                     "<Priority>4294967295</Priority></DiscoveryAttributes></DiscoveryData>";
  unsigned priority = 0;
  EXPECT_EQ(0, XMLHelper::parse(text, priority));
  EXPECT_EQ(4294967295u, priority);
}

TEST(XMLHelper, APriorityThatIsMissingOrNoNumberMakesMinusOne)
{
  unsigned priority = 99;
  std::string without = "<DiscoveryData></DiscoveryData>";
  EXPECT_EQ(-1, XMLHelper::parse(without, priority));
  std::string wrong = "<DiscoveryData><Priority>x</Priority></DiscoveryData>";
  EXPECT_EQ(-1, XMLHelper::parse(wrong, priority));
  EXPECT_EQ(99u, priority);
}

TEST(XMLHelper, LogsTheFirstFourKilobytesOfABuffer)
{
  for (std::size_t const size : {4096u, 4097u, 1000000u})
  {
    LogCapture log;
    std::string broken(size, 'x');
    unsigned priority = 0;
    EXPECT_NE(0, XMLHelper::parse(broken, priority));
    EXPECT_EQ(1, log.count(1, "XMLHelper::parse",
                           "Failed to parse buffer: " + std::string(4096, 'x') +
                               (size > 4096 ? "..." : "")))
        << size;
  }
}

TEST(XMLHelper, TracesAtLevelSix)
{
  for (int const level : {5, 6})
  {
    LogCapture log(level);
    ParsedRegistration const read("<R/>");
    std::string text = "<R/>";
    unsigned priority = 0;
    XMLHelper::parse(text, priority);
    auto const lines = log.lines();
    ASSERT_EQ(level == 6 ? 4u : 0u, lines.size()) << log.text();
    for (auto const& line : lines)
    {
      EXPECT_EQ(6, line.level);
      EXPECT_EQ("XMLHelper::parse", line.operation);
    }
  }
}

TEST(XMLHelper, EachValueThatIsMissingEndsTheReading)
{
  std::string const service = "<ServiceName>svc</ServiceName>";
  std::string const host = "<SourceHost>h</SourceHost>";
  std::string const priority = "<Priority>7</Priority>";
  std::string const type = "<OriginType>3</OriginType>";
  ParsedRegistration const noService("<R>" + host + priority + type + "</R>");
  EXPECT_EQ(-1, noService.result);
  EXPECT_EQ("before", noService.serviceName.str());
  EXPECT_EQ("before", noService.sourceHost.str());
  EXPECT_EQ(99u, noService.priority);
  EXPECT_EQ(AT_TQUSERVER, noService.originType);

  ParsedRegistration const noPriority("<R>" + service + host + type + "</R>");
  EXPECT_EQ(-1, noPriority.result);
  EXPECT_EQ("h", noPriority.sourceHost.str());
  EXPECT_EQ(99u, noPriority.priority);
  EXPECT_EQ(AT_TQUSERVER, noPriority.originType);

  ParsedRegistration const noType("<R>" + service + host + priority + "</R>");
  EXPECT_EQ(-1, noType.result);
  EXPECT_EQ(7u, noType.priority);
  EXPECT_EQ(AT_TQUSERVER, noType.originType);
}

TEST(XMLHelper, TheOrderOfTheValuesIsFreeInTheDocument)
{
  ParsedRegistration const read("<R><OriginType>3</OriginType><Priority>7</Priority>"
                                "<SourceHost>h</SourceHost><ServiceName>svc</ServiceName></R>");
  EXPECT_EQ(0, read.result);
  EXPECT_EQ("svc", read.serviceName.str());
  EXPECT_EQ("h", read.sourceHost.str());
  EXPECT_EQ(7u, read.priority);
  EXPECT_EQ(AT_EXTSRC, read.originType);

  // What is read first is settled by the values, not by their places.
  ParsedRegistration const noHost("<R><OriginType>3</OriginType><Priority>7</Priority>"
                                  "<ServiceName>svc</ServiceName></R>");
  EXPECT_EQ(-1, noHost.result);
  EXPECT_EQ("svc", noHost.serviceName.str());
  EXPECT_EQ(99u, noHost.priority);
}
