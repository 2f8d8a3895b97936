// vel-test-child: a child process for the process tests, standing in for
// extracta. It only records its arguments and does what VEL_TEST_CHILD says, a
// ";"-separated list run in order:
//   record=FILE  append a line to FILE on how the child was started
//   say=TEXT     print TEXT (no line end added) on standard output
//   sleep=MS     sleep MS milliseconds
//   exit=N       end with exit code N once the list is done (default 0)
//   run=N        run argv[N] with the arguments after it, as a launcher
//                would, and end with its exit code
// A record line, one append so that children sharing a file do not mix
// them, is fields each ended by a tab:
//   cwd  stdin-target  open-fds ("0,1,2")  argv[0]  argv[1] ...
// On Windows the stdin target is "NUL" for the null device, and the open
// descriptors are not known ("-").

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/PlatformHelpers.h"

namespace {

void Append(const std::string& file, const std::string& text) {
  if (std::FILE* out = std::fopen(file.c_str(), "ab")) {
    std::fwrite(text.data(), 1, text.size(), out);
    std::fclose(out);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // What it is told to print arrives byte for byte on every system.
  veltest::UseBinaryStandardOutput();
  const char* actions = std::getenv("VEL_TEST_CHILD");
  std::istringstream list(actions ? actions : "");
  int exitCode = 0;
  for (std::string action; std::getline(list, action, ';');) {
    const std::size_t equals = std::min(action.find('='), action.size());
    const std::string key = action.substr(0, equals);
    const std::string value = equals < action.size() ? action.substr(equals + 1) : "";
    if (key == "record") {
      std::string text =
          std::filesystem::current_path().u8string() + "\t" + veltest::ChildStreams();
      for (int i = 0; i < argc; ++i) text += std::string(argv[i]) + "\t";
      Append(value, text + "\n");
    } else if (key == "say") {
      std::fwrite(value.data(), 1, value.size(), stdout);
      std::fflush(stdout);
    } else if (key == "sleep") {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::atoll(value.c_str())));
    } else if (key == "exit") {
      exitCode = std::atoi(value.c_str());
    } else if (key == "run") {
      const int first = std::atoi(value.c_str());
      if (first <= 0 || first >= argc) return 125;
      return veltest::RunCommand(argv + first);
    }
  }
  return exitCode;
}
