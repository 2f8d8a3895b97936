#include "tests/faults/FaultRun.h"

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
#include <cstdint>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

extern char** environ;

namespace faults {

namespace fs = boost::filesystem;
using veltest::BinPath;
using veltest::RunResult;

namespace {

// The user and group "nobody" on Debian.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;

const char kMarkVariable[] = "VEL_FAULT_RUN";

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

std::string NewMark() {
  static std::atomic<int> counter{0};
  std::random_device random;
  return std::to_string(getpid()) + "-" + std::to_string(++counter) + "-" +
         std::to_string(random());
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

std::string ReadSmallFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
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
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string base = "/proc/" + name;
    const std::string environment = ReadSmallFile(base + "/environ");
    std::size_t start = 0;
    bool marked = false;
    while (start < environment.size() && !marked) {
      std::size_t end = environment.find('\0', start);
      if (end == std::string::npos) end = environment.size();
      marked = environment.compare(start, end - start, wanted) == 0;
      start = end + 1;
    }
    if (!marked) continue;
    const std::string stat = ReadSmallFile(base + "/stat");
    const std::size_t paren = stat.rfind(')');
    if (paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] == 'Z') continue;
    std::string command = ReadSmallFile(base + "/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    found.emplace_back(static_cast<pid_t>(std::stoi(name)), command);
  }
  closedir(proc);
  return found;
}

void CopyExecutable(const std::string& from, const std::string& to) {
  fs::copy_file(from, to, fs::copy_options::overwrite_existing);
  chmod(to.c_str(), 0755);
}

}  // namespace

bool RunningAsRoot() { return geteuid() == 0; }

const std::string& SampleDesign() {
  static std::unique_ptr<veltest::TempDir> dir;
  static std::string design;
  if (design.empty()) {
    dir = std::make_unique<veltest::TempDir>();
    design = *dir / "pkg_top.mcm";
    const RunResult made = veltest::RunProgram(
        {BinPath("make-design"), "--seed", "5", "--conn-records", "300", "--quiet", "-o", design});
    if (made.exitCode != 0) throw std::runtime_error("make-design failed: " + made.err);
  }
  return design;
}

ProgramRun::ProgramRun(const std::vector<std::string>& args, const LaunchOptions& options)
    : mark_(NewMark()) {
  const bool switchUser = options.unprivileged && RunningAsRoot();
  std::string program = BinPath("VelExtracta");
  std::string extractor = BinPath("extracta-sim");
  if (switchUser) {
    programCopy_.emplace();
    chmod(programCopy_->path().c_str(), 0755);
    program = *programCopy_ / "VelExtracta";
    extractor = *programCopy_ / "extracta-sim";
    CopyExecutable(BinPath("VelExtracta"), program);
    CopyExecutable(BinPath("extracta-sim"), extractor);
  }

  EnvMap changes = {{"VELTAR_EXTRACTA_PATHOVERRIDE", extractor},
                    {"VELTAR_EXTRACTA_DEBUG", std::nullopt},
                    {"EXTRACTA_SIM_DATE", "Sat Nov 21 10:02:11 2026"},
                    {kMarkVariable, mark_}};
  for (const char* injection : kInjections) changes[injection] = std::nullopt;
  for (const auto& [name, value] : options.env) changes[name] = value;
  const std::vector<std::string> environment = Environment(changes);

  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> argPointers;
  for (const std::string& arg : argv) argPointers.push_back(const_cast<char*>(arg.c_str()));
  argPointers.push_back(nullptr);
  std::vector<char*> envPointers;
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
    if (done == pid_) break;
    if (done < 0 && errno != EINTR) break;
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
  result.out = ReadSmallFile(streams_ / "out");
  result.err = ReadSmallFile(streams_ / "err");
  result_ = result;
  return *result_;
}

std::vector<std::string> ProgramRun::Survivors() const {
  std::vector<std::string> survivors;
  for (const auto& [pid, command] : MarkedProcesses(mark_)) {
    if (pid != pid_) survivors.push_back(std::to_string(pid) + " " + command);
  }
  return survivors;
}

RunResult RunVelExtracta(const std::vector<std::string>& args, const LaunchOptions& options) {
  ProgramRun run(args, options);
  return run.Wait();
}

namespace {

// True when `text` from `start` on is one or more decimal digits.
bool DigitsFrom(const std::string& text, std::size_t start) {
  return start < text.size() && text.find_first_not_of("0123456789", start) == std::string::npos;
}

// True when `text` from `start` on is one or more lower-case hexadecimal digits.
bool HexDigitsFrom(const std::string& text, std::size_t start) {
  return start < text.size() &&
         text.find_first_not_of("0123456789abcdef", start) == std::string::npos;
}

}  // namespace

std::vector<std::string> WorkingDirs(const std::string& directory) {
  // "extract" and the run number, which is negative for a clock before 1970.
  std::vector<std::string> found;
  for (const std::string& entry : veltest::ListDir(directory)) {
    if (entry.rfind("extract", 0) != 0) continue;
    const std::size_t number = entry.size() > 7 && entry[7] == '-' ? 8 : 7;
    if (DigitsFrom(entry, number)) found.push_back(entry);
  }
  return found;
}

namespace {

// Short contents as they are, longer ones as their size and a hash, so that
// a difference reads well in a failure message.
std::string Digest(const std::string& bytes) {
  if (bytes.size() <= 64) return bytes;
  uint64_t hash = 14695981039346656037ull;
  for (const unsigned char c : bytes) hash = (hash ^ c) * 1099511628211ull;
  std::ostringstream text;
  text << "<" << bytes.size() << " bytes, hash " << std::hex << hash << ">";
  return text.str();
}

}  // namespace

std::map<std::string, std::string> Snapshot(const std::string& directory) {
  std::map<std::string, std::string> entries;
  const fs::path root(directory);
  for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
    const std::string relative = it->path().string().substr(root.string().size() + 1);
    if (fs::is_directory(it->symlink_status()))
      entries[relative] = "<dir>";
    else
      entries[relative] = Digest(veltest::ReadFile(it->path().string()));
  }
  return entries;
}

namespace {

RunResult Python(const std::string& script, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"/usr/bin/env", "python3", "-c", script};
  argv.insert(argv.end(), args.begin(), args.end());
  return veltest::RunProgram(argv);
}

}  // namespace

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
  std::istringstream lines(read.out);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) names.push_back(line);
  std::sort(names.begin(), names.end());
  return names;
}

std::string ArchiveEntry(const std::string& archive, const std::string& name) {
  const RunResult read = Python(
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1]) as z:\n"
      "    sys.stdout.buffer.write(z.read(sys.argv[2]))\n",
      {archive, name});
  EXPECT_EQ(read.exitCode, 0) << read.err;
  return read.out;
}

std::string Leaf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

bool IsPointerLine(const std::string& text, const std::string& label) {
  const std::string start = label + "0x";
  if (text.rfind(start, 0) != 0 || text.empty() || text.back() != '\n') return false;
  return HexDigitsFrom(text.substr(0, text.size() - 1), start.size());
}

std::string UnlimitedExtractor(const std::string& directory) {
  const std::string path = directory + "/extracta-unlimited";
  veltest::WriteFile(
      path, "#!/bin/sh\nulimit -f unlimited\nexec '" + BinPath("extracta-sim") + "' \"$@\"\n");
  chmod(path.c_str(), 0755);
  return path;
}

}  // namespace faults
