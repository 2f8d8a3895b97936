#include "core/LongFileName.h"

#include "core/File.h"

void LongFileName::MakeItDirectory() {
  std::wstring text = path_.wstr();
  // A bare drive ("C:") is the current directory of that drive, as the empty
  // text is the current directory.
  const bool bareDrive = text.size() == 2 && text[1] == L':' && VeltIsPathSeparator(L'\\');
  if (text.empty() || bareDrive) text += L".";
  // A name written with "\" goes on with "\"; "/" everywhere else.
  const std::size_t lastSeparator = text.find_last_of(L"/\\");
  const wchar_t separator =
      lastSeparator != std::wstring::npos && VeltIsPathSeparator(text[lastSeparator])
          ? text[lastSeparator]
          : L'/';
  if (!VeltIsPathSeparator(text.back())) text += separator;
  while (text.size() > 1 && VeltIsPathSeparator(text[text.size() - 2]))
    text.erase(text.size() - 2, 1);
  path_ = AString(std::move(text));
  initialized_ = true;
}

bool LongFileName::IsDirectory() const { return initialized_ && VeltIsDirectory(path_); }

bool LFN_CreateDirectory(const LongFileName& directory) {
  if (!directory.IsInitialized() || directory.FilePath().empty()) return false;
  return VeltCreateDirectory(directory.FilePath());
}

bool LFN_IsExistingDirectory(const LongFileName& directory) {
  return directory.IsInitialized() && VeltIsDirectory(directory.FilePath());
}

bool LFN_Delete(const LongFileName& path) {
  if (!path.IsInitialized() || path.FilePath().empty()) return false;
  std::wstring text = path.FilePath().wstr();
  // "dir/" would make a link to a directory look like the directory itself;
  // the link is what is removed, never what it points to.
  while (text.size() > 1 && VeltIsPathSeparator(text.back())) text.pop_back();
  return VeltRemoveTree(AString(std::move(text)));
}
