#include "vempub/vem_text_file.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

TEST(VEMReadTextFileTest, ReadsTheWholeFile) {
  zerva_test::TempDir dir;
  const std::string path = dir.file("a.txt", "one\ntwo\n\nlast");
  std::string text;
  std::string error;
  ASSERT_TRUE(VEMReadTextFile(path, &text, &error)) << error;
  EXPECT_EQ(text, "one\ntwo\n\nlast");
}

TEST(VEMReadTextFileTest, MissingFileIsNamedInTheError) {
  zerva_test::TempDir dir;
  const std::string path = dir.path() + "/absent.txt";
  std::string text = "kept";
  std::string error;
  EXPECT_FALSE(VEMReadTextFile(path, &text, &error));
  EXPECT_EQ(error, path + ": cannot be read");
  EXPECT_EQ(text, "kept");
}

TEST(VEMForEachLineTest, VisitsEveryLineInOrderWithoutItsNewline) {
  std::vector<std::string> lines;
  std::string error;
  ASSERT_TRUE(VEMForEachLine(
      "one\n\nthree\nlast",
      [&lines](const std::string& line, std::string*) {
        lines.push_back(line);
        return true;
      },
      &error));
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "", "three", "last"}));
}

TEST(VEMForEachLineTest, RefusedLineStopsWithItsNumber) {
  std::vector<std::string> lines;
  std::string error;
  EXPECT_FALSE(VEMForEachLine(
      "good\ngood\nbad\ngood\n",
      [&lines](const std::string& line, std::string* why) {
        lines.push_back(line);
        if (line != "bad") return true;
        *why = "not good";
        return false;
      },
      &error));
  EXPECT_EQ(error, "line 3: not good");
  EXPECT_EQ(lines.size(), 3u);
}

}  // namespace
