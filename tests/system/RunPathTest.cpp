// What is built loads its libraries from the build tree and from nowhere else.

#include "tests/support/RunPaths.h"

namespace
{

using namespace tqtest;

TEST(RunPathTest, nothingThatIsBuiltLoadsFromTheWorkingDirectoryOrFromOutsideTheTree)
{
  std::filesystem::path const tree = std::filesystem::path(TQ_BIN_DIR).parent_path();
  std::size_t files = 0;
  EXPECT_EQ(flawsOfRunPaths(tree, files), "");
  EXPECT_GT(files, 20U);

  auto const program = runPathOf(TQ_BIN_DIR "/tqdisco");
  EXPECT_NE(std::find(program.begin(), program.end(), "$ORIGIN/../lib"), program.end());
}

} // namespace
