#include "ozf/config/ConfigurationProvider.h"
#include "ozf/plugin/EngineContext.h"
#include "tests/support/ConfiguredHost.h"

using namespace Quillon::Tessarine::Ozf;

namespace
{

class ConfigurationProviderTest : public ConfiguredHost
{
};

TEST_F(ConfigurationProviderTest, AnswersKeysOfTheConfigurationFile)
{
  configure("SERVER = first\nSERVER = second\n");
  auto const context = EngineContext::isolated();
  auto const& provider =
      getEngineSingleton<ConfigurationProviderHolder>(context)->getMetadataProvider();
  std::string value = "unchanged";
  EXPECT_TRUE(provider.getValue({MetadataIdentifier::CONFIGURATION_KEY, "SERVER"}, value));
  EXPECT_EQ(value, "second");
}

TEST_F(ConfigurationProviderTest, LeavesTheValueAloneWhenThereIsNone)
{
  configure("SERVER = one\n");
  MetadataProvider const provider;
  std::string value = "unchanged";
  EXPECT_FALSE(provider.getValue({MetadataIdentifier::CONFIGURATION_KEY, "OTHER"}, value));
  EXPECT_FALSE(provider.getValue({2, "SERVER"}, value));
  EXPECT_EQ(value, "unchanged");
}

TEST_F(ConfigurationProviderTest, FollowsAReload)
{
  configure("SERVER = one\n");
  MetadataProvider const provider;
  std::string value;
  ASSERT_TRUE(provider.getValue({3, "SERVER"}, value));
  configure("SERVER = two\n");
  ASSERT_TRUE(provider.getValue({3, "SERVER"}, value));
  EXPECT_EQ(value, "two");
}

TEST_F(ConfigurationProviderTest, TheMasterReaderReadsTheFileAnewForItself)
{
  configure("REPORT_CLIENT_DISCOVERIES = yes\n");
  auto const before = getConfiguration();
  writeText(file(), "REPORT_CLIENT_DISCOVERIES = off\n");
  MasterConfigurationReader reader;
  bool value = true;
  EXPECT_FALSE(reader.getBoolean("REPORT_CLIENT_DISCOVERIES", true, value)) << "nothing read yet";
  EXPECT_TRUE(value);
  ASSERT_TRUE(reader.read());
  EXPECT_TRUE(reader.getBoolean("REPORT_CLIENT_DISCOVERIES", true, value));
  EXPECT_FALSE(value);
  EXPECT_EQ(getConfiguration(), before);
}

TEST_F(ConfigurationProviderTest, TheMasterReaderGivesTheDefaultAndRefusesOtherWords)
{
  writeText(file(), "REPORT_CLIENT_DISCOVERIES = perhaps\n");
  MasterConfigurationReader reader;
  ASSERT_TRUE(reader.read());
  bool value = false;
  EXPECT_FALSE(reader.getBoolean("REPORT_CLIENT_DISCOVERIES", true, value));
  EXPECT_FALSE(value);
  EXPECT_TRUE(reader.getBoolean("ABSENT", true, value));
  EXPECT_TRUE(value);
}

TEST_F(ConfigurationProviderTest, TheMasterReaderFailsWhenTheFileIsGoneAndForgetsWhatItRead)
{
  writeText(file(), "REPORT_CLIENT_DISCOVERIES = no\n");
  MasterConfigurationReader reader;
  ASSERT_TRUE(reader.read());
  std::filesystem::remove(file());
  EXPECT_FALSE(reader.read());
  bool value = true;
  EXPECT_FALSE(reader.getBoolean("REPORT_CLIENT_DISCOVERIES", true, value));
  EXPECT_TRUE(value);
}

} // namespace
