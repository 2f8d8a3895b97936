// extracta-sim: a stand-in for the layout system's extraction tool. It is
// called exactly as the program calls the real one:
//
//   extracta-sim -k [-c] -m "design" "control file" "output 1" ["output 2" ...]
//
// and writes one view file per view block of the control file. Failures are
// reported as the real tool reports them: a message on standard output and
// exit code 1. See tools/README.md for the design format and the
// EXTRACTA_SIM_* variables.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/FileWriter.h"
#include "tools/common/Platform.h"
#include "tools/extracta_sim/ControlFile.h"
#include "tools/extracta_sim/DesignFile.h"
#include "tools/extracta_sim/Faults.h"
#include "tools/extracta_sim/ViewExtraction.h"

namespace {

using namespace extracta_sim;

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Arguments {
  std::string design;
  std::string control;
  std::vector<std::string> outputs;
};

// The program wraps every path in double quotes; a process layer that does
// not take them off hands them on as they are.
std::string Unquote(std::string text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
    return text.substr(1, text.size() - 2);
  }
  return text;
}

Arguments ParseArguments(int argc, char** argv) {
  static const char kUsage[] =
      "usage: extracta-sim -k [-c] -m \"design\" \"control file\" \"output file\"...";
  std::vector<std::string> args(argv + 1, argv + argc);
  std::size_t i = 0;
  const auto expect = [&](const char* flag) {
    if (i >= args.size() || args[i] != flag) {
      throw UsageError(std::string("missing ") + flag + " option; " + kUsage);
    }
    ++i;
  };
  expect("-k");
  if (i < args.size() && args[i] == "-c") ++i;
  expect("-m");
  if (args.size() - i < 2) throw UsageError(std::string("missing file arguments; ") + kUsage);
  for (std::size_t j = i; j < args.size(); ++j) {
    if (args[j].size() > 1 && args[j][0] == '-') {
      throw UsageError("unexpected option " + args[j] + "; " + kUsage);
    }
  }
  Arguments parsed;
  parsed.design = Unquote(args[i]);
  parsed.control = Unquote(args[i + 1]);
  for (std::size_t j = i + 2; j < args.size(); ++j) parsed.outputs.push_back(Unquote(args[j]));
  return parsed;
}

std::uint64_t NowNs() {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                        std::chrono::system_clock::now().time_since_epoch())
                                        .count());
}

// Every run appends one line, so the program's benchmarks can see how many
// extractions overlapped and how long each took.
void AppendLog(const FaultPlan& plan, std::uint64_t startNs, const std::string& control) {
  // Once per run: a signal whose default is to be ignored leaves the run
  // going after the line written just before raising it.
  static bool logged = false;
  if (plan.logFile.empty() || logged) return;
  logged = true;
  const std::string line = std::to_string(startNs) + " " + std::to_string(NowNs()) + " " +
                           std::to_string(veltools::ProcessId()) + " " + BaseName(control) + "\n";
  std::FILE* log = std::fopen(plan.logFile.c_str(), "a");
  if (!log) return;
  std::fwrite(line.data(), 1, line.size(), log);
  std::fclose(log);
}

void Say(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

std::string ExtractionDate(const FaultPlan& plan) {
  if (!plan.date.empty()) return plan.date;
  const std::time_t now = std::time(nullptr);
  const std::tm local = veltools::LocalTime(now);
  char text[64];
  std::strftime(text, sizeof text, "%a %b %d %H:%M:%S %Y", &local);
  return text;
}

class FileSink : public ByteSink {
 public:
  explicit FileSink(veltools::FileWriter& file) : file_(file) {}
  void write(std::string_view bytes) override { file_.write(bytes); }

 private:
  veltools::FileWriter& file_;
};

class NullSink : public ByteSink {
 public:
  void write(std::string_view) override {}
};

// Passes on the view's first two lines (its header) and drops the rest.
class HeaderSink : public ByteSink {
 public:
  explicit HeaderSink(ByteSink& to) : to_(to) {}
  void write(std::string_view bytes) override {
    for (std::size_t at = 0; at < bytes.size() && lines_ < 2; ++at) {
      to_.write(bytes.substr(at, 1));
      if (bytes[at] == '\n') ++lines_;
    }
  }

 private:
  ByteSink& to_;
  int lines_ = 0;
};

const char* const kViewKeywords[] = {"LAYER",         "PAD_DEF",    "FULL_GEOMETRY", "CONNECTIVITY",
                                     "DIE_STACK_DEF", "NET",        "COMPONENT",     "GEOMETRY",
                                     "COMPOSITE_PAD", "LOGICAL_PIN"};

bool IsViewKeyword(const std::string& keyword) {
  for (const char* known : kViewKeywords) {
    if (keyword == known) return true;
  }
  return false;
}

// Applies the injections that come before any work; returns an exit code
// when the run is to end here.
std::optional<int> InjectBeforeWork(const FaultPlan& plan, std::uint64_t startNs,
                                    const std::string& control) {
  if (plan.grandchildSeconds) {
    const int pid = LeaveGrandchild(*plan.grandchildSeconds, plan.grandchildKeepsOutput);
    if (!plan.grandchildPidFile.empty()) {
      std::ofstream(plan.grandchildPidFile) << pid << "\n";
    }
  }
  if (plan.printBytes > 0) PrintFiller(plan.printBytes);
  if (plan.sleepMs > 0) {
    veltools::SleepMilliseconds(plan.sleepMs);
  }
  if (plan.signal != 0) {
    AppendLog(plan, startNs, control);
    std::fflush(stdout);
    veltools::DieBySignal(plan.signal);
  }
  if (plan.failCode) {
    Say(plan.failMessage);
    return *plan.failCode;
  }
  return std::nullopt;
}

int Extract(const Arguments& args, const FaultPlan& plan, bool injected) {
  const MappedFile designFile(args.design, "design file");
  const MappedFile controlFile(args.control, "control file");
  const std::vector<ViewRequest> requests = ParseControlFile(controlFile.bytes());
  if (requests.size() != args.outputs.size()) {
    throw UsageError("the control file has " + std::to_string(requests.size()) +
                     " view blocks but " + std::to_string(args.outputs.size()) +
                     " output files were given");
  }

  OutputStyle style;
  if (injected && plan.lfLineEnds) style.lineEnd = "\n";
  if (injected) style.droppedFields = plan.droppedFields;

  // Everything is checked before the first output file is touched.
  Design design(designFile.bytes());
  std::vector<CompiledView> views;
  for (const ViewRequest& request : requests) {
    if (!IsViewKeyword(request.keyword)) {
      throw ExtractionError("unknown view keyword " + request.keyword + " (control file line " +
                            std::to_string(request.line) + ")");
    }
    const DesignTable* table = design.findTable(request.keyword);
    if (!table) {
      throw ExtractionError("design file " + args.design + " holds no " + request.keyword +
                            " table");
    }
    views.emplace_back(request, *table, style);
  }

  std::vector<std::string> job = {BaseName(args.design), ExtractionDate(plan)};
  job.insert(job.end(), design.job().begin() + 2, design.job().end());

  RecordCost cost(injected ? plan.nsPerRecord : 0);
  if (injected && plan.writeNoOutput) {
    NullSink sink;
    for (const CompiledView& view : views) ExtractView(view, job, style, sink, cost);
    return 0;
  }
  // Written under another name and renamed into place: the output file is a
  // placeholder until then.
  const bool renamed = injected && plan.renameOutput;
  const auto writtenAs = [&](std::size_t i) {
    return renamed ? args.outputs[i] + ".writing" : args.outputs[i];
  };
  if (renamed) {
    for (std::size_t i = 0; i < views.size(); ++i) {
      veltools::FileWriter placeholder(args.outputs[i]);
      FileSink sink(placeholder);
      HeaderSink header(sink);
      RecordCost free(0);
      if (plan.headerPlaceholder) ExtractView(views[i], job, style, header, free);
      placeholder.close();
    }
  }
  std::vector<std::unique_ptr<veltools::FileWriter>> files;
  for (std::size_t i = 0; i < views.size(); ++i) {
    files.push_back(std::make_unique<veltools::FileWriter>(writtenAs(i)));
  }
  for (std::size_t i = 0; i < views.size(); ++i) {
    FileSink sink(*files[i]);
    ExtractView(views[i], job, style, sink, cost);
    const std::uint64_t size = files[i]->bytesWritten();
    files[i]->close();
    if (renamed) {
      std::error_code error;
      std::filesystem::rename(std::filesystem::u8path(writtenAs(i)),
                              std::filesystem::u8path(args.outputs[i]), error);
      if (error) throw std::runtime_error("cannot rename " + writtenAs(i) + ": " + error.message());
    }
    if (injected && plan.truncateOutput) {
      std::error_code error;
      std::filesystem::resize_file(std::filesystem::u8path(args.outputs[i]), size / 2, error);
      if (error) throw std::runtime_error("cannot truncate " + args.outputs[i]);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (veltools::RunAsSleeper(argc, argv)) return 0;
  veltools::UseBinaryStandardStreams();
  const std::uint64_t startNs = NowNs();
  FaultPlan plan;
  std::string control;
  int code = 1;
  try {
    plan = ReadFaultPlan([](const char* name) { return std::getenv(name); });
    const Arguments args = ParseArguments(argc, argv);
    control = args.control;
    const bool injected = AppliesTo(plan, control);
    std::optional<int> early;
    if (injected) early = InjectBeforeWork(plan, startNs, control);
    code = early ? *early : Extract(args, plan, injected);
  } catch (const std::exception& error) {
    Say(std::string("ERROR: ") + error.what() + "\n");
    code = 1;
  }
  AppendLog(plan, startNs, control);
  return code;
}
