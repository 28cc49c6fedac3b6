#include <gtest/gtest.h>

#include <filesystem>

#include "qolmhelper/ConfigurationFile.h"
#include "tests/support/TemporaryFolder.h"

namespace TN {
namespace {

namespace fs = std::filesystem;

// Its folder lies where everybody may look for a file by its name.
class EverybodyMayRead : public ::testing::Test {
 protected:
  EverybodyMayRead() {
    support::writeFile(path, "password = \"pw\";\n");
    setModes(0755, 0644);
  }
  void setModes(unsigned ofFolder, unsigned ofFile) {
    fs::permissions(fs::path(path).parent_path(), fs::perms(ofFolder));
    fs::permissions(path, fs::perms(ofFile));
  }
  bool mayRead() const { return everybodyMayRead(path.c_str()); }

  support::TemporaryFolder folder;
  const std::string path = folder.path("config.qolm");
};

TEST_F(EverybodyMayRead, WhereFileAndFoldersAllowIt) {
  EXPECT_TRUE(mayRead());
  setModes(0711, 0604);
  EXPECT_TRUE(mayRead());
}

TEST_F(EverybodyMayRead, NotAFileOfItsOwnersAlone) {
  setModes(0755, 0600);
  EXPECT_FALSE(mayRead());
  setModes(0755, 0640);
  EXPECT_FALSE(mayRead()) << "a group is somebody's choice";
}

TEST_F(EverybodyMayRead, NotBehindAFolderThatKeepsThemOut) {
  setModes(0750, 0644);
  EXPECT_FALSE(mayRead());
}

TEST_F(EverybodyMayRead, ALinkIsWhatItLeadsTo) {
  const std::string link = folder.path("link");
  fs::create_symlink(path, link);
  EXPECT_TRUE(everybodyMayRead(link.c_str()));
  setModes(0755, 0600);
  EXPECT_FALSE(everybodyMayRead(link.c_str()));
}

TEST_F(EverybodyMayRead, NotWhatIsNoFile) {
  EXPECT_FALSE(everybodyMayRead(folder.path("missing").c_str()));
  EXPECT_FALSE(everybodyMayRead(folder.path("").c_str()));
  EXPECT_FALSE(everybodyMayRead("/dev/null"));
}

}  // namespace
}  // namespace TN
