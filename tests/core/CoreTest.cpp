// The core library: text, assertion reports and trace lines, the assertion
// reports of bit sets, and path names.
// The joinable deflate segments are read back in every archive (and in the
// background packer's own test), and their cost is a benchmark's figure.

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/AString.h"
#include "core/BitUtilities.h"
#include "core/EnumSet.h"
#include "core/LongFileName.h"
#include "core/VelAssert.h"
#include "core/VelDebug.h"
#include "tests/support/TestSupport.h"

namespace {

TEST(AStringTest, NarrowTextSurvivesTheRoundTripThroughWide) {
  // UTF-8 of 2, 3 and 4 bytes becomes one wide character each, on either
  // side of the 2-byte limit too.
  const std::string utf8 =
      "Gr\xC3\xBC\xC3\x9F"
      "e \xE2\x82\xAC \xF0\x9F\x98\x80 \xDF\xBF\xE0\xA0\x80";
  const AString text(utf8);
  EXPECT_EQ(text.wstr(), L"Gr\u00FC\u00DFe \u20AC \U0001F600 \u07FF\u0800");
  EXPECT_EQ(VEL_ANSI(text), utf8);

  // Bytes that are not UTF-8 (a stray high byte, a cut sequence, an overlong
  // form, an encoded surrogate, a NUL inside) come back unchanged.
  const std::string mixed[] = {
      std::string("net\xFF\xFE_1"),   std::string("cut\xC3"),
      std::string("\xE2\x82"),        std::string("over\xC0\xAFlong"),
      std::string("sur\xED\xA0\x80"), std::string("nul\0inside", 10),
      std::string("\x80\xBF"),
  };
  for (const std::string& bytes : mixed) {
    EXPECT_EQ(VEL_ANSI(AString(bytes)), bytes);
    EXPECT_EQ(VEL_ANSI(AString(bytes.data(), bytes.size())), bytes);
  }
  EXPECT_EQ(AString("cut\xC3").length(), 4u);
}

// Assertion reports and trace lines go to standard error only while the debug
// variable is defined (whatever its value), never to standard output.
TEST(AssertAndTraceTest, StandardErrorOnlyWhileDebugIsDefined) {
  for (const bool debug : {false, true}) {
    veltest::ScopedEnv env("VELTAR_EXTRACTA_DEBUG",
                           debug ? std::optional<std::string>("1") : std::nullopt);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    VEL_ASSERT_REPORT("ExtractaExecutor", 77, false, "!\"view creation failed\"");
    VelDebug(1, L"*StartChildProcess: %s \n", L"extracta \u00FC");
    VelDebug(2, L"count %d", 3);  // a line end is added
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(err, debug ? "Assertion failed: ExtractaExecutor(77): !\"view creation failed\"\n"
                           "*StartChildProcess: extracta \xC3\xBC \ncount 3\n"
                         : "");
  }
}

TEST(AStringTest, FormatReadsPercentSAsWideText) {
  AString text;
  text.Format(L"*StartChildProcess: %s \n", L"extracta \u00FC.exe");
  EXPECT_EQ(text.wstr(), L"*StartChildProcess: extracta \u00FC.exe \n");

  text.Format(L"%sextract%d/", L"/work/", 1700000000);
  EXPECT_EQ(text.wstr(), L"/work/extract1700000000/");

  text.Format(L"[%6s|%-6s|%.2s|%hs|%%|%c]", L"ab", L"cd", L"xyz", "narrow \xC3\xBC", L'Z');
  EXPECT_EQ(text.wstr(), L"[    ab|cd    |xy|narrow \u00FC|%|Z]");

  text.Format(L"%lld %zu %.3f %*d", -5000000000LL, static_cast<std::size_t>(7), 1.5, 4, 9);
  EXPECT_EQ(text.wstr(), L"-5000000000 7 1.500    9");

  // Format replaces, it does not append.
  text.Format(L"100%%");
  EXPECT_EQ(text.wstr(), L"100%");
  EXPECT_EQ(FormatWide(L"%s", static_cast<const wchar_t*>(nullptr)), L"(null)");
}

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

using namespace BitUtilities;

enum Colour : int32_t { kRed, kGreen, kBlue, kCyan, kMagenta };
using ColourSet = EnumSet<Colour, 5>;

// A bad operand is reported with its helper's line and condition, and the
// masked value is used. A bad index is passed down as it is, so every helper
// on the way reports it in turn before the set's closing report; the result
// is -1.
TEST(BitUtilitiesTest, BadOperandsGiveTheFullReportSequence) {
  using Wide = EnumSet<Colour, 32>;
  const Wide low26(0x03FFFFFF), high26(0xFFFFFFC0);
  const struct {
    std::function<uint32_t()> call;
    uint32_t result;
    std::vector<std::string> reports;  // B: BitUtilities, E: EnumSet; the line
  } cases[] = {
      {[] { return CountBits4(0x13); }, 2, {"B116"}},
      {[] { return CountBits8(0x1FF); }, 8, {"B126"}},
      {[] { return CountBits16(0x10003); }, 2, {"B167"}},
      {[] { return NthSetBit4(0x1A, 1); }, 3, {"B617"}},
      {[] { return NthSetBit8(0x130, 1); }, 5, {"B647"}},
      {[] { return NthSetBit16(0x10300, 0); }, 8, {"B696"}},
      {[] { return NthSetBit8(0xFF, 8); }, kNoBit, {"B647", "B617"}},
      {[] { return NthSetBit32(0xFFFFFFFF, 32); }, kNoBit, {"B744", "B696"}},
      {[&] { return uint32_t(low26.GetAt(26)); }, kNoBit, {"E656", "E662"}},
      {[&] { return uint32_t(high26.GetAt(26)); }, kNoBit, {"E656", "B696", "E662"}},
      {[&] { return uint32_t(low26.GetAt(-1)); }, kNoBit, {"E656", "B744", "B696", "E662"}},
      {[] { return uint32_t(ColourSet(0b101).GetAt(-1)); },
       kNoBit,
       {"E656", "B744", "B696", "E662"}},
      {[] { return uint32_t(ColourSet(0b101).GetAt(1)); }, kBlue, {}},
  };
  const std::map<std::string, std::string> conditions = {{"E656", "n >= 0 && n < GetCount()"},
                                                         {"E662", "kk != -1"},
                                                         {"B116", "value <= 0xf"},
                                                         {"B126", "value <= 0xff"},
                                                         {"B167", "value <= 0xffff"},
                                                         {"B617", "value <= 0xf && n < 4"},
                                                         {"B647", "value <= 0xff && n < 8"},
                                                         {"B696", "value <= 0xffff && n < 16"},
                                                         {"B744", "value <= 0xffffffff && n < 32"}};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    ScopedAssertCapture capture;
    EXPECT_EQ(cases[i].call(), cases[i].result) << i;
    std::vector<std::string> seen;
    for (const AssertReport& report : capture.reports()) {
      seen.push_back(report.source.substr(15, 1) + std::to_string(report.line));
      EXPECT_EQ(report.source.substr(0, 15), "tkcore/tkutils/");
      EXPECT_EQ(report.condition, conditions.at(seen.back())) << i;
    }
    EXPECT_EQ(seen, cases[i].reports) << i;
  }
}

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
  // An empty base is the current directory, never the file system root.
  auto cases = veltest::kSystemDirectoryNames;
  cases.insert(cases.end(), {{"", L"./"},
                             {"a", L"a/"},
                             {"a/", L"a/"},
                             {"a//", L"a/"},
                             {"/", L"/"},
                             {"/tmp/x y", L"/tmp/x y/"}});
  for (const auto& [base, directory] : cases) {
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
