// What the operator's command has for scripts, and for other tools.

#include "tests/support/CommandTest.h"
#include "tests/support/Scripts.h"

#include <gmock/gmock.h>

namespace
{

using namespace tqtest;
using nlohmann::json;
using testing::HasSubstr;
using testing::IsEmpty;

class TqdiscoctlScriptsTest : public CommandTest
{
protected:
  // A script beside the service's folder.
  std::string script(std::string const& name, std::string const& commands) const
  {
    return writeShellScript(m_service / name, commands);
  }
};

TEST_F(TqdiscoctlScriptsTest, aScriptIsTriedAndShowsWhatWouldBeStored)
{
  std::string const file = script("disks.sh", "echo size=2048; echo state=good; echo hint >&2");
  writeText(m_service / "disks.conf", "KIND.size = size\n");
  Outcome const outcome = run({"explorer", "test", file});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, HasSubstr("Would be stored about tqtestmaster by disks: 1 item, "));
  EXPECT_THAT(outcome.output, HasSubstr("size   2.0 KiB"));
  EXPECT_EQ(outcome.errors, "hint\n");
  json const trial = runJson({"explorer", "test", file});
  EXPECT_EQ(trial["stored"], true);
  EXPECT_EQ(trial["items"][0]["facts"], json({{"size", 2048}, {"state", "good"}}));
  EXPECT_EQ(trial["attributes"][0]["type"], "size");
  EXPECT_EQ(trial["errors"], "hint");
  EXPECT_EQ(run({"query"}).exitCode, 3); // nothing was
}

TEST_F(TqdiscoctlScriptsTest, whatIsWrongWithAScriptIsTold)
{
  auto const mistakeOf = [this](std::string const& file)
  {
    Outcome const outcome = run({"explorer", "test", file});
    EXPECT_EQ(outcome.exitCode, 1) << outcome.output;
    EXPECT_THAT(outcome.output, IsEmpty());
    return outcome.errors;
  };
  EXPECT_THAT(mistakeOf(m_service / "nowhere"), HasSubstr("there is no file"));
  EXPECT_THAT(mistakeOf(m_service / "etc/tq.conf/script"),
              HasSubstr("cannot be examined: Not a directory"));
  EXPECT_THAT(mistakeOf(script("bad", "echo a=1; echo b; echo why >&2")),
              HasSubstr("why\ntqdiscoctl: line 2: there is no '='"));
  EXPECT_THAT(mistakeOf(script("fails", "exit 7")), HasSubstr("it exited with 7"));
  EXPECT_THAT(mistakeOf(script("volume.sh", "echo a=1")),
              HasSubstr("has the authority volume like the explorer volume"));
  writeText(m_service / "fails.conf", "INTERVAL = 1\nUSER = \n");
  EXPECT_THAT(mistakeOf(m_service / "fails"),
              testing::AllOf(HasSubstr("fails.conf:1: "), HasSubstr("fails.conf:2: ")));
  std::filesystem::permissions(m_service / "bad", std::filesystem::perms(0777));
  EXPECT_THAT(mistakeOf(m_service / "bad"), HasSubstr("may be written to by others"));
  json const trial = runJson({"explorer", "test", m_service / "bad"}, 1);
  EXPECT_EQ(trial["stored"], false);
  EXPECT_EQ(trial["mistakes"].size(), 1U);
}

TEST_F(TqdiscoctlScriptsTest, putTakesWhatAScriptPrints)
{
  writeText(m_service / "items", R"([{"name": "a", "size": 1, "at": {"rack": 7}}, {"name": "b"}])");
  EXPECT_EQ(run({"put", "web1", "disks", m_service / "items", "--items"}).exitCode, 0);
  json const shown = runJson({"show", "web1", "disks"});
  ASSERT_EQ(shown["items"].size(), 2U);
  EXPECT_EQ(shown["items"][0]["name"], "a");
  EXPECT_EQ(shown["items"][0]["facts"], json({{"size", 1}, {"at.rack", 7}}));
  EXPECT_EQ(shown["items"][1]["facts"], json::object());
  writeText(m_service / "items", "{\"a\": 1,\n\"a\": 2}");
  Outcome const refused = run({"put", "web1", "disks", "--items", m_service / "items"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.errors, HasSubstr("no items: line 2, column 7: the fact a is there twice"));
}

// As of a script, what is a number is one for who asks.
TEST_F(TqdiscoctlScriptsTest, theKindsOfWhatIsPutAreKnown)
{
  auto const put = [this](std::string const& items, Words more = {})
  {
    writeText(m_service / "items", items);
    more.insert(more.begin(), {"put", "web1", "rack", m_service / "items", "--items"});
    return runJson(more);
  };
  auto const described = [this]
  {
    json kinds = json::object();
    for (auto const& each : runJson({"filters", "web1", "rack"}))
      kinds[std::string(each["name"])] = each["type"];
    return kinds;
  };
  json const first = put(R"({"row": 7, "locked": true, "note": "7"})");
  EXPECT_EQ(first["typeName"], "server");
  EXPECT_EQ(first["described"].size(), 3U);
  EXPECT_EQ(described(), json({{"row", "number"}, {"locked", "boolean"}, {"note", "text"}}));
  EXPECT_EQ(runJson({"show", "web1", "rack"})["items"][0]["facts"],
            json({{"row", 7}, {"locked", true}, {"note", "7"}}));

  // Another kind is told of anew, and what is not there now is known still.
  put(R"({"row": "seven", "height": 42})");
  EXPECT_EQ(described(),
            json({{"row", "text"}, {"locked", "boolean"}, {"note", "text"}, {"height", "number"}}));

  // What an explorer tells stays.
  store("web1", "rack",
        "<FilterData><QueryDescription><Attribute Name=\"height\" Type=\"size\" Unit=\"bytes\"/>"
        "</QueryDescription></FilterData>",
        {"--filter-data"});
  put(R"({"row": 1, "height": "42"})");
  EXPECT_EQ(described(), json({{"height", "size"}, {"row", "number"}}));

  // Where both would be of one type, the items are what is asked for.
  EXPECT_EQ(put(R"({"row": 1})", {"--type", "external"})["described"], json::array());
  EXPECT_EQ(runJson({"show", "web1", "rack", "--type", "external"})["items"][0]["facts"]["row"],
            "1");
}

TEST_F(TqdiscoctlScriptsTest, itemsAreATableForOtherPrograms)
{
  writeText(m_service / "items", R"([{"name": "a,b", "size": 1, "note": "say \"hi\"\nthere"},
                                     {"name": "c", "other": true}])");
  ASSERT_EQ(run({"put", "web1", "disks", m_service / "items", "--items"}).exitCode, 0);
  ASSERT_EQ(run({"put", "web2", "racks", "size=7"}).exitCode, 0);
  EXPECT_EQ(run({"items", "--csv"}).output, "subject,authority,item,size,note,other\n"
                                            "web1,disks,\"a,b\",1,\"say \"\"hi\"\"\nthere\",\n"
                                            "web1,disks,c,,,true\n"
                                            "web2,racks,web2,7,,\n");
  EXPECT_EQ(run({"items", "--csv", "--columns", "SIZE", "--where", "size > 1"}).output,
            "subject,authority,item,SIZE\nweb2,racks,web2,7\n");
  Outcome const none = run({"items", "--csv", "-a", "nobody"});
  EXPECT_EQ(none.exitCode, 3);
  EXPECT_EQ(none.output, "subject,authority,item\n");
  EXPECT_EQ(run({"items", "--csv", "--json"}).exitCode, 2);
}

TEST_F(TqdiscoctlScriptsTest, itemsAreAnInventory)
{
  writeText(m_service / "items", R"({"OsId": "debian", "Role": "web server"})");
  ASSERT_EQ(run({"put", "web1", "host", m_service / "items", "--items"}).exitCode, 0);
  ASSERT_EQ(run({"put", "web2", "host", "OsId=debian"}).exitCode, 0);
  writeText(m_service / "items", R"([{"name": "sda", "size": 1}, {"name": "sdb", "size": 2}])");
  ASSERT_EQ(run({"put", "web1", "disks", m_service / "items", "--items"}).exitCode, 0);
  Outcome const outcome = run({"items", "--ansible"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
  json const inventory = json::parse(outcome.output);
  EXPECT_EQ(inventory["all"]["hosts"], json({"web1", "web2"}));
  EXPECT_EQ(inventory["osid_debian"]["hosts"], json({"web1", "web2"}));
  EXPECT_EQ(inventory["role_web_server"]["hosts"], json::array({"web1"}));
  EXPECT_EQ(inventory["_meta"]["hostvars"]["web1"]["tessarine"],
            json({{"disks", {{"sda", {{"size", 1}}}, {"sdb", {{"size", 2}}}}},
                  {"host", {{"OsId", "debian"}, {"Role", "web server"}}}}));
  json const grouped = json::parse(run({"items", "--ansible", "--group-by", "size"}).output);
  EXPECT_EQ(grouped["size_2"]["hosts"], json::array({"web1"}));
  EXPECT_FALSE(grouped.contains("osid_debian"));
}

} // namespace
