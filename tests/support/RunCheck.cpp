#include "tests/support/RunCheck.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

extern char** environ;

namespace veltest {

namespace fs = boost::filesystem;

namespace {

// The user and group "nobody" on Debian.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;
const char kMarkVariable[] = "VEL_FAULT_RUN";
const char kDate[] = "Sat Nov 21 10:02:11 2026";

// Every injection extracta-sim knows: none may leak in from the caller.
const char* const kInjections[] = {"EXTRACTA_SIM_MATCH",
                                   "EXTRACTA_SIM_FAIL",
                                   "EXTRACTA_SIM_SIGNAL",
                                   "EXTRACTA_SIM_PRINT_BYTES",
                                   "EXTRACTA_SIM_SLEEP_MS",
                                   "EXTRACTA_SIM_NS_PER_RECORD",
                                   "EXTRACTA_SIM_GRANDCHILD_SECONDS",
                                   "EXTRACTA_SIM_GRANDCHILD_PIDFILE",
                                   "EXTRACTA_SIM_GRANDCHILD_KEEP_OUTPUT",
                                   "EXTRACTA_SIM_OUTPUT",
                                   "EXTRACTA_SIM_LOG"};

// A file's bytes, or "" when it cannot be read (a process gone from /proc).
std::string ReadIfAny(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
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

// The caller's environment with the changes applied, as "NAME=value" texts.
std::vector<std::string> Environment(const EnvMap& changes) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos) variables[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [name, value] : changes) {
    if (value)
      variables[name] = *value;
    else
      variables.erase(name);
  }
  std::vector<std::string> texts;
  for (const auto& [name, value] : variables) texts.push_back(name + "=" + value);
  return texts;
}

// Processes whose environment holds the mark and that have not ended (a
// zombie's environment can no longer be read, so it is not found).
std::vector<std::pair<pid_t, std::string>> MarkedProcesses(const std::string& mark) {
  const std::string wanted = std::string(kMarkVariable) + "=" + mark;
  std::vector<std::pair<pid_t, std::string>> found;
  DIR* proc = opendir("/proc");
  if (!proc) return found;
  while (const dirent* entry = readdir(proc)) {
    const std::string name = entry->d_name;
    if (!OnlyFrom(name, 0, "0123456789")) continue;
    const std::string base = "/proc/" + name;
    // Every entry of /proc/<pid>/environ ends in a NUL byte.
    const std::string environment = '\0' + ReadIfAny(base + "/environ");
    if (environment.find('\0' + wanted + '\0') == std::string::npos) continue;
    const std::string stat = ReadIfAny(base + "/stat");
    const std::size_t paren = stat.rfind(')');
    if (paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z') continue;
    std::string command = ReadIfAny(base + "/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    found.emplace_back(static_cast<pid_t>(std::stoi(name)), command);
  }
  closedir(proc);
  return found;
}

RunResult Python(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"/usr/bin/env", "python3", "-c", script};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv);
}

}  // namespace

bool RunningAsRoot() { return geteuid() == 0; }

const std::string& SampleDesign() {
  static std::unique_ptr<TempDir> dir;
  static std::string design;
  if (design.empty()) {
    dir = std::make_unique<TempDir>();
    design = *dir / "pkg_top.mcm";
    const RunResult made = RunProgram(
        {BinPath("make-design"), "--seed", "5", "--conn-records", "300", "--quiet", "-o", design});
    if (made.exitCode != 0) throw std::runtime_error("make-design failed: " + made.err);
  }
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
  {
    std::ofstream out(control, std::ios::binary | std::ios::trunc);
    WriteViewBlock(ExtractaViewDef(kConn, {}, false), out);
  }
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
         std::getline(lines >> std::ws, run.control))
    runs.push_back(run);
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
  int current = 0, most = 0;
  for (const auto& event : events) most = std::max(most, current += event.second);
  return most;
}

ProgramRun::ProgramRun(const std::vector<std::string>& args, const LaunchOptions& options) {
  static std::atomic<int> counter{0};
  mark_ = std::to_string(getpid()) + "-" + std::to_string(++counter) + "-" +
          std::to_string(std::random_device()());
  const bool switchUser = options.unprivileged && RunningAsRoot();
  std::string program = BinPath("VelExtracta");
  std::string extractor = BinPath("extracta-sim");
  if (switchUser) {
    programCopy_.emplace();
    chmod(programCopy_->path().c_str(), 0755);
    for (std::string* copy : {&program, &extractor}) {
      const std::string to = *programCopy_ / Leaf(*copy);
      fs::copy_file(*copy, to, fs::copy_options::overwrite_existing);
      chmod(to.c_str(), 0755);
      *copy = to;
    }
  }
  EnvMap changes = {{"VELTAR_EXTRACTA_PATHOVERRIDE", extractor},
                    {"VELTAR_EXTRACTA_DEBUG", std::nullopt},
                    {"EXTRACTA_SIM_DATE", kDate},
                    {kMarkVariable, mark_}};
  for (const char* injection : kInjections) changes[injection] = std::nullopt;
  for (const auto& [name, value] : options.env) changes[name] = value;
  const std::vector<std::string> environment = Environment(changes);

  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> argPointers, envPointers;
  for (const std::string& arg : argv) argPointers.push_back(const_cast<char*>(arg.c_str()));
  argPointers.push_back(nullptr);
  for (const std::string& entry : environment)
    envPointers.push_back(const_cast<char*>(entry.c_str()));
  envPointers.push_back(nullptr);

  const int out = open((streams_ / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int err = open((streams_ / "err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (out < 0 || err < 0 || in < 0) throw std::runtime_error("cannot open the run's streams");
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // Only async-signal-safe calls from here on.
    setpgid(0, 0);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    if (options.fileSizeLimit > 0) {
      rlimit limit;
      getrlimit(RLIMIT_FSIZE, &limit);
      limit.rlim_cur = static_cast<rlim_t>(options.fileSizeLimit);
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(126);
    }
    if (switchUser && (setgroups(0, nullptr) != 0 || setgid(kNoGroup) != 0 || setuid(kNobody) != 0))
      _exit(126);
    execve(argPointers[0], argPointers.data(), envPointers.data());
    _exit(127);
  }
  setpgid(pid_, pid_);
  close(out);
  close(err);
  close(in);
}

ProgramRun::~ProgramRun() {
  if (!result_) Wait(0);
  // A test that failed may have left processes behind; they go with it.
  for (const auto& [pid, command] : MarkedProcesses(mark_)) kill(pid, SIGKILL);
}

const RunResult& ProgramRun::Wait(double timeoutSeconds) {
  if (result_) return *result_;
  RunResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  int status = 0;
  for (;;) {
    const pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_ || (done < 0 && errno != EINTR)) break;
    if (std::chrono::steady_clock::now() >= deadline) {
      result.timedOut = true;
      kill(-pid_, SIGKILL);
      while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
      }
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = ReadIfAny(streams_ / "out");
  result.err = ReadIfAny(streams_ / "err");
  result_ = result;
  return *result_;
}

std::vector<std::string> ProgramRun::Survivors() const {
  std::vector<std::string> survivors;
  for (const auto& [pid, command] : MarkedProcesses(mark_))
    if (pid != pid_) survivors.push_back(std::to_string(pid) + " " + command);
  return survivors;
}

void ExpectOutcome(ProgramRun& run, int exitCode, bool successLine, const std::string& err) {
  const RunResult& result = run.Wait();
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.exitCode, exitCode) << result.err;
  if (successLine)
    EXPECT_TRUE(IsPointerLine(result.out, "VLX file written: ")) << result.out;
  else
    EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, err);
  EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
}

std::vector<std::string> WorkingDirs(const std::string& directory) {
  // "extract" and the run number, which is negative for a clock before 1970.
  std::vector<std::string> found;
  for (const std::string& entry : ListDir(directory)) {
    if (entry.rfind("extract", 0) != 0) continue;
    if (OnlyFrom(entry, entry.size() > 7 && entry[7] == '-' ? 8 : 7, "0123456789"))
      found.push_back(entry);
  }
  return found;
}

std::map<std::string, std::string> Snapshot(const std::string& directory) {
  std::map<std::string, std::string> entries;
  const fs::path root(directory);
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    const std::string relative = it->path().string().substr(root.string().size() + 1);
    entries[relative] =
        fs::is_directory(it->symlink_status()) ? "<dir>" : ReadFile(it->path().string());
  }
  return entries;
}

std::vector<std::string> ArchiveNames(const std::string& archive) {
  const RunResult read = Python(
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1]) as z:\n"
      "    bad = z.testzip()\n"
      "    if bad: sys.exit('damaged entry ' + bad)\n"
      "    sys.stdout.buffer.write(b''.join(n.encode() + b'\\n' for n in z.namelist()))\n",
      {archive});
  EXPECT_EQ(read.exitCode, 0) << read.err;
  std::vector<std::string> names;
  for (std::string line : Lines(read.out)) {
    line.pop_back();
    if (!line.empty()) names.push_back(line);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> ArchiveLeaves(const std::string& archive) {
  std::vector<std::string> leaves;
  for (const std::string& name : ArchiveNames(archive)) leaves.push_back(Leaf(name));
  std::sort(leaves.begin(), leaves.end());
  return leaves;
}

std::string ArchiveEntry(const std::string& archive, const std::string& leaf) {
  const RunResult read = Python(
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1]) as z:\n"
      "    names = [n for n in z.namelist() if n.rsplit('/', 1)[-1] == sys.argv[2]]\n"
      "    if len(names) != 1: sys.exit('%d entries named %s' % (len(names), sys.argv[2]))\n"
      "    sys.stdout.buffer.write(z.read(names[0]))\n",
      {archive, leaf});
  EXPECT_EQ(read.exitCode, 0) << read.err;
  return read.out;
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
