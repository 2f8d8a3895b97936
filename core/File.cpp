#include "core/File.h"

#include <vector>

#include "core/SystemCalls.h"
#include "core/VelDebug.h"

bool VeltOutputFile::CopyInPieces(VeltInputFile& input, std::uint64_t& copied) {
  std::vector<char> buffer(1 << 20);
  for (;;) {
    const std::int64_t got = input.Read(buffer.data(), buffer.size());
    if (got < 0) {
      error_ = input.Error();
      return false;
    }
    if (got == 0) return true;
    if (!Write(buffer.data(), static_cast<std::size_t>(got))) return false;
    copied += static_cast<std::uint64_t>(got);
  }
}

bool VeltWriteFileInPlace(const std::string& path, const void* data, std::size_t size,
                          std::string& error) {
  const auto reason = [](const std::string& what, const std::string& name) {
    return what + " " + name + ": " + velt_system::LastErrorText();
  };
  std::string temporary;
  std::intptr_t handle = -1;
  if (!velt_system::CreateBeside(path, temporary, handle)) {
    error = reason("cannot create a temporary file for", path);
    return false;
  }
  error.clear();
  if (!velt_system::WriteDurably(handle, data, size)) error = reason("cannot write", path);
  if (!velt_system::CloseFile(handle) && error.empty()) error = reason("cannot write", path);
  if (error.empty() && !velt_system::MoveIntoPlace(temporary, path))
    error = reason("cannot replace", path);
  if (error.empty()) return true;
  // The failure is reported already; a temporary file left beside the path
  // is only traced.
  if (!velt_system::RemoveFile(temporary))
    VelDebug(1, L"*VeltWriteFileInPlace: cannot remove %s: %s\n", AString(temporary).wstr().c_str(),
             AString(velt_system::LastErrorText()).wstr().c_str());
  return false;
}
