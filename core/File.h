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

// True where a file that is open for reading can still be replaced by
// renaming another file onto it (POSIX). On Windows a reader in the way makes
// the writer's rename fail, so a file an extractor may rename into place is
// read only once its writer has ended.
extern const bool kVeltOpenFilesCanBeReplaced;

// What tells one file from another (its volume and its number there), and
// its size: a file renamed onto a path is another file than the one opened
// there before.
struct VeltFileId {
  std::uint64_t volume = 0, index = 0, size = 0;
  bool SameFile(const VeltFileId& other) const {
    return volume == other.volume && index == other.index;
  }
};

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

  // The open file's identity and size now.
  bool Identify(VeltFileId& id) const;

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
  // Creates the file only where nothing is at the path yet.
  bool CreateNew(const AString& path);

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

  // Moves the write position to `offset` from the start.
  bool Seek(std::uint64_t offset);
  // Has the system put what was written on the disk.
  bool Sync();
  // Gives the file the permissions of the file at `like` where there is one,
  // else those a new file gets from the user (where the system has them).
  bool TakePermissions(const AString& like);

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

// False when the path cannot be looked at.
bool VeltFileIdentity(const AString& path, VeltFileId& id);

// The path a chain of symbolic links ends at (narrow text): `path` itself
// when it is no link; what its last link names when that does not exist.
std::string VeltFinalPath(const std::string& path);

// A file written beside its destination and put in place whole: created
// under a name of its own next to the destination (beside a link's final
// target, so that the link stays a link), written and rewritten at will,
// then renamed onto the destination, or removed. Should this program die on
// the way, the watchdog removes it (core/Watchdog.h). An object destroyed
// before Commit removes its file.
class VeltFileInPlace {
 public:
  VeltFileInPlace() = default;
  ~VeltFileInPlace() { Abandon(); }
  VeltFileInPlace(const VeltFileInPlace&) = delete;
  VeltFileInPlace& operator=(const VeltFileInPlace&) = delete;

  bool Create(const std::string& destination);
  bool Write(const void* data, std::size_t size) {
    return file_.Write(static_cast<const char*>(data), size);
  }
  bool Seek(std::uint64_t offset) { return file_.Seek(offset); }
  // Synced, closed, given the destination's permissions, renamed onto it.
  bool Commit();
  void Abandon();

  // The system's code and reason for the last failure.
  int Error() const { return error_ ? error_ : file_.Error(); }
  std::string ErrorText() const;
  const std::string& temporary() const { return temporary_; }

 private:
  std::string destination_, temporary_;
  VeltOutputFile file_;
  int error_ = 0;
};

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
