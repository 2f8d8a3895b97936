// The helpers shared by every suite: scratch directories and files, the
// environment, and VelExtracta's runs end to end. The launchers (one file per
// system), view files and archives have files of their own.

#include <sys/stat.h>
#ifndef _WIN32
#include <unistd.h>
#endif

#include <atomic>
#include <fstream>
#include <random>
#include <sstream>

#include "tests/support/Internal.h"

#ifndef _WIN32
extern char** environ;
#endif

namespace veltest {

// The environment a started program gets: this process's, without the
// stand-in's switches, with the options' variables set or unset on top.
std::map<std::string, std::string> Environment(const RunOptions& options) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    // Windows' drive entries ("=C:=C:\...") start with "=".
    const std::size_t equals = std::min(text.find('=', 1), text.size());
    if (text.rfind("EXTRACTA_SIM_", 0) != 0) variables[text.substr(0, equals)] = text;
  }
  for (const auto& [name, value] : options.env) {
    if (value)
      variables[name] = name + "=" + *value;
    else
      variables.erase(name);
  }
  return variables;
}

TempDir::TempDir() {
  const fs::path base = fs::temp_directory_path();
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const fs::path candidate = base / ("veltest-" + std::to_string(random()));
    if (fs::create_directory(candidate)) {
      path_ = candidate.generic_u8string();
      return;
    }
  }
  throw std::runtime_error("no fresh temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave read-only directories behind; make them removable first.
  const fs::path path = fs::u8path(path_);
  for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) {
    if (fs::is_directory(it->symlink_status()))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path, ec);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) old_ = old;
  SetEnv(name_, value);
}

ScopedEnv::~ScopedEnv() { SetEnv(name_, old_); }

// Paths are UTF-8 text on both systems; the standard library reads narrow
// paths in the system's code page unless told.
void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(fs::u8path(path), std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out) throw std::runtime_error("cannot write " + path);
}

// A file's bytes, or "" when it cannot be read (a process gone from /proc).
std::string ReadIfAny(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string ReadFile(const std::string& path) {
  if (!std::ifstream(fs::u8path(path), std::ios::binary))
    throw std::runtime_error("cannot read " + path);
  return ReadIfAny(path);
}

std::string WithoutCarriageReturns(const std::string& text) {
  std::string lines;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (text[i] != '\r' || i + 1 == text.size() || text[i + 1] != '\n') lines += text[i];
  return lines;
}

bool PathExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(fs::u8path(path), ec));
}

std::string FileName(std::string name) {
  if (kOnWindows)
    name.erase(
        std::remove_if(name.begin(), name.end(), [](char c) { return c == '"' || c == '\\'; }),
        name.end());
  return name;
}

std::string WithoutRoot(const std::string& path) {
  return path.substr(path.size() > 2 && path[1] == ':' ? 3 : 1);
}

bool MakeDirectory(const std::string& path) {
  std::error_code error;
  return fs::create_directory(fs::u8path(path), error);
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(fs::u8path(path)), end; it != end; ++it)
    names.push_back(it->path().filename().u8string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string BinPath(const std::string& program) {
  return std::string(VEL_BIN_DIR) + "/" + program + (kOnWindows ? ".exe" : "");
}

RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  const TempDir streams;
  Started started = StartProgram(argv, options, streams / "out", streams / "err");
  RunResult result = WaitProgram(started, options.timeoutSeconds, streams / "out", streams / "err");
  ReleaseProgram(started);
  return result;
}

bool PollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// True when `text` from `start` on is one or more of `digits`.
bool OnlyFrom(const std::string& text, std::size_t start, const char* digits) {
  return start < text.size() && text.find_first_not_of(digits, start) == std::string::npos;
}

ProgramRun::ProgramRun(const std::vector<std::string>& args, const RunOptions& options) {
  static std::atomic<int> counter{0};
  mark_ = std::to_string(std::random_device()()) + "-" + std::to_string(++counter) + "-" +
          std::to_string(std::random_device()());
  std::string program = BinPath("VelExtracta");
  std::string extractor = BinPath("extracta-sim");
  RunOptions launch = options;
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
    // The user and group "nobody" on Debian.
    launch.wrapper = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  }
#endif
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
                   RunOptions options) {
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

std::string Leaf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

bool IsPointerLine(const std::string& text, const std::string& label) {
  const std::string start = label + "0x";
  if (text.rfind(start, 0) != 0 || text.back() != '\n') return false;
  return OnlyFrom(text.substr(0, text.size() - 1), start.size(), "0123456789abcdef");
}

long LocalSecondsNow() {
  const time_t now = std::time(nullptr);
  tm utc = *std::gmtime(&now);
  utc.tm_isdst = -1;  // the local offset at that moment, summer time included
  return static_cast<long>(now + (now - std::mktime(&utc)));
}

}  // namespace veltest
