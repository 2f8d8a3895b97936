#include "core/LongFileName.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

// Links made through the standard library, so the test reads the same on
// every system (Windows needs the right to make symbolic links).
void Link(const std::string& target, const std::string& link) {
  std::error_code error;
  std::filesystem::create_directory_symlink(target, link, error);
  ASSERT_FALSE(error) << link << ": " << error.message();
}

using veltest::PathExists;
using veltest::TempDir;

LongFileName Dir(const std::string& path) {
  LongFileName name{AString(path)};
  name.MakeItDirectory();
  return name;
}

TEST(LongFileNameTest, MakeItDirectoryEndsTheTextInOneSeparator) {
  LongFileName unset;
  EXPECT_FALSE(unset.IsInitialized());
  EXPECT_FALSE(unset.IsDirectory());

  // An empty base is the current directory, never the file system root.
  for (const auto& [base, directory] : {std::pair{"", L"./"},
                                        {"a", L"a/"},
                                        {"a/", L"a/"},
                                        {"a//", L"a/"},
                                        {"/", L"/"},
                                        {"/tmp/x y", L"/tmp/x y/"},
#ifdef _WIN32
                                        // A name written with "\\" goes on with it.
                                        {"C:\\d\\e", L"C:\\d\\e\\"},
                                        {"C:\\d/e\\\\", L"C:\\d/e\\"},
                                        {"C:/d", L"C:/d/"},
                                        {"C:\\", L"C:\\"},
                                        {"C:", L"C:./"}}) {
#else
                                        // "\\" is an ordinary character here.
                                        {"a\\b\\", L"a\\b\\/"}}) {
#endif
    EXPECT_EQ(Dir(base).FilePath().wstr(), directory) << base;
    EXPECT_TRUE(Dir(base).IsInitialized());
  }
}

TEST(LongFileNameTest, DeleteRemovesATreeButNotWhatItsLinksPointTo) {
  VEL_SKIP_ON_WINDOWS("symbolic links: wine makes none");
  TempDir temp;
  const std::string outside = temp / "outside";
  ASSERT_TRUE(LFN_CreateDirectory(Dir(outside)));
  veltest::WriteFile(outside + "/keep.txt", "keep");

  const std::string tree = temp / "extract7";
  ASSERT_TRUE(LFN_CreateDirectory(Dir(tree)));
  ASSERT_TRUE(LFN_CreateDirectory(Dir(tree + "/sub")));
  veltest::WriteFile(tree + "/conn.txt", "S!GND!");
  veltest::WriteFile(tree + "/sub/deep.txt", "x");
  ASSERT_NO_FATAL_FAILURE(Link(outside, tree + "/link"));

  EXPECT_TRUE(LFN_Delete(Dir(tree)));
  EXPECT_FALSE(PathExists(tree));
  EXPECT_TRUE(PathExists(outside + "/keep.txt"));

  // A link given as the directory itself (with its trailing separator) is
  // removed as a link.
  const std::string link = temp / "alias";
  ASSERT_NO_FATAL_FAILURE(Link(outside, link));
  EXPECT_TRUE(LFN_Delete(Dir(link)));
  EXPECT_FALSE(PathExists(link));
  EXPECT_TRUE(PathExists(outside + "/keep.txt"));
}

}  // namespace
