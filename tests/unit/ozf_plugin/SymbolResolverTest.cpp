#include "tests/unit/ozf_plugin/PluginRoot.h"

#include <ace/DLL.h>

using namespace Quillon::Tessarine::Ozf;

namespace
{

class SymbolResolverTest : public testing::Test
{
protected:
  SymbolResolverTest() : m_dll(true)
  {
    EXPECT_EQ(m_dll.open((std::string(TQ_FIXTURE_DIR) + "/libtqplugin-good.so").c_str()), 0);
  }

  ACE_DLL m_dll;
};

TEST_F(SymbolResolverTest, NothingIsResolvedAtFirst)
{
  EXPECT_EQ(FixtureResolver().address(), nullptr);
}

TEST_F(SymbolResolverTest, ResolvesEveryDefinition)
{
  FixtureResolver resolver;
  resolver.add("FixtureOther", true);
  resolver.resolveAll(&m_dll, "good");
  EXPECT_EQ(resolver.call(), 42);
  EXPECT_NE(resolver.address(1), nullptr);
}

TEST_F(SymbolResolverTest, AMissingSymbolThatIsNotRequiredStaysNull)
{
  FixtureResolver resolver("FixtureNothing", false);
  resolver.add("FixtureEntry", true);
  resolver.resolveAll(&m_dll, "good");
  EXPECT_EQ(resolver.address(0), nullptr);
  EXPECT_NE(resolver.address(1), nullptr);
}

TEST_F(SymbolResolverTest, TheFirstMissingRequiredSymbolIsThrownAndNoAddressIsLeft)
{
  FixtureResolver resolver;
  resolver.add("FixtureNothing", true);
  resolver.add("FixtureNeither", true);
  try
  {
    resolver.resolveAll(&m_dll, "good");
    FAIL() << "nothing was thrown";
  }
  catch (SymbolException const& e)
  {
    EXPECT_STREQ(e.what(), "FixtureNothing");
  }
  EXPECT_EQ(resolver.address(0), nullptr);
}

TEST_F(SymbolResolverTest, ADerivedClassMayLookSymbolsUpItself)
{
  struct Own : FixtureResolver
  {
    void* resolveASymbol(ACE_DLL*, char const* library, char const* symbol) override
    {
      asked = std::string(library) + ":" + symbol;
      return this;
    }
    std::string asked;
  } resolver;
  resolver.resolveAll(&m_dll, "good");
  EXPECT_EQ(resolver.asked, "good:FixtureEntry");
  EXPECT_EQ(resolver.address(), &resolver);
}

} // namespace
