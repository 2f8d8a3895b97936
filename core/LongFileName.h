#pragma once
// LongFileName: a path value. It is either unset (never assigned) or holds a
// path text. A directory name made with MakeItDirectory ends in exactly one
// separator, so file names are appended to its FilePath text directly.

#include "core/AString.h"

class LongFileName {
 public:
  LongFileName() = default;
  explicit LongFileName(const AString& path) : path_(path), initialized_(true) {}

  // Makes the text a directory name: it ends in one "/" afterwards. An empty
  // text becomes "./", the current directory (never the file system root).
  void MakeItDirectory();

  // True when the path names an existing directory.
  bool IsDirectory() const;

  bool IsInitialized() const { return initialized_; }
  const AString& FilePath() const { return path_; }

 private:
  AString path_;
  bool initialized_ = false;
};

// Creates one directory. Fails (false) when it exists already, when its parent
// does not exist, or when the file system refuses.
bool LFN_CreateDirectory(const LongFileName& directory);

// True when the path names an existing directory (a link to one counts).
bool LFN_IsExistingDirectory(const LongFileName& directory);

// Removes a file, or a directory with everything in it. Links inside the tree
// are removed, never followed. False when anything could not be removed.
bool LFN_Delete(const LongFileName& path);
