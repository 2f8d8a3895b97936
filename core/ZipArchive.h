#pragma once
// CZipArchive: writes one new zip archive (the VLX file). Files are deflated
// at the default level, zip64 records are used where sizes need them, and each
// entry is named by the file's absolute, normalised path without its root, so
// no entry name starts with "/" or holds "..".
//
// Nothing is written at the output path until Close succeeds: the archive is
// assembled in a temporary file beside it and renamed into place. An archive
// destroyed without a successful Close leaves the output path as it was.
//
// Every failure throws CZipException.

#include <stdexcept>
#include <string>

#include "core/AString.h"
#include "core/DeflateSegments.h"

struct zip;

class CZipException : public std::runtime_error {
 public:
  explicit CZipException(const std::string& message) : std::runtime_error(message) {}
};

class CZipArchive {
 public:
  // Open modes. Only the creation of a new archive is supported; an existing
  // file at the path is replaced when the archive is closed.
  enum OpenMode { kCreate = 2 };

  // Compression level -1: the deflate default; 0: stored; 1..9: deflate level.
  static constexpr int kDefaultLevel = -1;

  CZipArchive() = default;
  ~CZipArchive();
  CZipArchive(const CZipArchive&) = delete;
  CZipArchive& operator=(const CZipArchive&) = delete;

  // `path` is narrow text. Throws when the path is a directory, its parent
  // directory does not exist, the mode is not kCreate or a volume size (split
  // archive) is asked for.
  void Open(const std::string& path, int mode, long long volumeSize);

  // Adds one file, or a directory as a directory entry (its contents are not
  // added). With `fullPath` the entry name is the path's absolute normalised
  // form without its root; otherwise its last element. The file is read when
  // the archive is closed; a path that does not exist throws here. The last
  // two parameters (smartness flags, buffer size) keep the call's established
  // shape and are not used: the library chooses its own buffering.
  void AddNewFile(const std::string& path, int level, bool fullPath, int = 0,
                  unsigned long = 65536);

  // Adds a file whose data was deflated already: the entry is written from
  // the segments as they are, with the file's time and attributes, and never
  // compressed again. The file must still hold exactly the entry's data. The
  // store must outlive Close.
  void AddDeflatedFile(const std::string& path, bool fullPath, DeflatedEntry entry,
                       const DeflateStore& store);

  // Writes the archive. `afterException` non-zero abandons it instead (nothing
  // is written). The archive file keeps the time it was written at: asking to
  // update its time stamp throws. A failed write (a full disk, a file that
  // went away) throws, and the output path is left as it was.
  void Close(int afterException = 0, bool updateTimeStamp = false);

  bool IsOpen() const { return archive_ != nullptr; }

 private:
  std::string EntryName(const std::string& path, bool fullPath) const;
  void Discard();
  void WriteEmptyArchive();

  zip* archive_ = nullptr;
  std::string path_;
  long long entries_ = 0;
};

// The entry name for a path: absolute (relative to the current directory),
// "." and ".." resolved by text, the root dropped. Narrow text in and out.
std::string ZipEntryName(const std::string& path);
