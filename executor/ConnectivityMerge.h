#pragma once
// Concatenates the connectivity pieces into one view file: the first piece's
// two header lines, then everything after the header of every piece, byte for
// byte. Nothing is parsed; the bulk of each piece is copied by the system
// where it can, so the merge runs at the speed of a plain file copy.
//
// For an archive, the bodies need not be copied at all: the packer makes the
// combined file's entry from the pieces' own compressed bodies and reads only
// its header. The merge then leaves each body's place unwritten, and the last
// piece, usually the largest, costs nothing after the last child.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "core/AString.h"
#include "core/File.h"

class ConnectivityMerge {
 public:
  enum class Bodies {
    kCopied,
    kPlaced,  // the file has the size it would have, but only the header is written
  };

  // A combined file that did not open is reported when the first piece is
  // added to it, as a failure to add that piece.
  explicit ConnectivityMerge(const AString& combinedPath, Bodies bodies = Bodies::kCopied);
  ConnectivityMerge(const ConnectivityMerge&) = delete;
  ConnectivityMerge& operator=(const ConnectivityMerge&) = delete;

  // Appends one piece; throws ExtractaParserException naming the piece when
  // it cannot be opened, its header cannot be read, or the combined file
  // cannot take it.
  void add(const AString& piecePath);

  // The combined file's size so far, placed bodies included.
  uint64_t bytesWritten() const { return bytes_; }
  int filesAdded() const { return files_; }
  int64_t microseconds() const {
    return std::chrono::duration_cast<std::chrono::microseconds>(elapsed_).count();
  }

 private:
  struct Header {
    std::string lines[2];
    std::size_t restBegin = 0;  // [restBegin, restEnd) of the buffer was read past the header
    std::size_t restEnd = 0;
    uint64_t end = 0;         // where the piece's body begins
    bool pieceEnded = false;  // the piece ended within its header
    bool readError = false;
  };

  Header readHeader(VeltInputFile& piece);
  void append(const char* data, std::size_t size);
  void place(const AString& piecePath, const Header& header);
  void trace(const char* what, int error) const;

  VeltOutputFile out_;
  const Bodies bodies_;
  std::vector<char> buffer_;
  bool first_ = true;
  bool failed_ = false;  // the combined file is not in a good state
  uint64_t bytes_ = 0;
  int files_ = 0;
  std::chrono::steady_clock::duration elapsed_{};
};
