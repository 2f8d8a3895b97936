// Runs a fuzz target once on every seed of its corpus, so that the checks
// each target makes against its independent reading of the rules run in the
// normal suite too; a disagreement aborts the test.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  int seeds = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream in(entry.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    ++seeds;
  }
  std::printf("%d seeds replayed\n", seeds);
  return seeds > 0 ? 0 : 1;
}
