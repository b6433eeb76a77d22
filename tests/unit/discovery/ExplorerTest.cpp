#include "discovery/Explorer.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

class NamedExplorer : public ExplorerPull
{
public:
  explicit NamedExplorer(std::string name) : m_name(std::move(name)) {}
  char const* getExplorerName() const override { return m_name.c_str(); }
  bool collectionRequested(DiscoveryQuery, Authority const&, Subject const&,
                           AutoDereference<OZFRefCounted>&, char const*, CollectionData*) override
  {
    return false;
  }

private:
  std::string m_name;
};

class SilentData : public ExplorerData
{
};

std::string startTag(std::string const& name, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  AutoDereference<NamedExplorer> const explorer(new NamedExplorer(name));
  std::ostringstream os;
  EXPECT_EQ(&explorer->appendExplorerDataStartTag(os, encoding), &os);
  EXPECT_TRUE(os.good());
  return os.str();
}

} // namespace

TEST(ExplorerTest, StartTagCarriesTheName)
{
  EXPECT_EQ(startTag("RemotePullExplorer"), "<ExplorerData Name=\"RemotePullExplorer\">");
}

TEST(ExplorerTest, StartTagEscapesTheNameForTheEncoding)
{
  EXPECT_EQ(startTag("a\"b<c&d"), "<ExplorerData Name=\"a&quot;b&lt;c&amp;d\">");
  EXPECT_EQ(startTag("\xc3\xa9"), "<ExplorerData Name=\"\xc3\xa9\">");
  EXPECT_NE(startTag("\xc3\xa9", XmlStr::US_ASCII).find("&#"), std::string::npos);
}

TEST(ExplorerTest, StartTagIsClosedEvenWhenTheNameCannotBeWritten)
{
  AutoDereference<NamedExplorer> const explorer(new NamedExplorer("name"));
  std::ostringstream os;
  explorer->appendExplorerDataStartTag(os, static_cast<XmlStr::Encoding>(99));
  EXPECT_TRUE(os.fail());
  EXPECT_EQ(os.str(), "<ExplorerData Name=\"\">");
}

TEST(ExplorerTest, EndTagClosesTheElement)
{
  AutoDereference<NamedExplorer> const explorer(new NamedExplorer("a\"b"));
  std::ostringstream os;
  explorer->appendExplorerDataEndTag(os);
  EXPECT_EQ(os.str(), "</ExplorerData>");
}

TEST(ExplorerTest, StartingAndStoppingDoNothingUnlessOverridden)
{
  AutoDereference<NamedExplorer> const explorer(new NamedExplorer("name"));
  AutoDereference<OZFRefCounted> context;
  Authority const authority("a", AT_TQUCLIENT);
  Subject const subject("s");
  explorer->startExploration(EngineContext(), authority, subject, context, nullptr);
  explorer->stopExploration(authority, subject, context);
  EXPECT_FALSE(context);
  EXPECT_EQ(explorer->referenceCount(), 1);
}

TEST(ExplorerTest, DataIsParsedAndWritesNothingUnlessOverridden)
{
  AutoDereference<SilentData> const data(new SilentData);
  std::ostringstream os;
  EXPECT_TRUE(data->isParsed());
  EXPECT_EQ(&data->writeXml(os, XmlStr::UTF_8), &os);
  EXPECT_EQ(os.str(), "");
}

TEST(ExplorerTest, DefaultParserHasAFixedName)
{
  EXPECT_STREQ(DFLT_EXPLORER_DATA_PARSER, "DefaultExplorerParser");
}
