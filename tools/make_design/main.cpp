// make-design: writes a sample package design snapshot for the stand-in
// extractor, from a seed and a size.
//
//   make-design --seed S --conn-records N -o FILE [--nets N] [--geo-records N]
//               [--layers N] [--name NAME] [--title TITLE] [--quiet]

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tools/common/FileWriter.h"
#include "tools/common/Platform.h"
#include "tools/make_design/DesignGenerator.h"

namespace {

const char kUsage[] =
    "usage: make-design --seed S --conn-records N -o FILE [--nets N] [--geo-records N]\n"
    "                   [--layers N] [--name NAME] [--title TITLE] [--quiet]\n";

std::uint64_t ReadNumber(const std::string& option, const char* text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (*text == '\0' || *text == '-' || *end != '\0' || errno != 0) {
    throw std::invalid_argument(option + " expects a non-negative whole number, got '" + text +
                                "'");
  }
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  veltools::UseBinaryStandardStreams();
  make_design::DesignOptions options;
  std::string output;
  bool quiet = false;
  try {
    for (int i = 1; i < argc; ++i) {
      const std::string option = argv[i];
      if (option == "--help" || option == "-h") {
        std::fputs(kUsage, stdout);
        return 0;
      }
      if (option == "--quiet") {
        quiet = true;
        continue;
      }
      if (i + 1 >= argc) throw std::invalid_argument("missing value after " + option);
      const char* value = argv[++i];
      if (option == "--seed") {
        options.seed = ReadNumber(option, value);
      } else if (option == "--conn-records") {
        options.connRecords = ReadNumber(option, value);
      } else if (option == "--nets") {
        options.nets = ReadNumber(option, value);
      } else if (option == "--geo-records") {
        options.geoRecords = ReadNumber(option, value);
      } else if (option == "--layers") {
        options.conductorLayers =
            static_cast<int>(std::min<std::uint64_t>(ReadNumber(option, value), 1000));
      } else if (option == "--name") {
        options.name = value;
      } else if (option == "--title") {
        options.title = value;
      } else if (option == "-o" || option == "--output") {
        output = value;
      } else {
        throw std::invalid_argument("unknown option " + option);
      }
    }
    if (output.empty()) throw std::invalid_argument("no output file (-o FILE)");
    for (const std::string* text : {&options.name, &options.title}) {
      if (text->find_first_of("!\r\n") != std::string::npos) {
        throw std::invalid_argument("--name and --title cannot hold '!' or line ends");
      }
    }

    const auto start = std::chrono::steady_clock::now();
    veltools::FileWriter out(output);
    make_design::DesignSummary summary;
    try {
      summary = make_design::WriteDesign(options, out);
    } catch (...) {
      // No half-written design is left behind to be mistaken for a whole one.
      out.discard();
      throw;
    }
    const std::uint64_t bytes = out.bytesWritten();
    out.close();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!quiet) {
      std::printf("%s: %llu bytes, %llu nets, %.2f s\n", output.c_str(),
                  static_cast<unsigned long long>(bytes),
                  static_cast<unsigned long long>(summary.nets), seconds);
      for (const auto& [keyword, records] : summary.tableRecords) {
        std::printf("  %-14s %llu records\n", keyword.c_str(),
                    static_cast<unsigned long long>(records));
      }
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make-design: %s\n%s", error.what(), kUsage);
    return 2;
  }
}
