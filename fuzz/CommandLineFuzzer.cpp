// Feeds argument vectors to the run driver's option scan. The input is the
// vector itself, its arguments separated by NUL bytes (argv[0] first). Every
// argument lives in a heap block of its exact size and the vector has exactly
// argc entries, with no terminating null, so any read past an argument or
// past the last argument is an AddressSanitizer report.
//
// The option state is checked against a plain reading of the rules, written
// on narrow bytes without the core library's string class: whole-argument
// matches ignoring ASCII case, the last two arguments never scanned, an
// option's value scanned again in its own right, lists split at every comma
// with empty pieces dropped, and every piece handed back byte for byte (also
// bytes that are not UTF-8).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "app/CommandLine.h"
#include "core/AString.h"
#include "core/VelAssert.h"

namespace {

// More arguments only make each run slower without reaching new code.
constexpr std::size_t kMaxArguments = 256;

// Whole-argument matches of "/name" or "-name", ignoring ASCII case only.
bool IsOption(std::string argument, const char* name) {
  for (char& c : argument)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return argument == std::string("/") + name || argument == std::string("-") + name;
}

void AppendPieces(const std::string& value, std::vector<std::string>& list) {
  std::size_t start = 0;
  for (;;) {
    const std::size_t comma = value.find(',', start);
    const std::size_t end = comma == std::string::npos ? value.size() : comma;
    if (end > start) list.push_back(value.substr(start, end - start));
    if (comma == std::string::npos) return;
    start = comma + 1;
  }
}

struct Expected {
  bool enoughArguments = false;
  bool zip = false;
  bool standardViews = true;
  std::vector<std::string> nets;
  std::vector<std::string> adds;
};

Expected ReadRules(const std::vector<std::string>& arguments) {
  Expected expected;
  const int argc = static_cast<int>(arguments.size());
  if (argc < 3) return expected;
  expected.enoughArguments = true;
  for (int ii = 0; ii <= argc - 3; ++ii) {
    const std::string& argument = arguments[ii];
    if (IsOption(argument, "z")) expected.zip = true;
    if (IsOption(argument, "cell")) expected.standardViews = false;
    if (IsOption(argument, "n")) AppendPieces(arguments[ii + 1], expected.nets);
    if (IsOption(argument, "add")) AppendPieces(arguments[ii + 1], expected.adds);
  }
  return expected;
}

std::vector<std::string> Narrow(const std::vector<AString>& list) {
  std::vector<std::string> narrow;
  for (const AString& piece : list) narrow.push_back(VEL_ANSI(piece));
  return narrow;
}

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "option scan disagrees with the rules on %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  std::vector<std::string> arguments;
  const char* text = reinterpret_cast<const char*>(bytes);
  std::size_t start = 0;
  for (;;) {
    const void* nul = std::memchr(text + start, '\0', size - start);
    const std::size_t end = nul ? static_cast<const char*>(nul) - text : size;
    arguments.emplace_back(text + start, end - start);
    if (!nul || arguments.size() == kMaxArguments) break;
    start = end + 1;
  }

  std::vector<std::unique_ptr<char[]>> storage;
  std::unique_ptr<const char*[]> argv(new const char*[arguments.size()]);
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    storage.emplace_back(new char[arguments[i].size() + 1]);
    std::memcpy(storage.back().get(), arguments[i].c_str(), arguments[i].size() + 1);
    argv[i] = storage.back().get();
  }

  ScopedAssertCapture reports;
  const CommandLine scanned = ScanCommandLine(static_cast<int>(arguments.size()), argv.get());
  const Expected expected = ReadRules(arguments);
  // Too few arguments are reported once; with enough, the value check of the
  // list options can never fail within the scan's bounds.
  Check(reports.reports().size() == (expected.enoughArguments ? 0u : 1u), "the assertions made");
  Check(scanned.enoughArguments == expected.enoughArguments, "whether there are enough arguments");
  Check(scanned.zip == expected.zip, "the zip option");
  Check(scanned.standardViews == expected.standardViews, "the cell option");
  Check(Narrow(scanned.nets) == expected.nets, "the net list");
  Check(Narrow(scanned.adds) == expected.adds, "the add list");
  return 0;
}
