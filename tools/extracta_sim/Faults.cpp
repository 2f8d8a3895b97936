#include "tools/extracta_sim/Faults.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/common/Platform.h"

namespace extracta_sim {

namespace {

std::uint64_t ReadCount(const char* name, const char* text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (*text == '\0' || *text == '-' || *end != '\0' || errno != 0) {
    throw FaultPlanError(std::string(name) + ": expected a non-negative whole number, got '" +
                         text + "'");
  }
  return value;
}

void ReadOutputModes(const char* text, FaultPlan& plan) {
  const std::string value = text;
  std::size_t start = 0;
  while (start <= value.size()) {
    std::size_t comma = value.find(',', start);
    if (comma == std::string::npos) comma = value.size();
    const std::string mode = value.substr(start, comma - start);
    static const std::string kDrop = "drop-field:";
    if (mode == "none") {
      plan.writeNoOutput = true;
    } else if (mode == "truncate") {
      plan.truncateOutput = true;
    } else if (mode == "rename" || mode == "rename-header") {
      plan.renameOutput = true;
      plan.headerPlaceholder = mode == "rename-header";
    } else if (mode == "lf") {
      plan.lfLineEnds = true;
    } else if (mode.compare(0, kDrop.size(), kDrop) == 0 && mode.size() > kDrop.size()) {
      plan.droppedFields.push_back(mode.substr(kDrop.size()));
    } else {
      throw FaultPlanError("EXTRACTA_SIM_OUTPUT: unknown mode '" + mode +
                           "' (none, truncate, rename, rename-header, lf, drop-field:NAME)");
    }
    start = comma + 1;
  }
}

// A bracket expression at `p` ("[a-z]", "[!0-9]"); whether `c` is in it, and
// where the pattern goes on. An unclosed "[" is an ordinary character.
bool InBracket(const std::string& pattern, std::size_t& p, char c) {
  std::size_t i = p + 1;
  const bool negated = i < pattern.size() && (pattern[i] == '!' || pattern[i] == '^');
  if (negated) ++i;
  bool found = false;
  for (bool first = true; i < pattern.size() && (first || pattern[i] != ']'); first = false) {
    const char low = pattern[i];
    if (i + 2 < pattern.size() && pattern[i + 1] == '-' && pattern[i + 2] != ']') {
      found = found || (low <= c && c <= pattern[i + 2]);
      i += 3;
    } else {
      found = found || low == c;
      ++i;
    }
  }
  if (i >= pattern.size()) {  // unclosed
    ++p;
    return c == '[';
  }
  p = i + 1;
  return found != negated;
}

// Shell wildcard matching as fnmatch() without flags: "*", "?", brackets and
// backslash escapes.
bool Glob(const std::string& pattern, std::size_t p, const std::string& text, std::size_t t) {
  while (p < pattern.size()) {
    const char c = pattern[p];
    if (c == '*') {
      for (std::size_t rest = t; rest <= text.size(); ++rest)
        if (Glob(pattern, p + 1, text, rest)) return true;
      return false;
    }
    if (t >= text.size()) return false;
    if (c == '?') {
      ++p;
    } else if (c == '[') {
      if (!InBracket(pattern, p, text[t])) return false;
    } else {
      const char literal = c == '\\' && p + 1 < pattern.size() ? pattern[++p] : c;
      if (literal != text[t]) return false;
      ++p;
    }
    ++t;
  }
  return t == text.size();
}

}  // namespace

FaultPlan ReadFaultPlan(const EnvLookup& lookup) {
  FaultPlan plan;
  if (const char* v = lookup("EXTRACTA_SIM_MATCH")) plan.match = v;
  if (const char* v = lookup("EXTRACTA_SIM_FAIL")) {
    const std::string text = v;
    const std::size_t colon = text.find(':');
    const std::string code = text.substr(0, colon);
    const std::uint64_t value = ReadCount("EXTRACTA_SIM_FAIL", code.c_str());
    if (colon == std::string::npos || value > 255) {
      throw FaultPlanError("EXTRACTA_SIM_FAIL: expected CODE:MESSAGE with CODE 0 to 255, got '" +
                           text + "'");
    }
    plan.failCode = static_cast<int>(value);
    plan.failMessage = text.substr(colon + 1);
  }
  if (const char* v = lookup("EXTRACTA_SIM_SIGNAL")) {
    const std::uint64_t value = ReadCount("EXTRACTA_SIM_SIGNAL", v);
    if (value < 1 || value >= static_cast<std::uint64_t>(NSIG)) {
      throw FaultPlanError(std::string("EXTRACTA_SIM_SIGNAL: no such signal '") + v + "'");
    }
    plan.signal = static_cast<int>(value);
  }
  if (const char* v = lookup("EXTRACTA_SIM_PRINT_BYTES")) {
    plan.printBytes = ReadCount("EXTRACTA_SIM_PRINT_BYTES", v);
  }
  if (const char* v = lookup("EXTRACTA_SIM_SLEEP_MS")) {
    plan.sleepMs = ReadCount("EXTRACTA_SIM_SLEEP_MS", v);
  }
  if (const char* v = lookup("EXTRACTA_SIM_NS_PER_RECORD")) {
    plan.nsPerRecord = ReadCount("EXTRACTA_SIM_NS_PER_RECORD", v);
  }
  if (const char* v = lookup("EXTRACTA_SIM_GRANDCHILD_SECONDS")) {
    char* end = nullptr;
    const double seconds = std::strtod(v, &end);
    if (*v == '\0' || *end != '\0' || !(seconds >= 0)) {
      throw FaultPlanError(std::string("EXTRACTA_SIM_GRANDCHILD_SECONDS: expected seconds, got '") +
                           v + "'");
    }
    plan.grandchildSeconds = seconds;
  }
  if (const char* v = lookup("EXTRACTA_SIM_GRANDCHILD_PIDFILE")) plan.grandchildPidFile = v;
  if (const char* v = lookup("EXTRACTA_SIM_GRANDCHILD_KEEP_OUTPUT")) {
    plan.grandchildKeepsOutput = std::string(v) != "0" && *v != '\0';
  }
  if (const char* v = lookup("EXTRACTA_SIM_OUTPUT")) ReadOutputModes(v, plan);
  if (const char* v = lookup("EXTRACTA_SIM_LOG")) plan.logFile = v;
  if (const char* v = lookup("EXTRACTA_SIM_DATE")) plan.date = v;
  return plan;
}

std::string BaseName(const std::string& path) {
  const std::size_t slash = path.find_last_of("/\\");
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool AppliesTo(const FaultPlan& plan, const std::string& controlPath) {
  if (plan.match.empty()) return true;
  return Glob(plan.match, 0, BaseName(controlPath), 0);
}

int LeaveGrandchild(double seconds, bool keepOutput) {
  return veltools::StartSleeper(seconds, keepOutput);
}

void PrintFiller(std::uint64_t count) {
  static const std::string kLine =
      "extracta-sim: reading design database, please wait .............\n";
  std::string block;
  while (block.size() + kLine.size() <= (1 << 16)) block += kLine;
  while (count > 0) {
    const std::size_t size = count < block.size() ? static_cast<std::size_t>(count) : block.size();
    std::fwrite(block.data(), 1, size, stdout);
    count -= size;
  }
  std::fflush(stdout);
}

}  // namespace extracta_sim
