#include "core/LongFileName.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace {

bool StatIsDirectory(const AString& path) {
  struct stat st;
  return stat(VEL_ANSI(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

void LongFileName::MakeItDirectory() {
  std::wstring text = path_.wstr();
  if (text.empty()) {
    text = L"./";
  } else {
    while (text.size() > 1 && text.back() == L'/' && text[text.size() - 2] == L'/') text.pop_back();
    if (text.back() != L'/') text += L'/';
  }
  path_ = AString(std::move(text));
  initialized_ = true;
}

bool LongFileName::IsDirectory() const { return initialized_ && StatIsDirectory(path_); }

bool LFN_CreateDirectory(const LongFileName& directory) {
  if (!directory.IsInitialized() || directory.FilePath().empty()) return false;
  return mkdir(VEL_ANSI(directory.FilePath()).c_str(), 0777) == 0;
}

bool LFN_IsExistingDirectory(const LongFileName& directory) {
  return directory.IsInitialized() && StatIsDirectory(directory.FilePath());
}

bool LFN_Delete(const LongFileName& path) {
  if (!path.IsInitialized() || path.FilePath().empty()) return false;
  std::string text = VEL_ANSI(path.FilePath());
  // "dir/" would make a link to a directory look like the directory itself;
  // the link is what is removed, never what it points to.
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  std::error_code ec;
  std::filesystem::remove_all(std::filesystem::path(text), ec);
  return !ec;
}
