// Designs and view files for the tests: the sample design, designs made to
// size, view files produced by the stand-in, their parts and records, and the
// stand-in's log of its runs.

#include <sstream>

#include "tests/support/Internal.h"
#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

namespace veltest {

namespace {

// The fields of a record line after its "X!" tag, each ended by "!".
std::vector<std::string> Fields(std::string line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  std::vector<std::string> fields;
  std::size_t start = 2;
  for (std::size_t bang; (bang = line.find('!', start)) != std::string::npos; start = bang + 1)
    fields.push_back(line.substr(start, bang - start));
  return fields;
}

}  // namespace

const std::string& SampleDesign() {
  static const TempDir dir;
  static const std::string design = MakeDesign(dir.path(), 5, 300);
  return design;
}

std::string MakeDesign(const std::string& directory, int seed, int connRecords) {
  const std::string path = directory + "/design" + std::to_string(seed) + ".mcm";
  const RunResult made =
      RunProgram({BinPath("make-design"), "--seed", std::to_string(seed), "--conn-records",
                  std::to_string(connRecords), "--quiet", "-o", path});
  if (made.exitCode != 0) throw std::runtime_error("make-design failed: " + made.out + made.err);
  return path;
}

std::string WithConnectivity(const std::string& design, const std::string& path,
                             const std::vector<NetClass>& records) {
  const std::string text = ReadFile(design);
  const std::size_t table = text.find("\nT!CONNECTIVITY!");
  if (table == std::string::npos) throw std::runtime_error(design + " has no connectivity table");
  const std::size_t headerBegin = text.find('\n', table + 1) + 1;
  const std::size_t recordsBegin = text.find('\n', headerBegin) + 1;
  const std::size_t nextTable = text.find("\nT!", recordsBegin - 1);
  const std::size_t recordsEnd = nextTable == std::string::npos ? text.size() : nextTable + 1;
  const std::string header = text.substr(headerBegin, recordsBegin - headerBegin);
  std::string tableRecords;
  int tag = 0;
  for (const NetClass& record : records) {
    tableRecords += "S!";
    for (const std::string& field : Fields(header)) {
      if (field == "NET_NAME") tableRecords += record.first;
      if (field == "CLASS") tableRecords += record.second;
      if (field == "RECORD_TAG") tableRecords += "r" + std::to_string(++tag);
      tableRecords += "!";
    }
    tableRecords += "\r\n";
  }
  // The table line loses its byte count, so the new records need none.
  WriteFile(path, text.substr(0, table) + "\nT!CONNECTIVITY!\r\n" + header + tableRecords +
                      text.substr(recordsEnd));
  return path;
}

std::string PlainConnectivity(const std::string& design, const std::string& scratchDir) {
  const std::string control = scratchDir + "/plain_conn_control.txt";
  const std::string output = scratchDir + "/plain_conn.txt";
  std::ostringstream block;
  WriteViewBlock(ExtractaViewDef(kConn, {}, false), block);
  WriteFile(control, block.str());
  const RunResult run =
      RunProgram({BinPath("extracta-sim"), "-k", "-c", "-m", design, control, output},
                 {"", {{"EXTRACTA_SIM_DATE", kDate}, {"EXTRACTA_SIM_LOG", std::nullopt}}});
  if (run.exitCode != 0) throw std::runtime_error("plain connectivity run failed: " + run.out);
  return ReadFile(output);
}

std::vector<std::string> Lines(const std::string& bytes) {
  std::vector<std::string> lines;
  for (std::size_t start = 0, end; start < bytes.size(); start = end) {
    end = std::min(bytes.find('\n', start), bytes.size() - 1) + 1;
    lines.push_back(bytes.substr(start, end - start));
  }
  return lines;
}

ViewParts SplitHeader(const std::string& bytes) {
  const std::vector<std::string> lines = Lines(bytes);
  const std::size_t cut = lines.size() < 2 ? bytes.size() : lines[0].size() + lines[1].size();
  return {bytes.substr(0, cut), bytes.substr(cut)};
}

std::vector<std::string> SortedRecords(const std::string& bytes) {
  std::vector<std::string> records;
  for (const std::string& line : Lines(bytes))
    if (line.compare(0, 2, "S!") == 0) records.push_back(line);
  std::sort(records.begin(), records.end());
  return records;
}

std::vector<std::string> FieldValues(const std::string& bytes, const std::string& field) {
  const std::vector<std::string> lines = Lines(bytes);
  if (lines.empty()) return {};
  const std::vector<std::string> header = Fields(lines[0]);
  const auto column = std::find(header.begin(), header.end(), field) - header.begin();
  std::vector<std::string> values;
  for (const std::string& line : lines)
    if (line.compare(0, 2, "S!") == 0) values.push_back(Fields(line).at(column));
  return values;
}

std::vector<SimRun> ReadSimLog(const std::string& path) {
  std::vector<SimRun> runs;
  std::istringstream lines(ReadIfAny(path));
  SimRun run;
  while (lines >> run.startNs >> run.endNs >> run.pid &&
         std::getline(lines >> std::ws, run.control)) {
    // Written in text mode: on Windows each line ends in CR LF.
    if (!run.control.empty() && run.control.back() == '\r') run.control.pop_back();
    runs.push_back(run);
  }
  std::stable_sort(runs.begin(), runs.end(),
                   [](const SimRun& a, const SimRun& b) { return a.startNs < b.startNs; });
  return runs;
}

int MostAtOnce(const std::vector<SimRun>& runs) {
  // The most are under way as one starts; a run that ended at that very
  // instant does not count.
  std::ptrdiff_t most = 0;
  for (const SimRun& run : runs)
    most = std::max(most, std::count_if(runs.begin(), runs.end(), [&](const SimRun& other) {
                      return other.startNs <= run.startNs && run.startNs < other.endNs;
                    }));
  return static_cast<int>(most);
}

}  // namespace veltest
