#include "core/File.h"

#include <vector>

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
