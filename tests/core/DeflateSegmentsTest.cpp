// Joinable deflate segments: joined in any order and closed by the final
// block they inflate to their inputs joined, with the CRC and sizes the zip
// writer is told, and cost next to nothing over one-shot compression.

#include <zlib.h>

#include <random>

#include <gtest/gtest.h>

#include "core/DeflateSegments.h"
#include "tests/support/TestSupport.h"

namespace {

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

}  // namespace
