// Feeds arbitrary bytes to extracta-sim's control file reader. The reader
// must either return view requests or throw ControlFileError; any other
// exception, and any memory or undefined-behaviour error, is a failure.
//
// What it returns must be well formed (keywords, fields and conditions named,
// line numbers within the file, every alternative holding a condition), and
// it must be a fixed point: the requests written back in the block layout the
// program writes, and read again, give the same requests. A reader that
// loses, splits or merges anything on the way fails that comparison.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tools/extracta_sim/ControlFile.h"

namespace {

using extracta_sim::Alternative;
using extracta_sim::Condition;
using extracta_sim::ControlFileError;
using extracta_sim::ParseControlFile;
using extracta_sim::ViewRequest;

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "control file reader: %s\n", what);
  std::abort();
}

// A name as the reader hands it back: no blank at either end, no line end.
bool IsName(const std::string& text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t'; };
  return !text.empty() && !blank(text.front()) && !blank(text.back()) &&
         text.find('\n') == std::string::npos;
}

std::size_t LineCount(std::string_view text) {
  return std::count(text.begin(), text.end(), '\n') + (!text.empty() && text.back() != '\n');
}

void CheckWellFormed(const std::vector<ViewRequest>& requests, std::size_t lines) {
  std::size_t previousLine = 0;
  for (const ViewRequest& request : requests) {
    Check(IsName(request.keyword) && request.keyword != "END", "keyword not a clean name");
    Check(request.line > previousLine && request.line <= lines, "keyword line out of order");
    previousLine = request.line;
    // A filter condition is never read as a field, nor an '=' as part of a
    // condition's field.
    for (const std::string& field : request.fields)
      Check(IsName(field) && field.find('=') == std::string::npos, "field not a clean name");
    for (const Alternative& alternative : request.alternatives) {
      Check(!alternative.empty(), "an alternative without conditions");
      for (const Condition& condition : alternative) {
        Check(IsName(condition.field) && condition.field.find('=') == std::string::npos &&
                  condition.value.find('\n') == std::string::npos,
              "condition not clean");
        Check(condition.line > request.line && condition.line <= lines,
              "condition line outside its block");
      }
    }
  }
}

// The block layout the program writes, CR LF line ends; every value quoted,
// since a quoted value runs to the last quote of its line and so carries
// anything a line can hold.
std::string WriteBack(const std::vector<ViewRequest>& requests) {
  std::string text;
  for (const ViewRequest& request : requests) {
    text += request.keyword + "\r\n\r\n";
    for (std::size_t a = 0; a < request.alternatives.size(); ++a) {
      if (a > 0) text += "\tOR\r\n";
      for (const Condition& condition : request.alternatives[a]) {
        text += "\t" + condition.field + (condition.equal ? " = '" : " != '") + condition.value +
                "'\r\n";
      }
    }
    if (!request.alternatives.empty()) text += "\r\n";
    if (request.fields.empty()) {
      text += "\t\r\n";
    } else {
      for (const std::string& field : request.fields) text += "\t" + field + "\r\n";
      text += "\r\n";
    }
    text += "END\r\n\r\n";
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  std::vector<ViewRequest> requests;
  try {
    requests = ParseControlFile(text);
  } catch (const ControlFileError&) {
    return 0;
  }
  CheckWellFormed(requests, LineCount(text));

  const std::string written = WriteBack(requests);
  std::vector<ViewRequest> again;
  try {
    again = ParseControlFile(written);
  } catch (const ControlFileError& error) {
    std::fprintf(stderr, "control file reader refuses what it read before: %s\n", error.what());
    std::abort();
  }
  // Every value is quoted when written back, so equal texts mean equal requests.
  Check(WriteBack(again) == written, "reading the written-back requests gives other requests");
  return 0;
}
