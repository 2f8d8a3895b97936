// The default run: every view in an extracta process of its own, with the
// connectivity view divided further. A survey run lists the net of every
// connectivity record; the four nets with the most records are extracted in
// three class groups each, one "remainder" run takes every other net, and the
// pieces are concatenated into conn.txt with a single header.
//
// Parallelism lies only in the child processes: every wait polls the
// generator pool, so a child failing anywhere ends the operation during
// whichever wait is in progress.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <boost/lexical_cast.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "core/AString.h"
#include "core/ExtractaParserException.h"
#include "core/LongFileName.h"
#include "core/VelDebug.h"
#include "executor/BackgroundPacker.h"
#include "executor/ExtractaExecutor.h"
#include "process/ExtractaViewGenerator.h"
#include "reader/ExtractaViewData.h"
#include "reader/ExtractaViewGrammar.h"
#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"
#include "views/ViewTypes.h"

namespace {

// Nets with the most connectivity records that get processes of their own.
constexpr std::size_t kMaxSplitNets = 4;

// The class groups a split net is extracted in. Together they are exactly the
// classes the connectivity view admits, so the three pieces of a net hold what
// one connectivity run would hold for it.
const std::vector<std::vector<AString>> kClassGroups = {
    {L"CONDUCTOR", L"ETCH"},
    {L"PIN"},
    {L"VIA CLASS"},
};

using GeneratorPtr = boost::shared_ptr<ExtractaViewGenerator>;
using GeneratorList = std::vector<GeneratorPtr>;

// (count, net name), ranked largest first.
using RankedNets = std::vector<std::pair<uint64_t, std::string>>;

// Counts the survey's records per NET_NAME text (the empty name counts like
// any other).
std::map<std::string, uint64_t> CountRecordsPerNet(const ExtractaViewData& survey,
                                                   const AString& surveyFile) {
  const uint32_t netColumn = survey.columnIndex("NET_NAME");
  // A survey without the column is a broken survey, whether or not it found
  // records: its nets cannot be told apart.
  if (netColumn == ExtractaViewData::kNoColumn) {
    throw ExtractaParserException("connectivity survey " + VEL_ANSI(surveyFile) +
                                  " has no NET_NAME column");
  }

  // extracta lists a net's records together, so most records name the same
  // net as the one before; counting a run of them locally saves a map lookup
  // per record, and any other order gives the same counts.
  std::map<std::string, uint64_t> recordsPerNet;
  const ExtractaViewData::Rows& records = survey.sRecords();
  const std::string* runNet = nullptr;
  uint64_t runLength = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (netColumn >= records[i].size()) {
      throw ExtractaParserException("connectivity survey " + VEL_ANSI(surveyFile) + " record " +
                                    std::to_string(i + 1) + " has no NET_NAME field");
    }
    const std::string& net = records[i][netColumn];
    if (runNet != nullptr && net == *runNet) {
      ++runLength;
      continue;
    }
    if (runNet != nullptr) recordsPerNet[*runNet] += runLength;
    runNet = &net;
    runLength = 1;
  }
  if (runNet != nullptr) recordsPerNet[*runNet] += runLength;
  return recordsPerNet;
}

// The nets descending by record count, and among equal counts descending by
// name (byte-wise), so that of two nets tied for the last split place the
// greater name is split.
RankedNets RankNets(const std::map<std::string, uint64_t>& recordsPerNet) {
  RankedNets ranked;
  ranked.reserve(recordsPerNet.size());
  for (const auto& [net, count] : recordsPerNet) ranked.emplace_back(count, net);
  std::sort(ranked.begin(), ranked.end());
  std::reverse(ranked.begin(), ranked.end());
  return ranked;
}

// "<index>_<net>_<classes joined by _>", e.g. "0_GND_CONDUCTOR_ETCH". The index
// keeps the names of different nets apart even where the generator's file name
// sanitising makes the nets themselves look alike.
AString SplitRunName(std::size_t index, const AString& net, const std::vector<AString>& classes) {
  AString name = AString(boost::lexical_cast<std::string>(index)) + L"_" + net;
  for (const AString& className : classes) name += L"_" + className;
  return name;
}

// Concatenates the connectivity pieces into one view file: the first piece's
// two header lines, then everything after the header of every piece, byte for
// byte. Nothing is parsed; the bulk of each piece is copied by the kernel where
// it can, so the merge runs at the speed of a plain file copy.
class ConnectivityMerge {
 public:
  explicit ConnectivityMerge(const AString& combinedPath)
      : out_(
            ::open(VEL_ANSI(combinedPath).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
        buffer_(kHeaderChunk) {
    // A combined file that did not open is reported when the first piece is
    // added to it, as a failure to add that piece.
  }
  ~ConnectivityMerge() {
    if (out_ >= 0) ::close(out_);
  }
  ConnectivityMerge(const ConnectivityMerge&) = delete;
  ConnectivityMerge& operator=(const ConnectivityMerge&) = delete;

  void add(const AString& piecePath) {
    const auto started = std::chrono::steady_clock::now();
    const int in = ::open(VEL_ANSI(piecePath).c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
      throw ExtractaParserException(
          AString(L"createExtractaControlFileAndViewsMP failed to open file ") + piecePath);
    }
    Piece piece(in);

    // The first two lines are the header: "A!" names the fields, "J!"
    // describes the extraction. Only the first piece's header is kept.
    const Header header = readHeader(piece.fd);
    if (first_) {
      writeAll(header.lines[0] + "\n" + header.lines[1] + "\n");
      first_ = false;
    }
    if (header.readError) {
      throw ExtractaParserException(
          AString(L"createExtractaControlFileAndViewsMP missing header in file ") + piecePath);
    }

    writeAll(buffer_.data() + header.restBegin, header.restEnd - header.restBegin);
    if (!header.pieceEnded) copyRest(piece.fd);
    if (failed_) {
      throw ExtractaParserException(AString(L"createExtractaControlFileAndViewsMP error adding ") +
                                    piecePath + L" to combined connectivity file");
    }
    ++files_;
    elapsed_ += std::chrono::steady_clock::now() - started;
  }

  uint64_t bytesWritten() const { return bytes_; }
  int filesAdded() const { return files_; }
  int64_t microseconds() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(elapsed_).count();
  }

 private:
  // The header is read through a small buffer: whatever is read past it has
  // to be written from user space, while the rest goes through the kernel.
  static constexpr std::size_t kHeaderChunk = 16 << 10;
  // Copying through user space, where the kernel cannot copy.
  static constexpr std::size_t kCopyBuffer = 1 << 20;
  // Large enough that one call copies a whole piece; the kernel splits it.
  static constexpr std::size_t kCopyChunk = std::size_t(1) << 30;

  struct Piece {
    explicit Piece(int descriptor) : fd(descriptor) {}
    ~Piece() { ::close(fd); }
    Piece(const Piece&) = delete;
    Piece& operator=(const Piece&) = delete;
    int fd;
  };

  struct Header {
    std::string lines[2];
    std::size_t restBegin = 0;  // [restBegin, restEnd) of the buffer was read past the header
    std::size_t restEnd = 0;
    bool pieceEnded = false;  // the piece ended within its header
    bool readError = false;
  };

  // Reads until two lines have ended or the piece has ended. A line is taken
  // without its "\n" (a CR before it stays, so the header is written back as
  // it was); a missing line reads as empty, and a short piece is no error.
  Header readHeader(int fd) {
    Header header;
    int line = 0;
    for (;;) {
      const ssize_t got = readSome(fd, buffer_.data(), kHeaderChunk);
      if (got < 0) {
        header.readError = true;
        return header;
      }
      if (got == 0) {
        header.pieceEnded = true;
        return header;
      }
      const char* data = buffer_.data();
      std::size_t pos = 0;
      while (line < 2) {
        const void* lineEnd = std::memchr(data + pos, '\n', got - pos);
        if (lineEnd == nullptr) {
          header.lines[line].append(data + pos, got - pos);
          break;
        }
        const std::size_t end = static_cast<const char*>(lineEnd) - data;
        header.lines[line].append(data + pos, end - pos);
        pos = end + 1;
        ++line;
      }
      if (line == 2) {
        header.restBegin = pos;
        header.restEnd = static_cast<std::size_t>(got);
        return header;
      }
    }
  }

  // Copies the piece from its current position to its end onto the combined
  // file: in the kernel where the file systems allow it, through the buffer
  // otherwise. Any failure marks the combined file failed.
  void copyRest(int in) {
    if (failed_) return;
#ifdef __linux__
    for (;;) {
      const ssize_t copied = ::copy_file_range(in, nullptr, out_, nullptr, kCopyChunk, 0);
      if (copied > 0) {
        bytes_ += copied;
        continue;
      }
      if (copied == 0) return;
      if (errno == EINTR) continue;
      // Not supported between these two files (another file system, a file
      // system without the call): copy through user space instead. The
      // position of `in` has not moved past what was written.
      if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP) break;
      failed_ = true;
      return;
    }
#endif
    if (buffer_.size() < kCopyBuffer) buffer_.resize(kCopyBuffer);
    for (;;) {
      const ssize_t got = readSome(in, buffer_.data(), buffer_.size());
      if (got < 0) {
        failed_ = true;
        return;
      }
      if (got == 0) return;
      writeAll(buffer_.data(), static_cast<std::size_t>(got));
      if (failed_) return;
    }
  }

  static ssize_t readSome(int fd, char* data, std::size_t size) {
    for (;;) {
      const ssize_t got = ::read(fd, data, size);
      if (got >= 0 || errno != EINTR) return got;
    }
  }

  void writeAll(const std::string& text) { writeAll(text.data(), text.size()); }

  void writeAll(const char* data, std::size_t size) {
    while (size > 0 && !failed_) {
      const ssize_t written = ::write(out_, data, size);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        failed_ = true;
        return;
      }
      data += written;
      size -= static_cast<std::size_t>(written);
      bytes_ += static_cast<uint64_t>(written);
    }
  }

  int out_;
  std::vector<char> buffer_;
  bool first_ = true;
  bool failed_ = false;  // the combined file is not in a good state
  uint64_t bytes_ = 0;
  int files_ = 0;
  std::chrono::steady_clock::duration elapsed_{};
};

}  // namespace

bool ExtractaExecutor::createExtractaControlFileAndViewsMP(const AString& designFile,
                                                           const ViewSet& views,
                                                           const std::vector<AString>& nets,
                                                           std::vector<ActiveView>& activeViews) {
  ExtractaViewGenerator::maxConcurrentExtractas = ExtractaViewGenerator::DefaultConcurrencyLimit();
  VelDebug(1, L"*createExtractaControlFileAndViewsMP: workingdir %s\n",
           workingDir.FilePath().c_str());

  // Declared first, so that it is removed after the generators are dropped.
  const BackgroundPacker::Listening packing(packer.get());
  GeneratorList otherGenerators;
  GeneratorList connGenerators;
  try {
    const LongFileName design(designFile);

    // Every other view starts (or queues) first, so its process runs while the
    // connectivity survey is waited for and read.
    for (int n = 0; n < static_cast<int>(views.GetCount()); ++n) {
      const ViewType type = views.GetAt(n);
      if (type == kConn) continue;
      otherGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
          design, ExtractaViewDef(type, nets, false), workingDir, generatorOption, AString()));
    }

    if (views.Contains(kConn)) {
      {
        ExtractaViewGenerator survey(design, ExtractaViewDef::MakeNetListDef(nets), workingDir,
                                     generatorOption, AString(L"nets"));
        const AString surveyFile = survey.waitForViewFile().path;
        ExtractaViewData surveyData;
        readViewFile(VEL_ANSI(surveyFile), surveyData);
        VelDebug(1, L"createExtractaControlFileAndViewsMP %d connectivity records\n",
                 static_cast<int>(surveyData.sRecords().size()));
        const std::map<std::string, uint64_t> recordsPerNet =
            CountRecordsPerNet(surveyData, surveyFile);
        const RankedNets ranked = RankNets(recordsPerNet);

        std::vector<AString> splitNets;
        const std::size_t splitCount = std::min(kMaxSplitNets, ranked.size());
        for (std::size_t i = 0; i < splitCount; ++i) {
          const AString net(ranked[i].second);
          for (const std::vector<AString>& classes : kClassGroups) {
            connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
                design, ExtractaViewDef::MakeNetClassDef(net, classes), workingDir, generatorOption,
                SplitRunName(i, net, classes)));
          }
          splitNets.push_back(net);
        }

        // The remainder takes every net not split, whatever the net selection:
        // it excludes the split nets and selects nothing.
        connGenerators.push_back(boost::make_shared<ExtractaViewGenerator>(
            design, ExtractaViewDef(kConn, splitNets, true), workingDir, generatorOption,
            AString(L"remainder")));
        // The survey's table goes only now, while the first connectivity run
        // already works: releasing a large table takes a while.
      }

      const AString combinedPath = workingDir.FilePath() + MakeViewFileName(kConn, AString());
      ConnectivityMerge merge(combinedPath);
      std::vector<std::string> pieces;
      for (const GeneratorPtr& generator : connGenerators) {
        const AString piece = generator->waitForViewFile().path;
        merge.add(piece);
        pieces.push_back(VEL_ANSI(piece));
      }
      if (packer) packer->combinedFrom(VEL_ANSI(combinedPath), pieces);
      VelDebug(2, L"createExtractaControlFileAndViewsMP merged %d files, %lld bytes in %lld us\n",
               merge.filesAdded(), static_cast<long long>(merge.bytesWritten()),
               static_cast<long long>(merge.microseconds()));
      activeViews.push_back(ActiveView{kConn, combinedPath});
    }

    for (const GeneratorPtr& generator : otherGenerators) {
      const ActiveView view = generator->waitForViewFile();
      requireViewFile(view.path);
      activeViews.push_back(view);
    }
  } catch (const std::exception& failure) {
    errorMessage = AString(L"createExtractaControlFileAndViewsMP: ") + AString(failure.what());
    return false;
  }
  return true;
}
