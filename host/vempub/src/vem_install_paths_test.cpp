#include "vempub/vem_install_paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

namespace {

TEST(VEMJoinPathTest, ClimbsOutOfTheLibraryDirectoryByName) {
  EXPECT_EQ(VEMJoinPath("/usr/lib/x86_64-linux-gnu/zerva", "../../../share/zerva"), "/usr/share/zerva");
  EXPECT_EQ(VEMJoinPath("/usr/local/lib/zerva", "../../share/zerva"), "/usr/local/share/zerva");
}

TEST(VEMJoinPathTest, DropsDotsAndRepeatedSlashesAndStopsAtTheRoot) {
  EXPECT_EQ(VEMJoinPath("/a//b/./c/", "./d/../e"), "/a/b/c/e");
  EXPECT_EQ(VEMJoinPath("/a", "../../../x"), "/x");
  EXPECT_EQ(VEMJoinPath("/a/b", "../.."), "/");
  EXPECT_EQ(VEMJoinPath("/opt/z", ""), "/opt/z");
}

TEST(VEMInstallPathsTest, TheLibraryDirectoryIsWhereThisProcessLoadedLibvempubFrom) {
  EXPECT_EQ(VEMLibraryDir(), ZERVA_TEST_VEMPUB_DIR);
}

TEST(VEMInstallPathsTest, TheDataDirectoryHoldsTheDeviceConfigurationAndTheMibDescription) {
  // The build's staging directory of the data, found from the library's.
  EXPECT_EQ(VEMDataDir(), ZERVA_TEST_DATA_DIR);
  struct stat st;
  EXPECT_EQ(stat((VEMDataDir() + "/vem-device.xml").c_str(), &st), 0) << VEMDataDir();
  EXPECT_EQ(stat((VEMDataDir() + "/mibs/VEM-PERFORMANCE.xml").c_str(), &st), 0) << VEMDataDir();
}

}  // namespace
