// Throughput of extracta-sim on a generated design (in process and as the
// program runs it, as a child process), and of make-design.
//
// The design size is BENCH_TOOLS_RECORDS connectivity records (default
// 500000, about 95 MB); bytes_per_second is design bytes scanned per second.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "tools/common/FileWriter.h"
#include "tools/extracta_sim/ControlFile.h"
#include "tools/extracta_sim/DesignFile.h"
#include "tools/extracta_sim/ViewExtraction.h"
#include "tools/make_design/DesignGenerator.h"

extern char** environ;

namespace {

std::uint64_t DesignRecords() {
  const char* text = std::getenv("BENCH_TOOLS_RECORDS");
  return text ? std::strtoull(text, nullptr, 10) : 500000;
}

std::string ScratchPath(const std::string& name) {
  const char* base = std::getenv("TMPDIR");
  return std::string(base && *base ? base : "/tmp") + "/bench_tools_" + std::to_string(::getpid()) +
         "_" + name;
}

// The connectivity view as the program asks for it, and the survey of nets.
const char kConnectivityControl[] =
    "CONNECTIVITY\r\n\r\n"
    "\tCLASS = CONDUCTOR\r\n\tRAT_CONNECTED != 'YES'\r\n\tRAT_CONNECTED != 'NO'\r\n"
    "\tNET_NAME != ''\r\n\tOR\r\n"
    "\tCLASS = ETCH\r\n\tRAT_CONNECTED != 'YES'\r\n\tRAT_CONNECTED != 'NO'\r\n"
    "\tNET_NAME != ''\r\n\tOR\r\n"
    "\tCLASS = PIN\r\n\tRAT_CONNECTED != 'YES'\r\n\tRAT_CONNECTED != 'NO'\r\n"
    "\tNET_NAME != ''\r\n\tOR\r\n"
    "\tCLASS = VIA CLASS\r\n\tRAT_CONNECTED != 'YES'\r\n\tRAT_CONNECTED != 'NO'\r\n"
    "\tNET_NAME != ''\r\n\r\n"
    "\tNET_NAME_SORT\r\n\tNODE_SORT\r\n\tNODE_1_NUMBER\r\n\tNODE_2_NUMBER\r\n\tRECORD_TAG\r\n"
    "\tCLASS\r\n\tSUBCLASS\r\n\tNET_NAME\r\n\tGRAPHIC_DATA_NUMBER\r\n\tGRAPHIC_DATA_1\r\n"
    "\tGRAPHIC_DATA_2\r\n\tGRAPHIC_DATA_3\r\n\tGRAPHIC_DATA_4\r\n\tGRAPHIC_DATA_5\r\n"
    "\tGRAPHIC_DATA_6\r\n\tGRAPHIC_DATA_7\r\n\tGRAPHIC_DATA_8\r\n\tGRAPHIC_DATA_9\r\n"
    "\tGRAPHIC_DATA_10\r\n\tREFDES\r\n\tCOMP_CLASS\r\n\tPIN_NUMBER\r\n\tPIN_TYPE\r\n\tPIN_X\r\n"
    "\tPIN_Y\r\n\tPIN_ROTATION_ABSOLUTE\r\n\tPAD_STACK_NAME\r\n\tSTART_LAYER_NAME\r\n"
    "\tEND_LAYER_NAME\r\n\tWIREBOND_PROFILE_NAME\r\n\tWIREBOND_MATERIAL\r\n"
    "\tGRAPHIC_DATA_NAME\r\n\tVIA_X\r\n\tVIA_Y\r\n\tSYM_MIRROR\r\n\tSYM_ROTATE\r\n"
    "\tVIA_MIRROR\r\n\tVIA_ROTATION\r\n\tBOND_PAD\r\n\r\nEND\r\n\r\n";
const char kNetsControl[] = "CONNECTIVITY\r\n\r\n\tNET_NAME\r\n\r\nEND\r\n\r\n";

// One generated design and its control files, shared by every benchmark.
struct Fixture {
  Fixture() {
    design = ScratchPath("design.mcm");
    veltools::FileWriter out(design);
    make_design::DesignOptions options;
    options.seed = 1;
    options.connRecords = DesignRecords();
    make_design::WriteDesign(options, out);
    out.close();
    conn = ScratchPath("conn_control.txt");
    nets = ScratchPath("nets_control.txt");
    veltools::FileWriter connFile(conn);
    connFile.write(kConnectivityControl);
    connFile.close();
    veltools::FileWriter netsFile(nets);
    netsFile.write(kNetsControl);
    netsFile.close();
  }
  ~Fixture() {
    ::unlink(design.c_str());
    ::unlink(conn.c_str());
    ::unlink(nets.c_str());
  }
  std::string design, conn, nets;
};

Fixture& Shared() {
  static Fixture fixture;
  return fixture;
}

class NullSink : public extracta_sim::ByteSink {
 public:
  void write(std::string_view bytes) override { written += bytes.size(); }
  std::size_t written = 0;
};

void ExtractInProcess(benchmark::State& state, const char* control) {
  const extracta_sim::MappedFile file(Shared().design, "design file");
  const auto requests = extracta_sim::ParseControlFile(control);
  const extracta_sim::OutputStyle style;
  const std::vector<std::string> job(12, "x");
  for (auto _ : state) {
    extracta_sim::Design design(file.bytes());
    const extracta_sim::CompiledView view(requests[0], *design.findTable("CONNECTIVITY"), style);
    NullSink sink;
    extracta_sim::RecordCost cost(0);
    const auto counts = extracta_sim::ExtractView(view, job, style, sink, cost);
    benchmark::DoNotOptimize(counts);
    state.counters["records"] = static_cast<double>(counts.read);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * file.bytes().size()));
}

void BM_ConnectivityViewInProcess(benchmark::State& state) {
  ExtractInProcess(state, kConnectivityControl);
}
void BM_NetSurveyInProcess(benchmark::State& state) { ExtractInProcess(state, kNetsControl); }

// The whole tool as the program starts it: process start, mapping the
// design, reading it, and writing the view file.
void BM_ConnectivityViewAsChildProcess(benchmark::State& state) {
  const Fixture& fixture = Shared();
  const std::string output = ScratchPath("conn.txt");
  std::vector<std::string> args = {EXTRACTA_SIM_PATH, "-k",         "-c",  "-m",
                                   fixture.design,    fixture.conn, output};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  for (auto _ : state) {
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
      state.SkipWithError("cannot start extracta-sim");
      break;
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("extracta-sim failed");
      break;
    }
  }
  ::unlink(output.c_str());
  const off_t size = [&] {
    extracta_sim::MappedFile file(fixture.design, "design file");
    return static_cast<off_t>(file.bytes().size());
  }();
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * size);
}

void BM_MakeDesign(benchmark::State& state) {
  const std::string path = ScratchPath("generated.mcm");
  std::uint64_t bytes = 0;
  for (auto _ : state) {
    veltools::FileWriter out(path);
    make_design::DesignOptions options;
    options.seed = 2;
    options.connRecords = static_cast<std::uint64_t>(state.range(0));
    make_design::WriteDesign(options, out);
    bytes = out.bytesWritten();
    out.close();
  }
  ::unlink(path.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

}  // namespace

BENCHMARK(BM_ConnectivityViewInProcess)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_NetSurveyInProcess)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ConnectivityViewAsChildProcess)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MakeDesign)->Arg(500000)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
