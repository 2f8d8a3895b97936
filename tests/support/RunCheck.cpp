#include "tests/support/RunCheck.h"

#include <sys/stat.h>
#include <zip.h>
#ifndef _WIN32
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

namespace veltest {

namespace fs = std::filesystem;

namespace {

const char kMarkVariable[] = "VEL_FAULT_RUN";
const char kDate[] = "Sat Nov 21 10:02:11 2026";

// A file's bytes, or "" when it cannot be read (a process gone from /proc).
std::string ReadIfAny(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// True when `text` from `start` on is one or more of `digits`.
bool OnlyFrom(const std::string& text, std::size_t start, const char* digits) {
  return start < text.size() && text.find_first_not_of(digits, start) == std::string::npos;
}

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

ProgramRun::ProgramRun(const std::vector<std::string>& args, const LaunchOptions& options) {
  static std::atomic<int> counter{0};
  mark_ = std::to_string(std::random_device()()) + "-" + std::to_string(++counter) + "-" +
          std::to_string(std::random_device()());
  std::string program = BinPath("VelExtracta");
  std::string extractor = BinPath("extracta-sim");
#ifndef _WIN32
  if (options.unprivileged && geteuid() == 0) {
    programCopy_.emplace();
    chmod(programCopy_->path().c_str(), 0755);
    for (std::string* copy : {&program, &extractor}) {
      const std::string to = *programCopy_ / Leaf(*copy);
      fs::copy_file(*copy, to, fs::copy_options::overwrite_existing);
      chmod(to.c_str(), 0755);
      *copy = to;
    }
  }
#endif
  LaunchOptions launch = options;
  launch.env = {{"VELTAR_EXTRACTA_PATHOVERRIDE", extractor},
                {"VELTAR_EXTRACTA_DEBUG", std::nullopt},
                {"EXTRACTA_SIM_DATE", kDate},
                {kMarkVariable, mark_}};
  for (const auto& [name, value] : options.env) launch.env[name] = value;
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  started_ = StartProgram(argv, launch, streams_ / "out", streams_ / "err");
}

ProgramRun::~ProgramRun() {
  if (!result_) Wait(0);
  // A test that failed may have left processes behind; they go with it.
  for (const auto& [pid, command] : RunProcesses(started_.pid, MarkEntry())) KillProcess(pid);
  ReleaseProgram(started_);
}

std::string ProgramRun::MarkEntry() const { return std::string(kMarkVariable) + "=" + mark_; }

const RunResult& ProgramRun::Wait(double timeoutSeconds) {
  if (!result_) result_ = WaitProgram(started_, timeoutSeconds, streams_ / "out", streams_ / "err");
  return *result_;
}

std::vector<std::string> ProgramRun::Survivors() const {
  std::vector<std::string> survivors;
  for (const auto& [pid, command] : RunProcesses(started_.pid, MarkEntry()))
    if (pid != started_.pid) survivors.push_back(std::to_string(pid) + " " + command);
  return survivors;
}

namespace {

// Nothing of the run is left. A process that a job ended may stay in the
// Windows process list for a moment after the program has ended.
void ExpectNoSurvivors(const ProgramRun& run) {
  PollUntil([&] { return run.Survivors().empty(); }, kOnWindows ? 1.0 : 0.0);
  EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
}

}  // namespace

KeptRun RunKeeping(const std::string& base, const std::vector<std::string>& args,
                   LaunchOptions options) {
  static int kept = 0;
  options.env["VELTAR_EXTRACTA_DEBUG"] = "";
  options.env["EXTRACTA_SIM_LOG"] = base + "/sim.log";
  std::remove((base + "/sim.log").c_str());
  ProgramRun run(args, options);
  const RunResult& result = run.Wait();  // debug traces on standard error
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_TRUE(IsPointerLine(result.out, "VLX file written: ")) << result.out;
  ExpectNoSurvivors(run);
  const std::vector<std::string> dirs = WorkingDirs(base);
  EXPECT_EQ(dirs.size(), 1u);
  if (dirs.size() != 1) return {"", {}};
  // Runs within one second share the directory's name.
  const std::string moved = base + "/kept" + std::to_string(++kept);
  EXPECT_EQ(std::rename((base + "/" + dirs[0]).c_str(), moved.c_str()), 0);
  return {moved + "/", ReadSimLog(base + "/sim.log")};
}

void ExpectOutcome(ProgramRun& run, int exitCode, bool successLine, const std::string& err) {
  const RunResult& result = run.Wait();
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.exitCode, exitCode) << result.err;
  EXPECT_TRUE(successLine ? IsPointerLine(result.out, "VLX file written: ") : result.out.empty())
      << result.out;
  EXPECT_EQ(result.err, err);
  ExpectNoSurvivors(run);
}

std::vector<std::string> WorkingDirs(const std::string& directory) {
  // "extract" and the run number, which is negative for a clock before 1970.
  std::vector<std::string> found;
  for (const std::string& entry : ListDir(directory))
    if (entry.rfind("extract", 0) == 0 && OnlyFrom(entry, entry[7] == '-' ? 8 : 7, "0123456789"))
      found.push_back(entry);
  return found;
}

std::map<std::string, std::string> Snapshot(const std::string& directory) {
  std::map<std::string, std::string> entries;
  const fs::path root = fs::u8path(directory);
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    const std::string relative = it->path().generic_u8string().substr(directory.size() + 1);
    entries[relative] =
        fs::is_directory(it->symlink_status()) ? "<dir>" : ReadFile(it->path().u8string());
  }
  return entries;
}

std::map<std::string, ArchiveFile> ReadArchive(const std::string& path) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
  std::map<std::string, ArchiveFile> entries;
  EXPECT_NE(archive, nullptr) << "not an archive: " << path;
  if (!archive) return entries;
  for (zip_uint64_t i = 0; i < static_cast<zip_uint64_t>(zip_get_num_entries(archive, 0)); ++i) {
    zip_stat_t st;
    zip_stat_index(archive, i, 0, &st);
    std::string data(st.size, '\0');
    zip_file_t* file = zip_fopen_index(archive, i, 0);
    // Reading to the end checks the entry's CRC.
    char more = 0;
    EXPECT_TRUE(file &&
                zip_fread(file, data.data(), st.size) == static_cast<zip_int64_t>(st.size) &&
                zip_fread(file, &more, 1) == 0)
        << "damaged entry " << st.name;
    if (file) zip_fclose(file);
    entries[st.name] = {data, st.comp_method};
  }
  zip_close(archive);
  return entries;
}

std::vector<std::string> ArchiveNames(const std::string& archive) {
  std::vector<std::string> names;
  for (const auto& entry : ReadArchive(archive)) names.push_back(entry.first);
  return names;
}

std::vector<std::string> ArchiveLeaves(const std::string& archive) {
  std::vector<std::string> leaves;
  for (const std::string& name : ArchiveNames(archive)) leaves.push_back(Leaf(name));
  std::sort(leaves.begin(), leaves.end());
  return leaves;
}

std::string ArchiveEntry(const std::string& archive, const std::string& leaf) {
  std::vector<std::string> found;
  for (const auto& [name, file] : ReadArchive(archive))
    if (Leaf(name) == leaf) found.push_back(file.data);
  EXPECT_EQ(found.size(), 1u) << leaf;
  return found.empty() ? "" : found[0];
}

std::string Leaf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

bool IsPointerLine(const std::string& text, const std::string& label) {
  const std::string start = label + "0x";
  if (text.rfind(start, 0) != 0 || text.back() != '\n') return false;
  return OnlyFrom(text.substr(0, text.size() - 1), start.size(), "0123456789abcdef");
}

std::string WrappedExtractor(const std::string& directory, const std::string& name,
                             const std::string& before, const std::string& after) {
  const std::string path = directory + "/" + name;
  WriteFile(path, "#!/bin/sh\n" + before + "\n'" + BinPath("extracta-sim") +
                      "' \"$@\" || exit $?\n" + after + "\n");
  chmod(path.c_str(), 0755);
  return path;
}

}  // namespace veltest
