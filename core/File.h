#pragma once
// Files and directories as the rest of the program needs them from the
// system: files read and written from start to end in large pieces (the
// connectivity merge copies hundreds of megabytes), directory queries, the
// current directory, and a small file put in place whole.
//
// Failures carry the system's error code (Error()), so a caller whose message
// is fixed can still trace the cause.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/AString.h"

// A file read from its start; closed with the object.
class VeltInputFile {
 public:
  VeltInputFile() = default;
  ~VeltInputFile();
  VeltInputFile(const VeltInputFile&) = delete;
  VeltInputFile& operator=(const VeltInputFile&) = delete;

  // False when the file cannot be opened for reading.
  bool Open(const AString& path);

  // Reads at most `size` bytes at the current position: the count read, 0 at
  // the end of the file, -1 on failure.
  std::int64_t Read(char* buffer, std::size_t size);

  int Error() const { return error_; }

 private:
  friend class VeltOutputFile;
  std::intptr_t handle_ = -1;
  int error_ = 0;
};

// A file written from its start: created, or emptied when it exists; closed
// with the object.
class VeltOutputFile {
 public:
  VeltOutputFile() = default;
  ~VeltOutputFile();
  VeltOutputFile(const VeltOutputFile&) = delete;
  VeltOutputFile& operator=(const VeltOutputFile&) = delete;

  bool Create(const AString& path);

  // Writes all of the bytes; false when any could not be written.
  bool Write(const char* data, std::size_t size);

  // Appends the input from its current position to its end; `copied` grows
  // by every byte written, also when the copy fails midway. Where the system
  // can copy between files without passing the bytes through this program,
  // it does.
  bool CopyFrom(VeltInputFile& input, std::uint64_t& copied);

  // Grows the file by `bytes` that are never written: they read as zeros and
  // take no room on a file system that can leave a hole. Later writes go
  // after them.
  bool Extend(std::uint64_t bytes);

  // Closes the file; false when the system reports a failed write only now.
  bool Close();

  int Error() const { return error_; }

 private:
  // The copy through a buffer of this program's, where the system has no
  // better way.
  bool CopyInPieces(VeltInputFile& input, std::uint64_t& copied);

  std::intptr_t handle_ = -1;
  int error_ = 0;
};

// What the zip writer records of a file beside its bytes.
struct VeltFileInfo {
  bool regular = false;
  bool directory = false;
  std::uint64_t size = 0;
  std::int64_t modified = 0;  // seconds since 1970, UTC
  // Unix permission and type bits, where the system has them.
  bool hasUnixMode = false;
  std::uint32_t unixMode = 0;
};

// False when the path does not name anything that can be looked at.
bool VeltFileStatus(const AString& path, VeltFileInfo& info);

// True when the path names an existing directory (a link to one counts).
bool VeltIsDirectory(const AString& path);

// True when the path names anything that exists (a link: what it points to).
bool VeltPathExists(const AString& path);

// Creates one directory; false when it exists already, its parent does not
// exist, or the system refuses.
bool VeltCreateDirectory(const AString& path);

// Removes a file, or a directory with everything in it; links inside the
// tree are removed, never followed. False when anything could not be removed.
bool VeltRemoveTree(const AString& path);

// The current directory without a trailing separator (except at a drive's
// root), narrow text; empty when the system cannot tell.
std::string VeltCurrentDirectory();

// True for a character that separates path elements ("/"; on Windows "\"
// too).
bool VeltIsPathSeparator(wchar_t c);

// Puts a file holding exactly `size` bytes at `path` (narrow text), replacing
// any file there: written beside it first and renamed into place, so that
// readers see the old file or the whole new one. On failure the path is left
// as it was and `error` says why.
bool VeltWriteFileInPlace(const std::string& path, const void* data, std::size_t size,
                          std::string& error);

// An anonymous temporary file of the C runtime's, open for reading and
// writing: removed when it is closed, or when the process ends however it
// ends. Null when none can be made (errno says why).
std::FILE* VeltOpenTemporaryFile();

// Moves a C runtime file's position to `offset` from its start, files
// beyond 2 GiB included; false on failure (errno says why). A seek also
// flushes what a write left in the stream's buffer.
bool VeltSeekFile(std::FILE* file, std::uint64_t offset);

// A write past the process's file size limit fails like any other failed
// write, instead of ending the program on the spot, so that a run reaches its
// failure path and removes its working directory.
void VeltFailWritesPastSizeLimit();
