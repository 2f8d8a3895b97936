// The parent's CPU use while it waits on children that sleep, as a share of
// one core: the waits poll every millisecond, and that must stay cheap (the
// aim is at most 2%). Two cases: several generators waited for one after the
// other, and one runExtracta.
//
// bench_process_wait [--seconds S] [--runs N] [--children K]
// The children are vel-test-child from the same bin directory.

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "process/ExtractaViewGenerator.h"

namespace {

double CpuSeconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

std::string OwnDirectory() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  std::string text(path, static_cast<std::size_t>(n));
  return text.substr(0, text.rfind('/'));
}

// CPU share of one core, in percent, over what `wait` takes.
template <typename Wait>
double MeasureShare(Wait&& wait) {
  const double cpuBefore = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  wait();
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return 100.0 * (CpuSeconds() - cpuBefore) / wall;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 2, runs = 5, children = 4;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--seconds")) seconds = std::atoi(argv[i + 1]);
    if (!std::strcmp(argv[i], "--runs")) runs = std::atoi(argv[i + 1]);
    if (!std::strcmp(argv[i], "--children")) children = std::atoi(argv[i + 1]);
  }
  const std::string program = OwnDirectory() + "/vel-test-child";
  setenv("VELTAR_EXTRACTA_PATHOVERRIDE", program.c_str(), 1);
  setenv("VEL_TEST_CHILD", ("sleep=" + std::to_string(seconds * 1000)).c_str(), 1);

  char pattern[] = "/tmp/vel-bench-wait-XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string work = std::string(pattern) + "/";
  const LongFileName workingDir{AString(work)};
  const LongFileName design{AString(work + "design.mcm")};
  ExtractaViewGenerator::maxConcurrentExtractas = static_cast<uint32_t>(children);

  std::printf("parent CPU while children sleep %d s (share of one core; aim: at most 2%%)\n",
              seconds);
  std::vector<double> poolShares, singleShares;
  for (int run = 0; run < runs; ++run) {
    std::vector<std::unique_ptr<ExtractaViewGenerator>> generators;
    for (int i = 0; i < children; ++i)
      generators.push_back(
          std::make_unique<ExtractaViewGenerator>(design, ExtractaViewDef(kFullGeo, {}, false),
                                                  workingDir, true, AString(std::to_string(i))));
    poolShares.push_back(MeasureShare([&] {
      for (auto& generator : generators) generator->waitForViewFile();
    }));
    singleShares.push_back(MeasureShare([&] {
      ExtractaViewGenerator::runExtracta(design, LongFileName(AString(work + "control.txt")), true,
                                         {{kLayer, AString(work + "layer.txt")}}, workingDir);
    }));
    std::printf("run %d: %d generators %.2f%%, runExtracta %.2f%%\n", run + 1, children,
                poolShares.back(), singleShares.back());
  }
  std::printf("median: %d generators %.2f%%, runExtracta %.2f%%\n", children, Median(poolShares),
              Median(singleShares));

  std::error_code ignored;
  std::filesystem::remove_all(pattern, ignored);
  return 0;
}
