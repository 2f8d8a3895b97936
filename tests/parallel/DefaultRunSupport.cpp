#include "tests/parallel/DefaultRunSupport.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

namespace defaultrun {

std::vector<SimRun> ReadSimLog(const std::string& path) {
  std::vector<SimRun> runs;
  if (!veltest::PathExists(path)) return runs;
  std::istringstream lines(veltest::ReadFile(path));
  SimRun run;
  while (lines >> run.startNs >> run.endNs >> run.pid &&
         std::getline(lines >> std::ws, run.control)) {
    runs.push_back(run);
  }
  std::stable_sort(runs.begin(), runs.end(),
                   [](const SimRun& a, const SimRun& b) { return a.startNs < b.startNs; });
  return runs;
}

int MostAtOnce(const std::vector<SimRun>& runs) {
  // +1 at each start, -1 at each end; an end sorts before a start at the same
  // instant, so back-to-back runs do not count as overlapping.
  std::vector<std::pair<uint64_t, int>> events;
  for (const SimRun& run : runs) {
    events.emplace_back(run.startNs, +1);
    events.emplace_back(run.endNs, -1);
  }
  std::sort(events.begin(), events.end());
  int current = 0;
  int most = 0;
  for (const auto& event : events) {
    current += event.second;
    most = std::max(most, current);
  }
  return most;
}

bool ProcessExists(int pid) { return ::kill(pid, 0) == 0 || errno == EPERM; }

std::vector<std::string> Lines(const std::string& bytes) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < bytes.size()) {
    const std::size_t end = bytes.find('\n', start);
    const std::size_t next = end == std::string::npos ? bytes.size() : end + 1;
    lines.push_back(bytes.substr(start, next - start));
    start = next;
  }
  return lines;
}

ViewParts SplitHeader(const std::string& bytes) {
  std::size_t cut = 0;
  for (int line = 0; line < 2 && cut < bytes.size(); ++line) {
    const std::size_t end = bytes.find('\n', cut);
    cut = end == std::string::npos ? bytes.size() : end + 1;
  }
  return {bytes.substr(0, cut), bytes.substr(cut)};
}

std::vector<std::string> SortedRecords(const std::string& bytes) {
  std::vector<std::string> records;
  for (const std::string& line : Lines(bytes)) {
    if (line.compare(0, 2, "S!") == 0) records.push_back(line);
  }
  std::sort(records.begin(), records.end());
  return records;
}

namespace {

// The fields of a record line after its "X!" tag, each ended by "!".
std::vector<std::string> Fields(std::string line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  std::vector<std::string> fields;
  std::size_t start = 2;
  for (std::size_t bang; (bang = line.find('!', start)) != std::string::npos; start = bang + 1) {
    fields.push_back(line.substr(start, bang - start));
  }
  return fields;
}

}  // namespace

std::vector<std::string> FieldValues(const std::string& bytes, const std::string& field) {
  const std::vector<std::string> lines = Lines(bytes);
  if (lines.empty()) return {};
  const std::vector<std::string> header = Fields(lines[0]);
  const auto column = std::find(header.begin(), header.end(), field) - header.begin();
  std::vector<std::string> values;
  for (const std::string& line : lines) {
    if (line.compare(0, 2, "S!") != 0) continue;
    values.push_back(Fields(line).at(column));
  }
  return values;
}

std::string MakeDesign(const std::string& directory, int seed, int connRecords) {
  const std::string path = directory + "/design" + std::to_string(seed) + ".mcm";
  const veltest::RunResult made =
      veltest::RunProgram({veltest::BinPath("make-design"), "--seed", std::to_string(seed),
                           "--conn-records", std::to_string(connRecords), "-o", path});
  if (made.exitCode != 0) throw std::runtime_error("make-design failed: " + made.out + made.err);
  return path;
}

std::string WithConnectivity(const std::string& design, const std::string& path,
                             const std::vector<NetClass>& records) {
  const std::string text = veltest::ReadFile(design);
  const std::size_t table = text.find("\nT!CONNECTIVITY!");
  if (table == std::string::npos) throw std::runtime_error(design + " has no connectivity table");
  const std::size_t headerBegin = text.find('\n', table + 1) + 1;
  const std::size_t recordsBegin = text.find('\n', headerBegin) + 1;
  const std::size_t nextTable = text.find("\nT!", recordsBegin - 1);
  const std::size_t recordsEnd = nextTable == std::string::npos ? text.size() : nextTable + 1;

  const std::vector<std::string> fields =
      Fields(text.substr(headerBegin, recordsBegin - headerBegin));
  std::string tableRecords;
  int tag = 0;
  for (const NetClass& record : records) {
    tableRecords += "S!";
    for (const std::string& field : fields) {
      if (field == "NET_NAME") tableRecords += record.first;
      if (field == "CLASS") tableRecords += record.second;
      if (field == "RECORD_TAG") tableRecords += "r" + std::to_string(++tag);
      tableRecords += "!";
    }
    tableRecords += "\r\n";
  }
  // The table line loses its byte count, so the new records need none.
  veltest::WriteFile(path, text.substr(0, table) + "\nT!CONNECTIVITY!\r\n" +
                               text.substr(headerBegin, recordsBegin - headerBegin) + tableRecords +
                               text.substr(recordsEnd));
  return path;
}

std::string PlainConnectivity(const std::string& design, const std::string& scratchDir) {
  const std::string control = scratchDir + "/plain_conn_control.txt";
  const std::string output = scratchDir + "/plain_conn.txt";
  {
    std::ofstream out(control, std::ios::binary | std::ios::trunc);
    WriteViewBlock(ExtractaViewDef(kConn, {}, false), out);
  }
  const veltest::RunResult run = veltest::RunProgram(
      {veltest::BinPath("extracta-sim"), "-k", "-c", "-m", design, control, output},
      {"",
       {{"EXTRACTA_SIM_DATE", "Sat Nov 21 10:02:11 2026"}, {"EXTRACTA_SIM_LOG", std::nullopt}}});
  if (run.exitCode != 0) throw std::runtime_error("plain connectivity run failed: " + run.out);
  return veltest::ReadFile(output);
}

EnvMap ExtractorEnv(const std::string& logFile) {
  return {{"VELTAR_EXTRACTA_PATHOVERRIDE", veltest::BinPath("extracta-sim")},
          {"EXTRACTA_SIM_LOG", logFile},
          {"EXTRACTA_SIM_DATE", "Sat Nov 21 10:02:11 2026"}};
}

std::vector<std::string> WorkingDirsIn(const std::string& directory) {
  std::vector<std::string> found;
  for (const std::string& name : veltest::ListDir(directory)) {
    if (name.size() > 7 && name.compare(0, 7, "extract") == 0 &&
        name.find_first_not_of("0123456789", 7) == std::string::npos) {
      found.push_back(name);
    }
  }
  return found;
}

ProgramRun RunProgram(const std::string& base, const std::vector<std::string>& arguments,
                      const EnvMap& extraEnv, bool keepWorkDir) {
  const std::string log = base + "/sim.log";
  std::remove(log.c_str());
  veltest::RunOptions options;
  options.env = ExtractorEnv(log);
  options.env["VELTAR_EXTRACTA_DEBUG"] =
      keepWorkDir ? std::optional<std::string>("") : std::nullopt;
  for (const auto& [name, value] : extraEnv) options.env[name] = value;

  std::vector<std::string> argv = {veltest::BinPath("VelExtracta")};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  ProgramRun run;
  run.result = veltest::RunProgram(argv, options);
  run.runs = ReadSimLog(log);
  const std::vector<std::string> dirs = WorkingDirsIn(base);
  if (dirs.size() == 1) run.workDir = base + "/" + dirs[0] + "/";
  return run;
}

std::vector<std::string> ExpectedControlFiles(const std::vector<std::string>& sanitisedSplitNets) {
  std::vector<std::string> names;
  for (const char* view : {"layer", "paddef", "fullgeo", "diestack", "net", "component", "outline",
                           "compositepad", "logicalpin"}) {
    names.push_back(std::string("extracta_control_") + view + ".txt");
  }
  names.push_back("extracta_control_connnets.txt");
  for (std::size_t i = 0; i < sanitisedSplitNets.size(); ++i) {
    for (const char* group : {"CONDUCTOR_ETCH", "PIN", "VIA_CLASS"}) {
      names.push_back("extracta_control_conn" + std::to_string(i) + "_" + sanitisedSplitNets[i] +
                      "_" + group + ".txt");
    }
  }
  names.push_back("extracta_control_connremainder.txt");
  return names;
}

}  // namespace defaultrun
