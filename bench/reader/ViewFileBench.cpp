// Measures the view file grammar against the plain hand-written reader on
// generated connectivity-survey files (the "nets" run's output: one NET_NAME
// per connectivity record), the largest file the system parses.
//
// For each size it prints the throughput of both readers (median of several
// reads of the same cached file) and their peak memory (median over fresh
// child processes, each reading once), and compares them with the targets:
// the grammar at least half as fast as the plain reader, and at most the file
// size plus 128 bytes per record at its peak.
//
//   bench_reader [records...]        default: 100000 2000000
//   bench_reader --peak grammar|plain FILE   (child mode, used internally)

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/reader/PlainViewReader.h"
#include "reader/ExtractaViewGrammar.h"

namespace {

using Reader = std::function<void(const std::string&, ExtractaViewData&)>;

struct NamedReader {
  const char* name;
  Reader read;
};

const NamedReader kReaders[] = {
    {"grammar", readViewFile},
    {"plain", plainReadViewFile},
};

// Power and ground nets carry most connectivity records of a package design.
struct SupplyNet {
  const char* name;
  double share;
};
const SupplyNet kSupplyNets[] = {
    {"GND", 0.34},        {"VDD_CORE", 0.12}, {"VDDIO_1V8", 0.05},   {"VDD_DDR", 0.04},
    {"VSS_ANALOG", 0.02}, {"VDD_PLL", 0.01},  {"AVDD_SERDES", 0.01},
};

// Signal net names of the usual families; a few are long hierarchical names.
std::string signalNetName(std::size_t index) {
  char name[64];
  const unsigned n = static_cast<unsigned>(index);
  switch (index % 6) {
    case 0:
      std::snprintf(name, sizeof name, "DDR%u_DQ%u", n / 6 % 4, n / 24 % 72);
      break;
    case 1:
      std::snprintf(name, sizeof name, "PCIE_TX%u_%c", n / 6 % 16, n / 96 % 2 ? 'N' : 'P');
      break;
    case 2:
      std::snprintf(name, sizeof name, "GPIO_%u", n / 6);
      break;
    case 3:
      std::snprintf(name, sizeof name, "U%u/CTRL/ADDR<%u>", n / 6 % 9 + 1, n / 54 % 32);
      break;
    case 4:
      std::snprintf(name, sizeof name, "SERDES%u_RX%c", n / 6 % 24, n / 144 % 2 ? 'N' : 'P');
      break;
    default:
      std::snprintf(name, sizeof name, "NET_%06u", n);
      break;
  }
  return name + std::string("_") + std::to_string(index);
}

struct GeneratedFile {
  std::string path;
  std::uintmax_t bytes = 0;
  std::size_t distinctNets = 0;
};

GeneratedFile writeSurveyFile(const std::string& path, std::size_t records) {
  std::mt19937_64 random(20261121);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<std::string> signals;
  for (std::size_t i = 0; i < std::max<std::size_t>(records / 40, 1); ++i) {
    signals.push_back(signalNetName(i));
  }
  std::vector<bool> used(signals.size());

  std::ofstream out(path, std::ios::binary);
  out << "A!NET_NAME!\r\n"
      << "J!pkg_top.mcm!Sat Nov 21 10:02:11 2026!-6000.00!-6000.00!6000.00!6000.00!0.01!um!"
         "PKG TOP!0.010000 um!8!UP TO DATE!\r\n";
  GeneratedFile file{path};
  for (std::size_t r = 0; r < records; ++r) {
    double u = unit(random);
    const char* supply = nullptr;
    for (const SupplyNet& net : kSupplyNets) {
      if (u < net.share) {
        supply = net.name;
        break;
      }
      u -= net.share;
    }
    if (supply) {
      out << "S!" << supply << "!\r\n";
    } else {
      // Squaring skews the signal nets too: low indices get more records.
      const double v = unit(random);
      const auto index = static_cast<std::size_t>(v * v * static_cast<double>(signals.size()));
      used[index] = true;
      out << "S!" << signals[index] << "!\r\n";
    }
  }
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
  file.bytes = std::filesystem::file_size(path);
  file.distinctNets = std::count(used.begin(), used.end(), true) + std::size(kSupplyNets);
  return file;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// A field of /proc/self/status in bytes (its values are in kB).
long statusBytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::size_t length = std::strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':') {
      return std::atol(line.c_str() + length + 1) * 1024;
    }
  }
  return -1;
}

// Child mode: read the file once and print the growth of the resident set
// from before the read to its high-water mark, and the record count.
int measurePeak(const std::string& readerName, const std::string& path) {
  for (const NamedReader& reader : kReaders) {
    if (readerName != reader.name) continue;
    const long baseline = statusBytes("VmRSS");
    ExtractaViewData data;
    reader.read(path, data);
    const long peak = statusBytes("VmHWM");
    std::printf("%ld %zu\n", peak - baseline, data.sRecords().size());
    return 0;
  }
  return 2;
}

// Runs this program in child mode in a fresh process, so that neither the
// parent's heap nor an earlier read counts towards the peak.
double childPeakBytes(const char* reader, const std::string& path, std::size_t expectedRecords) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    execl("/proc/self/exe", "bench_reader", "--peak", reader, path.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  std::string output;
  char buffer[256];
  ssize_t got;
  while ((got = read(fds[0], buffer, sizeof buffer)) > 0) output.append(buffer, got);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  long bytes = 0;
  std::size_t records = 0;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
      std::sscanf(output.c_str(), "%ld %zu", &bytes, &records) != 2 || records != expectedRecords) {
    throw std::runtime_error(std::string("peak measurement of ") + reader + " failed");
  }
  return static_cast<double>(bytes);
}

// Both readers must build the same table, or comparing them means nothing.
std::size_t checkSameTable(const std::string& path) {
  ExtractaViewData grammar;
  ExtractaViewData plain;
  readViewFile(path, grammar);
  plainReadViewFile(path, plain);
  if (grammar.columns() != plain.columns() || grammar.jRecord() != plain.jRecord() ||
      grammar.sRecords() != plain.sRecords()) {
    throw std::runtime_error("the readers built different tables from " + path);
  }
  return grammar.sRecords().size();
}

struct Figures {
  double seconds = 0;
  double peakBytes = 0;
};

void benchmarkSize(const std::filesystem::path& dir, std::size_t records) {
  const GeneratedFile file =
      writeSurveyFile((dir / ("nets_" + std::to_string(records) + ".txt")).string(), records);
  const std::size_t parsed = checkSameTable(file.path);
  const int timedRuns = records > 500000 ? 5 : 9;
  const int peakRuns = 3;

  std::vector<std::vector<double>> seconds(std::size(kReaders));
  for (int run = 0; run < timedRuns; ++run) {
    for (std::size_t r = 0; r < std::size(kReaders); ++r) {
      ExtractaViewData data;
      const auto begin = std::chrono::steady_clock::now();
      kReaders[r].read(file.path, data);
      const auto end = std::chrono::steady_clock::now();
      seconds[r].push_back(std::chrono::duration<double>(end - begin).count());
    }
  }
  std::vector<Figures> figures(std::size(kReaders));
  for (std::size_t r = 0; r < std::size(kReaders); ++r) {
    std::vector<double> peaks;
    for (int run = 0; run < peakRuns; ++run) {
      peaks.push_back(childPeakBytes(kReaders[r].name, file.path, parsed));
    }
    figures[r] = {median(seconds[r]), median(peaks)};
  }

  const double megabytes = static_cast<double>(file.bytes) / 1e6;
  const double count = static_cast<double>(parsed);
  std::printf(
      "survey file: %zu records, %.1f MB, %zu distinct nets (medians of %d timed reads, %d "
      "peak measurements)\n",
      parsed, megabytes, file.distinctNets, timedRuns, peakRuns);
  std::printf("  %-8s %10s %14s %12s %22s\n", "reader", "MB/s", "records/s", "peak MB",
              "peak B/record - file");
  for (std::size_t r = 0; r < std::size(kReaders); ++r) {
    const Figures& f = figures[r];
    std::printf("  %-8s %10.1f %14.0f %12.1f %22.1f\n", kReaders[r].name, megabytes / f.seconds,
                count / f.seconds, f.peakBytes / 1e6,
                (f.peakBytes - static_cast<double>(file.bytes)) / count);
  }
  const double ratio = figures[1].seconds / figures[0].seconds;
  const double perRecord = (figures[0].peakBytes - static_cast<double>(file.bytes)) / count;
  std::printf(
      "  grammar/plain throughput %.2f (target >= 0.50: %s); grammar peak %.1f B/record "
      "above file size (target <= 128: %s)\n\n",
      ratio, ratio >= 0.5 ? "met" : "MISSED", perRecord, perRecord <= 128 ? "met" : "MISSED");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 4 && std::string(argv[1]) == "--peak") return measurePeak(argv[2], argv[3]);

    std::vector<std::size_t> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(std::stoul(argv[i]));
    if (sizes.empty()) sizes = {100000, 2000000};

    std::filesystem::path dir = std::filesystem::temp_directory_path() / "vel_bench_reader_XXXXXX";
    std::string pattern = dir.string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create " + pattern);
    dir = pattern;
    for (const std::size_t records : sizes) benchmarkSize(dir, records);
    std::filesystem::remove_all(dir);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "bench_reader: %s\n", e.what());
    return 1;
  }
}
