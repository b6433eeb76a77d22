#include "discovery/FilterParameters.h"

#include "ozf/log/Assertion.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NoAttributes.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace Quillon::Tessarine::Ozf;
using namespace Quillon::Tessarine::Ozf::DiscoverySvc;

namespace
{

using Words = std::vector<std::string>;

std::string written(FilterParameters const& parameters, XmlStr::Encoding encoding = XmlStr::UTF_8)
{
  std::ostringstream os;
  EXPECT_EQ(&os, &parameters.writeXml(os, encoding));
  return os.str();
}

AutoDereference<JobExecInfo> job(Words arguments)
{
  return AutoDereference<JobExecInfo>(new JobExecInfo(std::move(arguments)));
}

std::string filterDocument(std::string const& content)
{
  return "<FilterParameters>" + content + "</FilterParameters>";
}

bool isEmpty(FilterParameters const& parameters)
{
  return parameters.getQueryString().empty() && parameters.getJobInfo() == nullptr;
}

TEST(FilterParametersTest, WithoutJobNoJobIsWritten)
{
  EXPECT_EQ("<?xml version=\"1.0\" encoding=\"UTF-8\"?><FilterParameters><QueryString>size"
            "</QueryString></FilterParameters>",
            written(FilterParameters(nullptr, "size")));
}

TEST(FilterParametersTest, TheJobIsWrittenAsItsCommandLine)
{
  auto const info = job({"backup", "a b"});
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><FilterParameters><QueryString></QueryString>"
      "<JobExecInfo>backup &quot;a b&quot;</JobExecInfo></FilterParameters>",
      written(FilterParameters(info.get(), "")));
}

TEST(FilterParametersTest, TheEncodingAskedForIsUsed)
{
  std::string const text = written(FilterParameters(nullptr, "\xC3\xA4"), XmlStr::US_ASCII);
  EXPECT_NE(std::string::npos, text.find("encoding=\"US-ASCII\"")) << text;
  EXPECT_NE(std::string::npos, text.find("<QueryString>&#xE4;</QueryString>")) << text;
}

TEST(FilterParametersTest, MarkupInTheQueryIsEscapedAndReadBackUnchanged)
{
  for (char const* query : {"a < 1 and b > \"2\"", "<QueryString>&amp;</QueryString>", "]]>", "'",
                            " \tleading\nand trailing ", "\xC3\xA4\xE2\x82\xAC", ""})
  {
    std::string const text = written(FilterParameters(nullptr, query));
    FilterParameters const read(text.c_str());
    EXPECT_EQ(query, read.getQueryString()) << text;
    EXPECT_EQ(nullptr, read.getJobInfo());
    EXPECT_EQ(text, written(read));
  }
}

TEST(FilterParametersTest, TheJobIsReadBackWithTheSameArguments)
{
  for (Words const& arguments :
       {Words{"backup", "", "a b", "it's", "\"x\"", "C:\\dir\\", "C:\\a b\\", "<&>", "#"},
        Words{"#backup", "a"}})
  {
    auto const info = job(arguments);
    FilterParameters const read(written(FilterParameters(info.get(), "q")).c_str());
    ASSERT_NE(nullptr, read.getJobInfo());
    EXPECT_EQ(arguments, read.getJobInfo()->getArguments());
    EXPECT_EQ(info->getCommandLine(), read.getJobInfo()->getCommandLine());
    EXPECT_EQ("q", read.getQueryString());
  }
}

TEST(FilterParametersTest, AReferenceToTheJobIsKept)
{
  auto const info = job({"a"});
  {
    FilterParameters const parameters(info.get(), "");
    EXPECT_EQ(2, info->referenceCount());
    EXPECT_EQ(info.get(), parameters.getJobInfo());
  }
  EXPECT_EQ(1, info->referenceCount());
}

TEST(FilterParametersTest, NullIsAnEmptyQuery)
{
  EXPECT_EQ("", FilterParameters(nullptr, nullptr).getQueryString());
}

TEST(FilterParametersTest, TheDocumentElementMayHaveAnyName)
{
  EXPECT_EQ("q", FilterParameters("<Other><QueryString>q</QueryString></Other>").getQueryString());
}

TEST(FilterParametersTest, UnknownElementsArePassedOver)
{
  FilterParameters const read(
      filterDocument(
          "<New>n<QueryString>inner</QueryString></New>text<QueryString>a<b>c<QueryString/></b>d"
          "</QueryString><JobExecInfo>x<y/> z</JobExecInfo><New/>")
          .c_str());
  EXPECT_EQ("acd", read.getQueryString());
  ASSERT_NE(nullptr, read.getJobInfo());
  EXPECT_EQ((Words{"x", "z"}), read.getJobInfo()->getArguments());
}

TEST(FilterParametersTest, TheNamesOfTheElementsMattersToTheLetter)
{
  EXPECT_TRUE(isEmpty(FilterParameters(
      filterDocument("<querystring>q</querystring><JOBEXECINFO>j</JOBEXECINFO>").c_str())));
}

TEST(FilterParametersTest, TheLastOfTwoElementsCounts)
{
  FilterParameters const read(
      filterDocument(
          "<QueryString>a</QueryString><JobExecInfo>x</JobExecInfo><QueryString>b</QueryString>"
          "<JobExecInfo>y</JobExecInfo>")
          .c_str());
  EXPECT_EQ("b", read.getQueryString());
  EXPECT_EQ((Words{"y"}), read.getJobInfo()->getArguments());
}

TEST(FilterParametersTest, ACommandLineEndsBeforeAQuoteThatIsNeverClosed)
{
  std::pair<char const*, Words> const lines[] = {
      {"", {}}, {"  ", {}}, {"'", {}}, {"a b \"never closed c", {"a", "b"}}};
  for (auto const& [line, arguments] : lines)
  {
    FilterParameters const read(
        filterDocument("<JobExecInfo>" + std::string(line) + "</JobExecInfo>").c_str());
    ASSERT_NE(nullptr, read.getJobInfo()) << line;
    EXPECT_EQ(arguments, read.getJobInfo()->getArguments()) << line;
  }
}

TEST(FilterParametersTest, VariablesOfTheEnvironmentAreReplacedInTheCommandLine)
{
  setenv("TQ_TEST_VARIABLE", "value", 1);
  FilterParameters const read(
      filterDocument("<JobExecInfo>a $TQ_TEST_VARIABLE $TQ_TEST_MISSING</JobExecInfo>").c_str());
  EXPECT_EQ((Words{"a", "value", "$TQ_TEST_MISSING"}), read.getJobInfo()->getArguments());
}

TEST(FilterParametersTest, AFailedParseGivesEmptyParameters)
{
  std::string const good =
      filterDocument("<QueryString>q</QueryString><JobExecInfo>j</JobExecInfo>");
  ASSERT_FALSE(isEmpty(FilterParameters(good.c_str())));
  LogCapture log;
  for (std::size_t length = 0; length < good.size(); ++length)
  {
    FilterParameters const read(good.substr(0, length).c_str());
    EXPECT_TRUE(isEmpty(read)) << length;
    EXPECT_FALSE(read.lastError().empty()) << length;
  }
  EXPECT_EQ("", log.text());
}

TEST(FilterParametersTest, WhatIsNoDocumentGivesEmptyParameters)
{
  std::string deep = "<a><QueryString>q</QueryString>";
  for (int i = 0; i < 100000; ++i)
    deep += "<a>";
  std::string const hostile[] = {
      "not XML",
      deep,
      "<!DOCTYPE a [<!ENTITY e \"x\">]><a><QueryString>&e;</QueryString></a>",
      filterDocument("<QueryString>q</QueryString>") + "<more/>",
  };
  for (auto const& text : hostile)
    EXPECT_TRUE(isEmpty(FilterParameters(text.c_str()))) << text.substr(0, 60);
  EXPECT_TRUE(isEmpty(FilterParameters(static_cast<char const*>(nullptr))));
}

TEST(FilterParametersTest, AnElementHasAThousandAttributesAtMost)
{
  auto const withAttributes = [](int count)
  {
    std::string element = "<JobExecInfo";
    for (int i = 0; i < count; ++i)
      element += " a" + std::to_string(i) + "=\"\"";
    return filterDocument("<QueryString>q</QueryString>" + element + ">x</JobExecInfo>");
  };
  EXPECT_FALSE(isEmpty(FilterParameters(withAttributes(1000).c_str())));
  EXPECT_TRUE(isEmpty(FilterParameters(withAttributes(1001).c_str())));
}

TEST(FilterParametersTest, LongTextsAreTaken)
{
  std::string const query(1 << 20, 'q');
  std::string line = "$" + std::string(1 << 20, 'A');
  for (int i = 0; i < 100000; ++i)
    line += " $B" + std::to_string(i);
  FilterParameters const read(filterDocument("<QueryString>" + query +
                                             "</QueryString><JobExecInfo a=\"" + query + "\">" +
                                             line + "</JobExecInfo>")
                                  .c_str());
  EXPECT_EQ(query, read.getQueryString().str());
  ASSERT_NE(nullptr, read.getJobInfo()) << read.lastError();
  EXPECT_EQ(100001U, read.getJobInfo()->getArguments().size());
  EXPECT_EQ(line, read.getJobInfo()->getCommandLine().str());
}

TEST(FilterParametersTest, ANameTooLongForTheSubstitutionIsTakenAsItStands)
{
  setenv("TQ_TEST_VARIABLE", "value", 1);
  for (std::size_t const length : {1000U, 1025U, 4095U, 4096U, 4097U, 5000U, 100000U})
    for (std::string const& name : {std::string(length, 'A'), std::string(length, '_'),
                                    "A\"" + std::string(length, 'B') + "\""})
    {
      std::string const line = "x$" + name + " $TQ_TEST_VARIABLE";
      FilterParameters const read(
          filterDocument("<JobExecInfo>" + line + "</JobExecInfo>").c_str());
      ASSERT_NE(nullptr, read.getJobInfo());
      ASSERT_EQ(2U, read.getJobInfo()->getArguments().size());
      EXPECT_EQ(length > 1023 ? "$TQ_TEST_VARIABLE" : "value",
                read.getJobInfo()->getArguments()[1]);
    }
}

TEST(FilterParametersTest, ANameTooLongForTheSubstitutionCannotHideInXml11)
{
  for (char const* const character : {"&#11;", "&#12;", "&#1;", "&#x85;", "&#x2028;"})
  {
    std::string const text = "<?xml version=\"1.1\"?><FilterParameters><QueryString></QueryString>"
                             "<JobExecInfo>\"$A" +
                             std::string(500, 'A') + character + std::string(9000, 'B') +
                             "\"</JobExecInfo></FilterParameters>";
    FilterParameters const read(text.c_str());
    EXPECT_EQ(nullptr, read.getJobInfo());
    EXPECT_NE(std::string::npos, read.lastError().find("only XML 1.0 is read")) << read.lastError();
  }
}

TEST(FilterParametersTest, TheQueryIsHandedOnWithItsResult)
{
  OzfQuery query;
  EXPECT_EQ(0, FilterParameters(nullptr, "a = 1").setQuery(query));
  EXPECT_EQ("a = 1", query.getQuery());
  EXPECT_EQ(OzfQuery::QUERY_SYNTAX, FilterParameters(nullptr, "a =").setQuery(query));
  EXPECT_EQ("a = 1", query.getQuery());
}

TEST(FilterParametersTest, ContextsOfAnotherKindFailTheAssertion)
{
  FilterParameters parameters(nullptr, "");
  auto const name = OzfString("QueryString").toUtf16();
  XmlObjParseContext other(name.c_str(), nullptr);
  LogCapture log;
  tqtest::NoAttributes none;
  EXPECT_THROW(parameters.xmlStartElement(&other, name.c_str(), none), AssertionFailure);
  EXPECT_TRUE(log.has(1, "FilterParameters::xmlStartElement", "Assertion failed: sContext"))
      << log.text();
  EXPECT_THROW(parameters.xmlEndElement(&other, name.c_str()), AssertionFailure);
  EXPECT_TRUE(log.has(1, "FilterParameters::xmlEndElement", "Assertion failed: sContext"))
      << log.text();
}

TEST(FilterParametersTest, AnEndTagWithoutItsStartFailsTheAssertion)
{
  FilterParameters parameters(nullptr, "");
  auto const name = OzfString("QueryString").toUtf16();
  std::unique_ptr<XmlObjParseContext> const context(parameters.getObjParseContext(name.c_str()));
  LogCapture log;
  EXPECT_THROW(parameters.xmlEndElement(context.get(), name.c_str()), AssertionFailure);
  EXPECT_TRUE(
      log.has(1, "FilterParameters::xmlEndElement", "Assertion failed: SHOULD_NOT_GET_HERE"))
      << log.text();
}

} // namespace
