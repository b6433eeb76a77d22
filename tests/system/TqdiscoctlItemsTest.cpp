// What tqdiscoctl makes of payloads that are not as the product's own are.

#include "tests/support/CommandTest.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class TqdiscoctlItemsTest : public CommandTest
{
protected:
  // The only item of what is stored with these facts.
  json itemWith(std::string const& facts)
  {
    store("web1", "odd",
          "<DiscoveredItems><DISCOVERED Name=\"one\"><ExplorerData Name=\"x\">" + facts +
              "</ExplorerData></DISCOVERED></DiscoveredItems>");
    Outcome const outcome = run({"show", "web1", "odd", "--json", "--fact-list"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    json const collection = json::parse(outcome.output, nullptr, false);
    EXPECT_EQ(collection["items"].size(), 1U) << outcome.output;
    return collection["items"][0];
  }
};

json fact(std::string const& name, std::string const& value)
{
  return {{"name", name}, {"value", value}};
}

TEST_F(TqdiscoctlItemsTest, elementsWithAttributesAreFacts)
{
  json const item =
      itemWith("<Unit n=\"4\" of=\"a &gt; b\">x &lt; y</Unit><Empty a=\"\"/><Size>1048576</Size>");
  EXPECT_EQ(item["text"], nullptr);
  EXPECT_EQ(item["facts"],
            json({fact("Unit", "x < y"), fact("Empty", ""), fact("Size", "1048576")}));
  Outcome const found = run({"items", "--where", "size > 1 and unit like \"x*\""});
  EXPECT_EQ(found.exitCode, 0) << found.errors;
  EXPECT_THAT(found.output, AllOf(HasSubstr("UNIT"), HasSubstr("1.0 MiB")));
}

// Their values come without escapes: what could be a tag's end is not taken for
// one, and nothing of a value for a fact.
TEST_F(TqdiscoctlItemsTest, attributesThatCannotBeToldFromTextLeaveTheText)
{
  json const quoted = itemWith("<Unit n=\"a&quot;b\" m=\"&quot; &quot;c\">x</Unit>");
  EXPECT_EQ(quoted["facts"], json::array({fact("Unit", "x")}));
  for (char const* const value :
       {"&quot;&gt;", "&quot;&gt;&lt;Size&gt;1&lt;/Size&gt;", "&quot;&gt;y&lt;/Unit&gt;"})
  {
    json const item = itemWith(std::string("<Unit n=\"") + value + "\">x</Unit>");
    EXPECT_EQ(item["facts"], json::array()) << value;
    EXPECT_TRUE(item["text"].is_string()) << value;
  }
}

TEST_F(TqdiscoctlItemsTest, aPayloadWithoutItemsIsNotAMissingOne)
{
  store("web1", "mixed", "<Notes>not <b>items</b></Notes>");
  Outcome const without = run({"items", "-s", "web1", "-a", "mixed"});
  EXPECT_EQ(without.exitCode, 3);
  EXPECT_THAT(without.errors, AllOf(HasSubstr("no items"), Not(HasSubstr("nothing matches"))));
  Outcome const missing = run({"items", "-s", "web1", "-a", "missing"});
  EXPECT_EQ(missing.exitCode, 3);
  EXPECT_THAT(missing.errors, HasSubstr("nothing matches"));
}

TEST_F(TqdiscoctlItemsTest, aFactThatIsInAQueryAndNowhereElseIsNamed)
{
  itemWith("<Size>1048576</Size>");
  for (Words const& command : {Words{"items"}, Words{"show", "web1", "odd"}})
  {
    Words words = command;
    words.insert(words.end(), {"--where", "SIZE > 1 and (sise > 10G or kind = x)"});
    Outcome const unknown = run(words);
    EXPECT_EQ(unknown.exitCode, 3);
    EXPECT_THAT(unknown.errors,
                AllOf(HasSubstr("none has a fact \"sise\""), HasSubstr("none has a fact \"kind\""),
                      Not(HasSubstr("SIZE")), HasSubstr("tqdiscoctl filters")));
    words.back() = "size > 1T";
    EXPECT_THAT(run(words).errors,
                AllOf(HasSubstr("no item answers the query"), Not(HasSubstr("none has a fact"))));
  }
}

TEST_F(TqdiscoctlItemsTest, columnsAreChosenWithBlanksAroundThem)
{
  itemWith("<Size>1048576</Size><Used>1</Used>");
  Outcome const outcome = run({"items", "--columns", "Size, Used "});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_THAT(outcome.output, HasSubstr("ITEM     SIZE  USED\n"));
  EXPECT_EQ(outcome.errors, "");
}

TEST_F(TqdiscoctlItemsTest, textBesideElementsIsPrintedAsItIs)
{
  store("web1", "mixed",
        "<Notes><Note>one</Note><Note> two <b>and</b>\n<i x=\"1\"/> <u><s>three</s></u>"
        "</Note><Note><Note>four</Note></Note></Notes>");
  Outcome const outcome = run({"show", "web1", "mixed", "--xml"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_EQ(outcome.output, "<Notes>\n"
                            "  <Note>one</Note>\n"
                            "  <Note> two <b>and</b>\n<i x=\"1\"/> <u><s>three</s></u></Note>\n"
                            "  <Note>\n"
                            "    <Note>four</Note>\n"
                            "  </Note>\n"
                            "</Notes>\n");
}

// Of many mounted file systems most have no size.
TEST_F(TqdiscoctlItemsTest, sizesHaveRoomBeforeLongAndRareFacts)
{
  std::string items;
  for (char const* const name : {"/proc", "/sys", "/home"})
    items += std::string("<DISCOVERED Name=\"") + name +
             "\"><ExplorerData Name=\"x\"><Type>a type of file system</Type>"
             "<Source>a source of twenty</Source><Options>rw,nosuid,nodev,noexec,relatime"
             "</Options>" +
             (std::string(name) == "/home" ? "<Size>1048576</Size><Used>1024</Used>" : "") +
             "</ExplorerData></DISCOVERED>";
  store("web1", "mounts", "<DiscoveredItems>" + items + "</DiscoveredItems>");
  std::string const seen =
      runProgram("/usr/bin/script",
                 {"-qec", "stty cols 60; '" TQ_BIN_DIR "/tqdiscoctl' items -a mounts", "/dev/null"},
                 {{"TESSARINE_ROOT", m_service.root()}})
          .output;
  EXPECT_THAT(seen, AllOf(HasSubstr("1.0 MiB"), HasSubstr("1.0 KiB"), Not(HasSubstr("OPTIONS"))));
  // What is said beside the table is broken between words.
  EXPECT_THAT(seen, testing::ContainsRegex("more facts? of each item: --details shows all, "
                                           "--columns\r\nA,B chooses"));
}

} // namespace
