#include "ozf/base/Uri.h"

#include "ozf/base/Wildcard.h"

#include <gtest/gtest.h>
#include <set>
#include <vector>

using namespace Quillon::Tessarine::Ozf;

namespace
{

std::string shown(std::string const& text) { return Uri::percentEncode(text, URI_SHOWN); }

std::string key(std::string const& text) { return Uri::percentEncode(text, URI_FILE_KEY); }

std::string pattern(std::string const& text) { return Uri::percentEncode(text, URI_FILE_PATTERN); }

std::vector<std::string> hostileNames()
{
  std::vector<std::string> names = {"/",
                                    ".",
                                    "..",
                                    "...",
                                    "../../etc/passwd",
                                    "a/b",
                                    " ",
                                    "a b",
                                    "\"quoted\"",
                                    "it's",
                                    "100%",
                                    "%2F",
                                    "%",
                                    "\n",
                                    "a\tb\r\n",
                                    "\x7f",
                                    "\xc2\x85",
                                    "\xff\xfe",
                                    "\xc0\xaf",
                                    "\xe6\x97",
                                    "\xed\xa0\x80",
                                    "\xef\xbf\xbe",
                                    "\xef\xbf\xbf",
                                    "\xc3\xa4\xc3\xb6\xc3\xbc",
                                    "\xe6\x97\xa5\xe6\x9c\xac",
                                    "\xf0\x9f\x92\xbe",
                                    "<&>",
                                    "-rf",
                                    "~root",
                                    "a\\b",
                                    "user@host:80",
                                    std::string("nul\0nul", 7),
                                    std::string(1000, 'n'),
                                    std::string(1000, '/'),
                                    std::string(1000, '\xff')};
  for (int byte = 0; byte < 256; ++byte)
    names.emplace_back(1, static_cast<char>(byte));
  return names;
}

} // namespace

TEST(PercentEncodeShown, KeepsPrintableTextAsItIs)
{
  for (std::string const text : {"", "hostA", "a b", "100% \"sure\"", "/etc/../x",
                                 "\xc3\xa4\xe6\x97\xa5\xf0\x9f\x92\xbe", "%41", "*", "\xc2\xa0"})
    EXPECT_EQ(shown(text), text);
}

TEST(PercentEncodeShown, SpellsOutControlCharactersAndBrokenUtf8)
{
  EXPECT_EQ(shown("a\nb\x1f\x7f"), "a%0Ab%1F%7F");
  EXPECT_EQ(shown(std::string("\0", 1)), "%00");
  EXPECT_EQ(shown("\xc2\x85"), "%C2%85");
  EXPECT_EQ(shown("a\xff\xc3"), "a%FF%C3");
  EXPECT_EQ(shown("\xc0\xaf"), "%C0%AF");
  EXPECT_EQ(shown("\xe6\x97x"), "%E6%97x");
}

// XML cannot carry them all, and they mean nothing outside a program.
TEST(PercentEncodeShown, SpellsOutNoncharacters)
{
  EXPECT_EQ(shown("a\xef\xbf\xbe"), "a%EF%BF%BE"); // U+FFFE
  EXPECT_EQ(shown("\xef\xbf\xbf"
                  "b"),
            "%EF%BF%BFb");                              // U+FFFF
  EXPECT_EQ(shown("\xef\xb7\x90"), "%EF%B7%90");        // U+FDD0
  EXPECT_EQ(shown("\xef\xb7\xaf"), "%EF%B7%AF");        // U+FDEF
  EXPECT_EQ(shown("\xf0\x9f\xbf\xbe"), "%F0%9F%BF%BE"); // U+1FFFE
  EXPECT_EQ(shown("\xf4\x8f\xbf\xbf"), "%F4%8F%BF%BF"); // U+10FFFF
  for (std::string const neighbour :
       {"\xef\xbf\xbd", "\xf0\x90\x80\x80", "\xef\xb7\x8f", "\xef\xb7\xb0", "\xf0\x9f\xbf\xbd"})
    EXPECT_EQ(shown(neighbour), neighbour);
}

TEST(PercentEncodeShown, AppliedAgainChangesNothing)
{
  for (auto const& name : hostileNames())
    EXPECT_EQ(shown(shown(name)), shown(name));
}

TEST(PercentEncodeShown, StandsInForAnUnknownComponent)
{
  EXPECT_EQ(Uri::percentEncode("a/b\n", 0), shown("a/b\n"));
  EXPECT_EQ(Uri::percentEncode("a/b\n", -1), shown("a/b\n"));
}

TEST(PercentEncodeFileKey, KeepsPlainNames)
{
  EXPECT_EQ(key("host-A_1.example~"), "host-A_1.example~");
  EXPECT_EQ(key("Host"), "Host");
  EXPECT_EQ(key(""), "");
}

TEST(PercentEncodeFileKey, SpellsOutTheRestInUpperCase)
{
  EXPECT_EQ(key("a/b c"), "a%2Fb%20c");
  EXPECT_EQ(key("100%"), "100%25");
  EXPECT_EQ(key("\xc3\xa4"), "%C3%A4");
  EXPECT_EQ(key("a:b@c"), "a%3Ab%40c");
  EXPECT_EQ(key("a*b"), "a*b");
}

TEST(PercentEncodeFileKey, SpellsOutALeadingPoint)
{
  EXPECT_EQ(key("."), "%2E");
  EXPECT_EQ(key(".."), "%2E.");
  EXPECT_EQ(key(".hidden.x"), "%2Ehidden.x");
}

TEST(PercentEncodeFileKey, IsOneShortPathComponentWhateverTheName)
{
  for (auto const& name : hostileNames())
  {
    std::string const made = key(name);
    EXPECT_FALSE(made.empty());
    EXPECT_LE(made.size(), 100u);
    EXPECT_NE(made.front(), '.');
    EXPECT_EQ(made.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                     "0123456789._~-%*"),
              std::string::npos)
        << made;
  }
}

TEST(PercentEncodeFileKey, ANameReadBackAsShownHasTheSameKey)
{
  for (auto const& name : hostileNames())
    EXPECT_EQ(key(shown(name)), key(name));
}

TEST(PercentEncodeFileKey, DifferentNamesHaveDifferentKeys)
{
  // As shown, a broken byte and its spelling are the same name; all others
  // must stay apart.
  std::set<std::string> names;
  std::set<std::string> keys;
  for (auto const& name : hostileNames())
  {
    names.insert(shown(name));
    keys.insert(key(name));
  }
  EXPECT_EQ(keys.size(), names.size());
}

TEST(PercentEncodeFileKey, LongKeysEndInAHash)
{
  EXPECT_EQ(key(std::string(100, 'n')), std::string(100, 'n'));
  std::string const made = key(std::string(101, 'n'));
  // What sha256sum prints for 101 letters n.
  EXPECT_EQ(made, std::string(60, 'n') + "~" + "1c2ffa742d6101b788f0505617137552");
  EXPECT_NE(key(std::string(102, 'n')), made);
  EXPECT_NE(key(std::string(101, 'n') + "a"), key(std::string(101, 'n') + "b"));
}

TEST(PercentEncodeFileKey, ANameSpelledLikeALongNamesKeyHasAnother)
{
  std::string const longKey = key(std::string(101, 'n'));
  std::string const made = key(longKey);
  EXPECT_NE(made, longKey);
  EXPECT_EQ(made.substr(0, 61), longKey.substr(0, 61));
  EXPECT_EQ(made.size(), longKey.size());
  EXPECT_NE(key(made), made);
  EXPECT_EQ(pattern(longKey), made) << "a name without a star is its own pattern";

  for (std::string const& close :
       {longKey + "0", longKey.substr(1), std::string(60, 'n') + "-" + std::string(32, 'a'),
        std::string(60, 'n') + "~" + std::string(32, 'A'),
        std::string(60, 'n') + "~" + std::string(31, 'a') + "g"})
    EXPECT_EQ(key(close), close);

  std::string const starred = "st*" + longKey.substr(3);
  EXPECT_EQ(pattern(starred), "st*");
  EXPECT_EQ(wildcardcmp(pattern(starred), key(starred)), 0);
}

TEST(PercentEncodeFileKey, ThirtyFourEscapesAreTooLong)
{
  EXPECT_EQ(key(std::string(33, '/')).size(), 99u);
  std::string const made = key(std::string(34, '/'));
  EXPECT_EQ(made.size(), 93u);
  EXPECT_EQ(made.substr(0, 61), key(std::string(20, '/')) + "~");
}

TEST(PercentEncodeFileKey, ALongNameIsHashedWhateverItHolds)
{
  // Or else two names would share a file.
  std::string const start = "a*" + std::string(100, 'x');
  EXPECT_NE(key(start + "1"), key(start + "2"));
  EXPECT_EQ(key(start + "1").substr(0, 61), start.substr(0, 60) + "~");
  EXPECT_EQ(key(start + "1").size(), 93u);
}

TEST(PercentEncodeFilePattern, IsTheKeyOfAShortName)
{
  for (std::string const name : {"", "a b*", ".h*", "x/y", "*"})
    EXPECT_EQ(pattern(name), key(name)) << name;
  std::string const longName(200, 'x');
  EXPECT_EQ(pattern(longName), key(longName)) << "without a star it is one name";
}

TEST(PercentEncodeFilePattern, MatchesTheKeysOfTheNamesItMatches)
{
  EXPECT_EQ(wildcardcmp(pattern("a b*"), key("a b c")), 0);
  EXPECT_EQ(wildcardcmp(pattern(".h*"), key(".hidden")), 0);
  EXPECT_EQ(wildcardcmp(pattern("*\xc3\xa4*"), key("x\xc3\xa4y")), 0);
  EXPECT_NE(wildcardcmp(pattern("a/b*"), key("a b c")), 0);
}

TEST(PercentEncodeFilePattern, ThatIsTooLongBecomesAWiderOne)
{
  std::string const start(70, 's');
  EXPECT_EQ(pattern(start + "*" + std::string(40, 'e')), std::string(60, 's') + "*");
  EXPECT_EQ(pattern("short*" + std::string(200, 'e') + "*"), "short*");
  EXPECT_EQ(pattern("*" + std::string(200, 'e')), "*");
  std::string const name = start + "middle" + std::string(40, 'e');
  EXPECT_EQ(wildcardcmp(pattern(start + "*" + std::string(40, 'e')), key(name)), 0);
  std::string const starred = start + "*" + std::string(40, 'e');
  EXPECT_EQ(wildcardcmp(pattern(starred), key(starred)), 0) << "a name that holds a star";
}

TEST(UriAuthority, IsTakenApart)
{
  UriAuthority authority;
  EXPECT_TRUE(authority.setAuthority("me@host.example:8080"));
  EXPECT_EQ(authority.getUserInfo(), "me");
  EXPECT_EQ(authority.getHost(), "host.example");
  EXPECT_EQ(authority.getPort(), "8080");

  EXPECT_TRUE(authority.setAuthority("filesystem"));
  EXPECT_EQ(authority.getUserInfo(), "");
  EXPECT_EQ(authority.getHost(), "filesystem");
  EXPECT_EQ(authority.getPort(), "");

  EXPECT_TRUE(authority.setAuthority("[fe80::1]:53"));
  EXPECT_EQ(authority.getHost(), "[fe80::1]");
  EXPECT_EQ(authority.getPort(), "53");
}

TEST(UriAuthority, TextThatCannotBeTakenApartIsTheHost)
{
  for (std::string const text : {"fe80::1", "host:", "host:x", "host:70000", ":80", "a@b@c", "@",
                                 "[", "[]", "[::1", "[::1]x", "user@"})
  {
    UriAuthority authority;
    EXPECT_TRUE(authority.setAuthority(text));
    EXPECT_EQ(authority.getHost(), text);
    EXPECT_EQ(authority.getUserInfo(), "");
    EXPECT_EQ(authority.getPort(), "");
  }
}

TEST(UriAuthority, GivenPartsStandIn)
{
  UriAuthority authority;
  EXPECT_TRUE(authority.setAuthority("me@host:1", "you", "other", 2));
  EXPECT_EQ(authority.getUriEncoding(URI_SHOWN), "you@other:2");
  EXPECT_TRUE(authority.setAuthority("", nullptr, "other", -1));
  EXPECT_EQ(authority.getUriEncoding(URI_SHOWN), "other");
  EXPECT_TRUE(authority.setAuthority("host", nullptr, nullptr, 0));
  EXPECT_EQ(authority.getUriEncoding(URI_SHOWN), "host:0");
}

TEST(UriAuthority, EmptyTextGivesNone)
{
  UriAuthority authority;
  ASSERT_TRUE(authority.setAuthority("me@host:1"));
  EXPECT_FALSE(authority.setAuthority(""));
  EXPECT_EQ(authority.getUriEncoding(URI_SHOWN), "");
  EXPECT_EQ(authority.getUriEncoding(URI_FILE_KEY), "");
}

TEST(UriAuthority, IsPutTogetherAsItWas)
{
  auto names = hostileNames();
  for (std::string const text : {"@host", "me@host", "a@b@c", "host:", "host:007", "::1", "[::1]:1",
                                 "user@", ":", "host:99999", "x:y@z:1"})
    names.push_back(text);
  for (auto const& name : names)
  {
    UriAuthority authority;
    EXPECT_TRUE(authority.setAuthority(name));
    EXPECT_EQ(authority.getUriEncoding(URI_SHOWN), shown(name));
    EXPECT_EQ(authority.getUriEncoding(URI_FILE_KEY), key(name));
  }
}

TEST(Uri, IsTakenApart)
{
  Uri const uri("tqclient://me@host:1/a/b?c#d");
  EXPECT_EQ(uri.getScheme().getSchemeName(), "tqclient");
  EXPECT_EQ(uri.getAuthority().getUriEncoding(URI_SHOWN), "me@host:1");
  EXPECT_EQ(uri.getPath(), "/a/b?c#d");
}

TEST(Uri, NeedsNoAuthority)
{
  Uri const uri("host:rest");
  EXPECT_EQ(uri.getScheme().getSchemeName(), "host");
  EXPECT_EQ(uri.getAuthority().getUriEncoding(URI_SHOWN), "");
  EXPECT_EQ(uri.getPath(), "rest");
}

TEST(Uri, TextWithoutASchemeHasAnEmptyOne)
{
  for (std::string const text : {"", "plain", ":x", "1a:b", "a b:c", "a/b:c", "\xc3\xa4:x"})
  {
    Uri const uri(text);
    EXPECT_EQ(uri.getScheme().getSchemeName(), "") << text;
    EXPECT_EQ(uri.getPath(), text);
  }
}

TEST(Uri, TheAuthorityEndsWhereThePathBegins)
{
  EXPECT_EQ(Uri("s://h").getAuthority().getHost(), "h");
  EXPECT_EQ(Uri("s://h?q").getAuthority().getHost(), "h");
  EXPECT_EQ(Uri("s://h#f").getPath(), "#f");
  EXPECT_EQ(Uri("s:///p").getAuthority().getHost(), "");
  EXPECT_EQ(Uri("//h/p").getAuthority().getHost(), "h");
}
