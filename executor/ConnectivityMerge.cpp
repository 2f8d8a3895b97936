#include "executor/ConnectivityMerge.h"

#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "core/ExtractaParserException.h"
#include "core/Process.h"
#include "core/VelDebug.h"

namespace {

// The header is read through a small buffer: whatever is read past it has to
// be written from here, while the rest goes through the system's copy.
constexpr std::size_t kHeaderChunk = 16 << 10;

// A header line of the combined file ends in CR LF like every line of a view
// file, also where the piece's line was missing, cut short or ended in a bare
// LF; otherwise a header line would run into the first record.
std::string WithLineEnd(const std::string& line) {
  return !line.empty() && line.back() == '\r' ? line + "\n" : line + "\r\n";
}

}  // namespace

ConnectivityMerge::ConnectivityMerge(const AString& combinedPath, Bodies bodies)
    : bodies_(bodies), buffer_(kHeaderChunk) {
  if (!out_.Create(combinedPath)) {
    failed_ = true;
    trace("cannot create the combined file", out_.Error());
  }
}

void ConnectivityMerge::add(const AString& piecePath) {
  const auto started = std::chrono::steady_clock::now();
  VeltInputFile piece;
  if (!piece.Open(piecePath)) {
    trace("cannot open a piece", piece.Error());
    throw ExtractaParserException(AString(L"failed to open file ") + piecePath);
  }

  // The first two lines are the header: "A!" names the fields, "J!" describes
  // the extraction. Only the first piece's header is kept.
  const Header header = readHeader(piece);
  if (first_) {
    const std::string lines = WithLineEnd(header.lines[0]) + WithLineEnd(header.lines[1]);
    append(lines.data(), lines.size());
    first_ = false;
  }
  if (header.readError) {
    trace("cannot read a piece's header", piece.Error());
    throw ExtractaParserException(AString(L"missing header in file ") + piecePath);
  }

  if (bodies_ == Bodies::kPlaced) {
    place(piecePath, header);
  } else {
    append(buffer_.data() + header.restBegin, header.restEnd - header.restBegin);
    if (!header.pieceEnded && !failed_ && !out_.CopyFrom(piece, bytes_)) {
      failed_ = true;
      trace("cannot copy a piece", out_.Error());
    }
  }
  if (failed_) {
    throw ExtractaParserException(AString(L"error adding ") + piecePath +
                                  L" to combined connectivity file");
  }
  ++files_;
  elapsed_ += std::chrono::steady_clock::now() - started;
}

// Reads until two lines have ended or the piece has ended. A line is taken
// without its "\n" (a CR before it stays); a missing line reads as empty,
// and a short piece is no error.
ConnectivityMerge::Header ConnectivityMerge::readHeader(VeltInputFile& piece) {
  Header header;
  int line = 0;
  for (uint64_t offset = 0;;) {
    const int64_t got = piece.Read(buffer_.data(), kHeaderChunk);
    if (got < 0) {
      header.readError = true;
      return header;
    }
    if (got == 0) {
      header.pieceEnded = true;
      return header;
    }
    const char* data = buffer_.data();
    const auto size = static_cast<std::size_t>(got);
    std::size_t pos = 0;
    while (line < 2) {
      const void* lineEnd = std::memchr(data + pos, '\n', size - pos);
      if (lineEnd == nullptr) {
        header.lines[line].append(data + pos, size - pos);
        break;
      }
      const std::size_t end = static_cast<const char*>(lineEnd) - data;
      header.lines[line].append(data + pos, end - pos);
      pos = end + 1;
      ++line;
    }
    if (line == 2) {
      header.restBegin = pos;
      header.restEnd = size;
      header.end = offset + pos;
      return header;
    }
    offset += size;
  }
}

// The body's place: the piece's size past its header.
void ConnectivityMerge::place(const AString& piecePath, const Header& header) {
  if (failed_ || header.pieceEnded) return;
  std::error_code error;
  const uint64_t size =
      std::filesystem::file_size(std::filesystem::u8path(VEL_ANSI(piecePath)), error);
  if (error || size < header.end) {
    failed_ = true;
    VelDebug(1, L"*ConnectivityMerge: cannot find a piece's size: %s\n",
             AString(error ? error.message() : std::string("shorter than its header")).c_str());
    return;
  }
  const uint64_t body = size - header.end;
  if (out_.Extend(body)) {
    bytes_ += body;
  } else {
    failed_ = true;
    trace("cannot make room for a piece", out_.Error());
  }
}

void ConnectivityMerge::append(const char* data, std::size_t size) {
  if (failed_ || size == 0) return;
  if (out_.Write(data, size)) {
    bytes_ += size;
  } else {
    failed_ = true;
    trace("cannot write the combined file", out_.Error());
  }
}

// The messages are fixed; the system's reason goes to the trace.
void ConnectivityMerge::trace(const char* what, int error) const {
  VelDebug(1, L"*ConnectivityMerge: %s: %s\n", AString(what).c_str(),
           AString(VeltFormatSystemMessage(error)).c_str());
}
