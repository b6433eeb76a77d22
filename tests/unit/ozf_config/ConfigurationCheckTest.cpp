#include "ozf/config/Configuration.h"

#include "tests/support/TempDir.h"

#include <gmock/gmock.h>

using namespace Quillon::Tessarine::Ozf;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace
{

class ConfigurationCheckTest : public testing::Test
{
protected:
  std::vector<std::string> check(std::string const& text)
  {
    std::string const path = m_directory / "tq.conf";
    writeText(path, text);
    std::vector<std::string> texts;
    for (auto const& problem : Configuration::read(path).check())
    {
      EXPECT_EQ(problem.file, path);
      texts.push_back(problem.text().substr(path.size()));
    }
    return texts;
  }

  TempDir m_directory;
};

TEST_F(ConfigurationCheckTest, AcceptsEveryKeyOfTheProduct)
{
  EXPECT_THAT(check("SERVER = master.example.com\n"
                    "CLIENT_NAME = client1\n"
                    "REPORT_CLIENT_DISCOVERIES = no\n"
                    "LOG_LEVEL = 6\n"
                    "LOG_FILE = /var/log/tq.log\n"
                    "ORB_PORT.DiscoveryService = 65535\n"
                    "ORB_PORT.Other = 1\n"
                    "ORB_BIND = 127.0.0.2\n"
                    "ORB_BIND = ::1\n"
                    "ORB_BIND = fe80::1\n"
                    "HOST_ADDRESS.master.example.com = 127.0.0.1\n"
                    "HOST_ADDRESS.client1 = 127.0.0.2\n"
                    "COLLECTION_PAGE_SIZE = 2147483647\n"
                    "COLLECTION_WRITE_SIZE = 1048576\n"
                    "DISCOVERY_PAGE_SIZE = 2147483647\n"
                    "METADATA_CACHE = 0\n"
                    "LOG_EXCEPT = Successfully renamed *\n"
                    "LOG_EXCEPT = Unable to delete *.dat (*\n"
                    "EXPLORER.host = off\n"
                    "EXPLORER_INTERVAL.filesystem = 15m\n"
                    "EXPLORER_EXPIRY.filesystem = 1d\n"
                    "READ_LIMIT_SECONDS = 60\n"
                    "EXPLORER_BUDGET_SECONDS = 86400\n"
                    "LIMIT_CONNECTIONS = 0\n"
                    "LIMIT_PEER_CONNECTIONS = 1000000\n"
                    "LIMIT_PEER_CALLS = 500\n"
                    "LIMIT_PEER_REQUESTS = 0\n"
                    "LIMIT_REQUEST_WAIT = 20000\n"
                    "LIMIT_ITERATORS = 0\n"
                    "LIMIT_PEER_ITERATORS = 0\n"
                    "LIMIT_WRITERS = 0\n"
                    "LIMIT_PEER_WRITERS = 0\n"
                    "LIMIT_REGISTRATIONS = 50000\n"
                    "LIMIT_PEER_REGISTRATIONS = 0\n"
                    "LIMIT_PEER_DAY_BYTES = 1099511627776\n"
                    "LIMIT_PAYLOAD = 0\n"
                    "LIMIT_ANSWERS = 1048576\n"),
              IsEmpty());
  EXPECT_THAT(check("LOG_FILE = stderr\n"), IsEmpty());
  EXPECT_THAT(check("LOG_FILE = syslog\n"), IsEmpty());
}

TEST_F(ConfigurationCheckTest, AnUnknownKeyIsNamedWithThoseThatAreKnown)
{
  EXPECT_THAT(check("SERVER = a\nSERVR = b\nserver = c\n"),
              ElementsAre(AllOf(HasSubstr(":2: unknown key \"SERVR\""), HasSubstr("SERVER, "),
                                HasSubstr("ORB_PORT.<service>"), HasSubstr("HOST_ADDRESS.<host>")),
                          HasSubstr(":3: unknown key \"server\"")));
}

TEST_F(ConfigurationCheckTest, AnUnknownKeyIsNamedWithItsOwnFamilyAlone)
{
  EXPECT_THAT(check("SERVER = a\nLIMIT_ITERATOR = 5\nSERVR = b\n"),
              ElementsAre(AllOf(HasSubstr(", LIMIT_ITERATORS, "), HasSubstr(", WEB_..."),
                                Not(HasSubstr("WEB_LISTEN"))),
                          AllOf(HasSubstr(", LIMIT_..., WEB_..."), Not(HasSubstr("LIMIT_I")))));
}

TEST_F(ConfigurationCheckTest, SaysWhichExplorersAndSpansThereAre)
{
  EXPECT_THAT(check("EXPLORER.flesystem = off\n"
                    "EXPLORER.host = perhaps\n"
                    "EXPLORER_INTERVAL.host = 0\n"
                    "EXPLORER_INTERVAL.service = 1y\n"
                    "EXPLORER_EXPIRY. = 1h\n"
                    "LOG_EXCEPT = * *\n"),
              ElementsAre(HasSubstr(":1: there is no explorer of the name in "
                                    "\"EXPLORER.flesystem\"; accepted: filesystem, host"),
                          HasSubstr(":2: \"EXPLORER.host\" is \"perhaps\""),
                          HasSubstr(":3: \"EXPLORER_INTERVAL.host\" is \"0\"; accepted: spans"),
                          HasSubstr(":4: \"EXPLORER_INTERVAL.service\" is \"1y\""),
                          HasSubstr(":5: EXPLORER_EXPIRY. lacks the name"),
                          HasSubstr(":6: \"LOG_EXCEPT\" is \"* *\"; accepted: patterns")));
}

TEST_F(ConfigurationCheckTest, SaysOfEachWrongValueWhatIsAccepted)
{
  EXPECT_THAT(
      check("REPORT_CLIENT_DISCOVERIES = maybe\n"
            "LOG_LEVEL = 7\n"
            "LOG_FILE = tq.log\n"
            "ORB_PORT.DiscoveryService = 0\n"
            "ORB_PORT.Other = 65536\n"
            "ORB_BIND = localhost\n"
            "ORB_BIND = 127.0.0.1, 127.0.0.2\n"
            "HOST_ADDRESS.a = 127.1\n"
            "COLLECTION_PAGE_SIZE = 2147483648\n"
            "SERVER =\n"
            "CLIENT_NAME = a b\n"
            "ORB_BIND = fe80::1%lo\n"
            "COLLECTION_WRITE_SIZE = 1048577\n"
            "DISCOVERY_PAGE_SIZE = 0\n"
            "METADATA_CACHE = -1\n"),
      ElementsAre(HasSubstr(":1: \"REPORT_CLIENT_DISCOVERIES\" is \"maybe\"; accepted: true, yes"),
                  HasSubstr(":2: \"LOG_LEVEL\" is \"7\"; accepted: whole numbers from 0 to 6"),
                  HasSubstr(":3: \"LOG_FILE\" is \"tq.log\"; accepted: an absolute path"),
                  HasSubstr(":4: \"ORB_PORT.DiscoveryService\" is \"0\"; accepted: whole numbers"),
                  HasSubstr(":5: \"ORB_PORT.Other\" is \"65536\""),
                  HasSubstr(":6: \"ORB_BIND\" is \"localhost\"; accepted: one IPv4 or IPv6"),
                  HasSubstr(":7: \"ORB_BIND\" is \"127.0.0.1, 127.0.0.2\""),
                  HasSubstr(":8: \"HOST_ADDRESS.a\" is \"127.1\"; accepted: an IPv4 or IPv6"),
                  HasSubstr(":9: \"COLLECTION_PAGE_SIZE\" is \"2147483648\""),
                  HasSubstr(":10: \"SERVER\" is \"\"; accepted: a host name"),
                  HasSubstr(":11: \"CLIENT_NAME\" is \"a b\"; accepted: a host name"),
                  HasSubstr(":12: \"ORB_BIND\" is \"fe80::1%lo\""),
                  HasSubstr(":13: \"COLLECTION_WRITE_SIZE\" is \"1048577\"; accepted: whole "
                            "numbers from 1 to 1048576"),
                  HasSubstr(":14: \"DISCOVERY_PAGE_SIZE\" is \"0\"; accepted: whole numbers from "
                            "1 to 2147483647"),
                  HasSubstr(":15: \"METADATA_CACHE\" is \"-1\"; accepted: whole numbers from 0 "
                            "to 1099511627776")));
}

TEST_F(ConfigurationCheckTest, LimitsHaveBounds)
{
  EXPECT_THAT(
      check("LIMIT_PEER_CALLS = 0\nLIMIT_REGISTRATIONS = 50001\nLIMIT_REQUEST_WAIT = 20001\n"
            "LIMIT_ANSWERS = 1000\nLIMIT_PEER_WRITERS = few\n"),
      ElementsAre(HasSubstr(":1: \"LIMIT_PEER_CALLS\" is \"0\"; accepted: whole numbers from 1 to "
                            "500"),
                  HasSubstr(":2: \"LIMIT_REGISTRATIONS\" is \"50001\"; accepted: whole numbers "
                            "from 1 to 50000"),
                  HasSubstr(":3: \"LIMIT_REQUEST_WAIT\" is \"20001\""),
                  HasSubstr(":4: \"LIMIT_ANSWERS\" is \"1000\""),
                  HasSubstr(":5: \"LIMIT_PEER_WRITERS\" is \"few\"")));
}

TEST_F(ConfigurationCheckTest, ASingleValueGivenAgainIsAMistakeAndAListIsNone)
{
  EXPECT_THAT(check("SERVER = a\nORB_BIND = 127.0.0.1\nSERVER = b\nORB_BIND = 127.0.0.2\n"
                    "SERVER = c\n"),
              ElementsAre(HasSubstr(":3: \"SERVER\" is given again, first in line 1"),
                          HasSubstr(":5: \"SERVER\" is given again, first in line 1")));
}

TEST_F(ConfigurationCheckTest, HostsThatDifferInCaseOnlyAreOne)
{
  EXPECT_THAT(check("HOST_ADDRESS.a = 127.0.0.1\nHOST_ADDRESS.A = 127.0.0.2\n"
                    "HOST_ADDRESS.b = 127.0.0.3\nHOST_PORT.a = 1\nHOST_PORT.A = 2\n"),
              ElementsAre(HasSubstr(":2: \"HOST_ADDRESS.A\" is given again, first in line 1"),
                          HasSubstr(":5: \"HOST_PORT.A\" is given again, first in line 4")));
}

TEST_F(ConfigurationCheckTest, AHostMayHaveSeveralAddressesAndNothingElse)
{
  EXPECT_THAT(check("HOST_ADDRESS.a = 192.0.2.1, 2001:db8::1 fe80::1%lo\n"
                    "HOST_ADDRESS.b = 192.0.2.2, web2\n"
                    "HOST_ADDRESS.c = ,\n"),
              ElementsAre(HasSubstr(":2: \"HOST_ADDRESS.b\" is \"192.0.2.2, web2\"; accepted: an "
                                    "IPv4 or IPv6 address, or several with commas between them"),
                          HasSubstr(":3: \"HOST_ADDRESS.c\" is \",\"")));
}

TEST_F(ConfigurationCheckTest, AKeyOfTwoPartsNeedsBoth)
{
  EXPECT_THAT(check("ORB_PORT. = 5\nHOST_ADDRESS. = 127.0.0.1\nORB_PORT = 5\n"),
              ElementsAre(HasSubstr(":1: ORB_PORT. lacks the name"),
                          HasSubstr(":2: HOST_ADDRESS. lacks the name"),
                          HasSubstr(":3: unknown key \"ORB_PORT\"")));
}

TEST_F(ConfigurationCheckTest, MistakesOfSyntaxAndMeaningStandInLineOrder)
{
  EXPECT_THAT(check("LOG_LEVEL = x\nnonsense\nLOG_LEVEL = 1\n"),
              ElementsAre(HasSubstr(":1:"), HasSubstr(":2: no '='"), HasSubstr(":3:")));
}

TEST_F(ConfigurationCheckTest, AnEndlessValueIsShownInPartAndNotCutInsideACharacter)
{
  std::string umlauts;
  for (int i = 0; i < 100'000; ++i)
    umlauts += "\xc3\xa4";
  auto const texts = check("LOG_LEVEL = a" + umlauts + "\n");
  ASSERT_THAT(texts, SizeIs(1));
  EXPECT_LT(texts[0].size(), 250u);
  EXPECT_THAT(texts[0], HasSubstr("\xc3\xa4...\""));
}

TEST_F(ConfigurationCheckTest, AHostNameHasAtMost255Bytes)
{
  EXPECT_THAT(check("SERVER = " + std::string(255, 'a') + "\n"), IsEmpty());
  EXPECT_THAT(check("SERVER = " + std::string(256, 'a') + "\n"), SizeIs(1));
}

} // namespace
