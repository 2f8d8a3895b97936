#include "tests/support/RunCheck.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

extern char** environ;

namespace veltest {

namespace fs = std::filesystem;

namespace {

// The user and group "nobody" on Debian.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;
const char kMarkVariable[] = "VEL_FAULT_RUN";
const char kDate[] = "Sat Nov 21 10:02:11 2026";

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

// The caller's environment as "NAME=value" texts, with the changes applied and
// no extracta-sim injection (EXTRACTA_SIM_*) leaking in from the caller.
std::vector<std::string> Environment(const EnvMap& changes) {
  EnvMap variables;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = std::min(text.find('='), text.size());
    if (text.rfind("EXTRACTA_SIM_", 0) != 0)
      variables[text.substr(0, equals)] = text.substr(equals);
  }
  for (const auto& [name, value] : changes) variables[name] = value ? "=" + *value : value;
  std::vector<std::string> texts;
  for (const auto& [name, value] : variables)
    if (value) texts.push_back(name + *value);
  return texts;
}

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const std::string& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
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
    const std::string stat = ReadIfAny(base + "/stat");  // "pid (comm) state ..."
    if (stat.compare(stat.rfind(')') + 1, 3, " Z ") == 0) continue;
    std::string command = ReadIfAny(base + "/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    found.emplace_back(static_cast<pid_t>(std::stoi(name)), command);
  }
  closedir(proc);
  return found;
}

// A Python script's output on a zip archive (and further arguments), after
// expecting it to succeed.
std::string Zip(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {
      "/usr/bin/env", "python3", "-c",
      "import sys, zipfile\nz = zipfile.ZipFile(sys.argv[1])\n" + script};
  argv.insert(argv.end(), args.begin(), args.end());
  const RunResult read = RunProgram(argv);
  EXPECT_EQ(read.exitCode, 0) << read.err;
  return read.out;
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
         std::getline(lines >> std::ws, run.control))
    runs.push_back(run);
  std::stable_sort(runs.begin(), runs.end(),
                   [](const SimRun& a, const SimRun& b) { return a.startNs < b.startNs; });
  return runs;
}

int MostAtOnce(const std::vector<SimRun>& runs) {
  // The most are under way as one starts; a run that ended at that very
  // instant does not count.
  long most = 0;
  for (const SimRun& run : runs)
    most = std::max(most, std::count_if(runs.begin(), runs.end(), [&](const SimRun& other) {
                      return other.startNs <= run.startNs && run.startNs < other.endNs;
                    }));
  return static_cast<int>(most);
}

ProgramRun::ProgramRun(const std::vector<std::string>& args, const LaunchOptions& options) {
  static std::atomic<int> counter{0};
  mark_ = std::to_string(getpid()) + "-" + std::to_string(++counter) + "-" +
          std::to_string(std::random_device()());
  const bool switchUser = options.unprivileged && geteuid() == 0;
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
  for (const auto& [name, value] : options.env) changes[name] = value;
  const std::vector<std::string> environment = Environment(changes);
  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> argPointers = Pointers(argv), envPointers = Pointers(environment);

  const std::string out = streams_ / "out", err = streams_ / "err";
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  int terminalSide = -1;
  if (options.terminalColumns > 0) {
    termios modes{};
    cfmakeraw(&modes);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(options.terminalColumns);
    if (openpty(&terminal_, &terminalSide, nullptr, &modes, &size) != 0)
      throw std::runtime_error("openpty failed");
    fcntl(terminal_, F_SETFD, FD_CLOEXEC);
    fcntl(terminal_, F_SETFL, O_NONBLOCK);
    fcntl(terminalSide, F_SETFD, FD_CLOEXEC);
  }
  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    // Only async-signal-safe calls from here on.
    setpgid(0, 0);
    if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(options.outputOnTerminal ? terminalSide : open(out.c_str(), flags, 0600), 1) != 1 ||
        dup2(terminalSide >= 0 ? terminalSide : open(err.c_str(), flags, 0600), 2) != 2)
      _exit(126);
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
  if (terminalSide >= 0) close(terminalSide);
}

void ProgramRun::ReadTerminal() {
  char buffer[4096];
  for (ssize_t got; terminal_ >= 0 && (got = read(terminal_, buffer, sizeof buffer)) > 0;)
    shown_.append(buffer, static_cast<std::size_t>(got));
}

ProgramRun::~ProgramRun() {
  if (!result_) Wait(0);
  // A test that failed may have left processes behind; they go with it.
  for (const auto& [pid, command] : MarkedProcesses(mark_)) kill(pid, SIGKILL);
  if (terminal_ >= 0) close(terminal_);
}

const RunResult& ProgramRun::Wait(double timeoutSeconds) {
  if (result_) return *result_;
  RunResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  int status = 0;
  for (pid_t done; (done = waitpid(pid_, &status, WNOHANG)) == 0 || (done < 0 && errno == EINTR);) {
    // Past the time-out the group is killed and the next round reaps it.
    if (std::chrono::steady_clock::now() >= deadline && !result.timedOut) {
      result.timedOut = true;
      kill(-pid_, SIGKILL);
    }
    ReadTerminal();  // a full terminal would hold the program up
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ReadTerminal();
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = ReadIfAny(streams_ / "out");
  result.err = terminal_ >= 0 ? shown_ : ReadIfAny(streams_ / "err");
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
  EXPECT_TRUE(successLine ? IsPointerLine(result.out, "VLX file written: ") : result.out.empty())
      << result.out;
  EXPECT_EQ(result.err, err);
  EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
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
  const fs::path root(directory);
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    const std::string relative = it->path().string().substr(root.string().size() + 1);
    entries[relative] =
        fs::is_directory(it->symlink_status()) ? "<dir>" : ReadFile(it->path().string());
  }
  return entries;
}

std::vector<std::string> ArchiveNames(const std::string& archive) {
  std::istringstream lines(
      Zip("bad = z.testzip()\n"
          "if bad: sys.exit('damaged entry ' + bad)\n"
          "sys.stdout.buffer.write(b''.join(n.encode() + b'\\n' for n in z.namelist()))\n",
          {archive}));
  std::vector<std::string> names;
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) names.push_back(line);
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
  return Zip(
      "names = [n for n in z.namelist() if n.rsplit('/', 1)[-1] == sys.argv[2]]\n"
      "if len(names) != 1: sys.exit('%d entries named %s' % (len(names), sys.argv[2]))\n"
      "sys.stdout.buffer.write(z.read(names[0]))\n",
      {archive, leaf});
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
