// The core library: text, assertion reports and trace lines, bit sets,
// joinable deflate segments (joined in any order and closed by the final
// block they inflate to their inputs joined, with the CRC and sizes the zip
// writer is told, and cost next to nothing over one-shot compression), and
// path names.

#define VEL_ASSERT_SOURCE "ExtractaExecutor"

#include <bitset>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "core/AString.h"
#include "core/BitUtilities.h"
#include "core/DeflateSegments.h"
#include "core/EnumSet.h"
#include "core/LongFileName.h"
#include "core/VelAssert.h"
#include "core/VelDebug.h"
#include "tests/support/TestSupport.h"

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

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

// An assertion that fails; returns the line it stands on.
int FailingSite() {
  const int line = __LINE__ + 1;
  VEL_ASSERT(!"view creation failed");
  return line;
}

// Assertion reports and trace lines go to standard error only while the debug
// variable is defined (whatever its value), never to standard output; a trace sink
// receives the lines either way.
TEST(AssertAndTraceTest, StandardErrorOnlyWhileDebugIsDefined) {
  for (const bool debug : {false, true}) {
    SCOPED_TRACE(debug);
    veltest::ScopedEnv env("VELTAR_EXTRACTA_DEBUG",
                           debug ? std::optional<std::string>("1") : std::nullopt);
    std::vector<std::pair<int, std::wstring>> lines;
    const TraceSink previous = SetTraceSink_G(
        [&](int level, const std::wstring& line) { lines.emplace_back(level, line); });
    CaptureStdout();
    CaptureStderr();
    const int line = FailingSite();
    VelDebug(1, L"*StartChildProcess: %s \n", L"extracta \u00FC");
    VelDebug(2, L"count %d", 3);  // a line end is added
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout(), "");
    SetTraceSink_G(previous);
    EXPECT_EQ(err, debug ? "Assertion failed: ExtractaExecutor(" + std::to_string(line) +
                               "): !\"view creation failed\"\n"
                               "*StartChildProcess: extracta \xC3\xBC \ncount 3\n"
                         : "");
    EXPECT_EQ(lines, (std::vector<std::pair<int, std::wstring>>{
                         {1, L"*StartChildProcess: extracta \u00FC \n"}, {2, L"count 3\n"}}));
  }
}

using namespace BitUtilities;

// The position of the n-th set bit, lowest first, found the slow way.
uint32_t SlowNthSetBit(uint32_t value, uint32_t n) {
  for (uint32_t bit = 0; bit < 32; ++bit)
    if (((value >> bit) & 1u) && n-- == 0) return bit;
  return kNoBit;
}

// Every value of the narrow helpers and many of the 32-bit one, across
// nibble, byte and half-word borders. A bit that is there is found without a
// report; asking for one that is not may be reported by a narrower helper on
// the way down (see below).
TEST(BitUtilitiesTest, CountsAndNthSetBitsMatchTheSlowWayForEveryValue) {
  ScopedAssertCapture capture;
  int reportedFinds = 0;
  const auto matches = [&](uint32_t got, uint32_t v, uint32_t n) {
    const uint32_t expected = SlowNthSetBit(v, n);
    if (expected != kNoBit && !capture.reports().empty()) ++reportedFinds;
    capture.Clear();
    return got == expected;
  };
  for (uint32_t v = 0; v <= 0xffff; ++v) {
    const uint32_t count = static_cast<uint32_t>(std::bitset<32>(v).count());
    ASSERT_TRUE(v > 0xf || CountBits4(v) == count) << v;
    ASSERT_TRUE(v > 0xff || CountBits8(v) == count) << v;
    ASSERT_EQ(CountBits16(v), count) << v;
    for (uint32_t n = 0; n < 16; ++n) {
      ASSERT_TRUE(v > 0xf || n >= 4 || matches(NthSetBit4(v, n), v, n)) << v << " " << n;
      ASSERT_TRUE(v > 0xff || n >= 8 || matches(NthSetBit8(v, n), v, n)) << v << " " << n;
      ASSERT_TRUE(matches(NthSetBit16(v, n), v, n)) << v << " " << n;
    }
  }
  std::mt19937 random(2024);
  std::vector<uint32_t> values = {0,          1,          0xFFFFFFFF, 0x80000000, 0x00018000,
                                  0xFFFF0000, 0x0000FFFF, 0x00010000, 0x8000FFFF};
  for (int i = 0; i < 2000; ++i) values.push_back(random() & random());
  for (const uint32_t v : values)
    for (uint32_t n = 0; n < 32; ++n)
      ASSERT_TRUE(matches(NthSetBit32(v, n), v, n)) << std::hex << v << " " << n;
  EXPECT_EQ(reportedFinds, 0);
}

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
      {[] { return uint32_t(ColourSet(0b101).GetAt(2)); }, kNoBit, {"E656", "E662"}},
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

std::string Inflate(const std::string& raw) {
  z_stream stream{};
  inflateInit2(&stream, -15);
  std::string out(64 << 20, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(raw.data()));
  stream.avail_in = static_cast<uInt>(raw.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = inflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  inflateEnd(&stream);
  return result == Z_STREAM_END ? out : "not a complete stream";
}

std::string OneShot(const std::string& input) {
  z_stream stream{};
  deflateInit2(&stream, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, input.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

std::string Bytes(const DeflatedEntry& entry, const DeflateStore& store) {
  std::string bytes;
  for (const DeflateSegment& segment : entry.segments) {
    std::string part(segment.compressedSize, '\0');
    store.read(segment, 0, &part[0], part.size());
    bytes += part;
  }
  return bytes + DeflateFinalBlock();
}

TEST(DeflateSegmentsTest, JoinedSegmentsInflateToTheirInputsJoined) {
  std::string records = "A!NET_NAME!REFDES!PIN_NUMBER!\r\nJ!pkg.mcm!x!\r\n";
  for (int i = 0; records.size() < (3 << 20); ++i)
    records += "S!NET_" + std::to_string(i % 977) + "!U" + std::to_string(i % 13) + "!A" +
               std::to_string(i) + "!\r\n";
  std::string noise(100000, '\0');
  std::mt19937 random(7);
  for (char& c : noise) c = static_cast<char>(random());

  // Cut points; with `primed`, every segment but the first may refer back
  // into the input before it. A budget of 0 keeps everything in the file.
  struct Row {
    const char* what;
    std::string input;
    std::vector<std::size_t> cuts;
    bool primed;
    std::size_t budget;
  };
  const std::vector<Row> rows = {
      {"empty", "", {}, false, 1 << 20},
      {"header and body apart", records.substr(0, 5000), {45}, false, 1 << 20},
      {"a large body in primed parts", records, {45, 1 << 20, 2 << 20}, true, 0},
      {"bytes that do not compress", noise, {7, 50000}, true, 1 << 10},
  };
  DeflateStore shared(1 << 20);
  std::vector<DeflateSegment> reversed;
  std::string reversedInput;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    DeflateStore store(row.budget);
    SegmentDeflater deflater;
    std::vector<DeflateSegment> segments, unprimed;
    std::vector<std::size_t> bounds = {0};
    bounds.insert(bounds.end(), row.cuts.begin(), row.cuts.end());
    bounds.push_back(row.input.size());
    for (std::size_t i = 0; i + 1 < bounds.size(); ++i) {
      const char* begin = row.input.data() + bounds[i];
      const std::size_t length = bounds[i + 1] - bounds[i];
      segments.push_back(deflater.deflate(begin, length, row.primed ? bounds[i] : 0, store));
      unprimed.push_back(deflater.deflate(begin, length, 0, shared));
    }
    const DeflatedEntry entry = JoinSegments(segments);
    const std::string bytes = Bytes(entry, store);
    EXPECT_EQ(Inflate(bytes), row.input);
    EXPECT_EQ(entry.size, row.input.size());
    EXPECT_EQ(entry.crc, crc32(0, reinterpret_cast<const Bytef*>(row.input.data()),
                               static_cast<uInt>(row.input.size())));
    EXPECT_EQ(entry.compressedSize, bytes.size());
    EXPECT_LE(bytes.size(), OneShot(row.input).size() * 1.002 + 16 * bounds.size());
    EXPECT_EQ(store.bytesInFile() > 0, row.budget < bytes.size());
    reversed.insert(reversed.begin(), unprimed.begin(), unprimed.end());
    reversedInput.insert(0, row.input);
  }
  // Segments made without the bytes before them follow any others.
  EXPECT_EQ(Inflate(Bytes(JoinSegments(reversed), shared)), reversedInput);
}

TEST(DeflateSegmentsTest, OffsetAfterLinesFindsTheHeaderEnd) {
  const veltest::TempDir dir;
  const std::string longLine(40000, 'x');
  const std::vector<std::pair<std::string, uint64_t>> rows = {
      {"", 0},         {"A!\r\n", 4},
      {"A!\nJ!", 5},   {"A!\r\nJ!\r\nS!\r\n", 8},
      {"\n\nS!\n", 2}, {longLine + "\n" + longLine + "\nS!", 2 * longLine.size() + 2},
  };
  for (const auto& [bytes, offset] : rows) {
    veltest::WriteFile(dir / "view.txt", bytes);
    EXPECT_EQ(OffsetAfterLines(dir / "view.txt", 2), offset) << bytes.substr(0, 20);
    EXPECT_EQ(ReadFileRange(dir / "view.txt", offset / 2, offset - offset / 2),
              bytes.substr(offset / 2, offset - offset / 2));
  }
  EXPECT_THROW(OffsetAfterLines(dir / "missing.txt", 2), std::runtime_error);
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
