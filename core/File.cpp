#include "core/File.h"

#include <filesystem>
#include <random>
#include <sstream>
#include <vector>

#include "core/Process.h"
#include "core/SystemCalls.h"
#include "core/VelDebug.h"
#include "core/Watchdog.h"

namespace fs = std::filesystem;

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

std::string VeltFinalPath(const std::string& path) {
  // A chain longer than the system's own limit (40 on Linux) is a loop: what
  // is reached then is used, and the write fails where the system says so.
  fs::path at = fs::u8path(path);
  for (int link = 0; link < 40; ++link) {
    std::error_code error;
    if (!fs::is_symlink(fs::symlink_status(at, error))) break;
    const fs::path target = fs::read_symlink(at, error);
    if (error) break;
    at = target.is_absolute() ? target : at.parent_path() / target;
  }
  return at.u8string();
}

bool VeltFileInPlace::Create(const std::string& destination) {
  Abandon();
  destination_ = VeltFinalPath(destination);
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::ostringstream name;
    name << destination_ << "." << std::hex << random() << ".tmp";
    temporary_ = name.str();
    // Told before it exists: killed the moment after, nothing stays.
    VeltRemoveWhenKilled(temporary_);
    if (file_.CreateNew(AString(temporary_))) return true;
    error_ = file_.Error();
    // Only a name that is taken is worth another try; a folder that cannot
    // be written into or a full disk fails the same way every time.
    const bool taken = VeltPathExists(AString(temporary_));
    VeltForgetRemoval(temporary_);
    temporary_.clear();
    if (!taken) return false;
  }
  return false;
}

bool VeltFileInPlace::Commit() {
  if (temporary_.empty()) return false;
  const bool written =
      file_.TakePermissions(AString(destination_)) && file_.Sync() && file_.Close();
  if (!written) {
    error_ = file_.Error();
    Abandon();
    return false;
  }
  if (!velt_system::MoveIntoPlace(temporary_, destination_)) {
    error_ = velt_system::LastError();
    Abandon();
    return false;
  }
  VeltForgetRemoval(temporary_);
  temporary_.clear();
  return true;
}

void VeltFileInPlace::Abandon() {
  if (temporary_.empty()) return;
  file_.Close();
  if (!velt_system::RemoveFile(temporary_))
    VelDebug(1, L"*VeltFileInPlace: cannot remove %s: %s\n", AString(temporary_).c_str(),
             AString(velt_system::LastErrorText()).c_str());
  VeltForgetRemoval(temporary_);
  temporary_.clear();
}

// One line, as every system message the program prints.
std::string VeltFileInPlace::ErrorText() const { return VeltFormatSystemMessage(Error()); }
