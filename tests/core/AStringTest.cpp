#include "core/AString.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::wstring> Texts(const std::vector<AString>& pieces) {
  std::vector<std::wstring> texts;
  for (const AString& piece : pieces) texts.push_back(piece.wstr());
  return texts;
}

TEST(AStringTest, NarrowTextSurvivesTheRoundTripThroughWide) {
  // UTF-8 of 2, 3 and 4 bytes becomes one wide character each.
  const std::string utf8 =
      "Gr\xC3\xBC\xC3\x9F"
      "e \xE2\x82\xAC \xF0\x9F\x98\x80";
  const AString text(utf8);
  EXPECT_EQ(text.wstr(), L"Gr\u00FC\u00DFe \u20AC \U0001F600");
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
  EXPECT_TRUE(AString(static_cast<const char*>(nullptr)).empty());
  EXPECT_TRUE(AString(static_cast<const wchar_t*>(nullptr)).empty());
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

TEST(AStringTest, MatchAndTokenize) {
  EXPECT_TRUE(AString("VelExtracta").Match(AString(L"VelExtracta")));
  EXPECT_FALSE(AString("VelExtracta").Match(AString("velextracta")));
  EXPECT_TRUE(AString("-CELL").MatchNoCase(AString("-cell")));
  EXPECT_FALSE(AString("-cell").MatchNoCase(AString("-cel")));
  EXPECT_FALSE(AString("-cel").MatchNoCase(AString("-cell")));
  // Every character of the separator text separates; empty pieces only when asked.
  EXPECT_EQ(Texts(AString(",a;b,,c ").TokenizeString(AString(",; "), false)),
            (std::vector<std::wstring>{L"a", L"b", L"c"}));
  EXPECT_EQ(Texts(AString(",GND,").TokenizeString(AString(","), true)),
            (std::vector<std::wstring>{L"", L"GND", L""}));
}

}  // namespace
