#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <zip.h>

#ifdef _WIN32
#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

#ifndef _WIN32
extern char** environ;
#endif

namespace veltest {

namespace fs = std::filesystem;

// The one launcher, for each system: StartProgram starts argv[0] (a path) in
// a process group of its own, standard input from the null device, standard
// output and error into the files. WaitProgram waits for it, killing its
// process group after the time-out; on Windows the result's texts have CR LF
// line ends turned into LF, as the standard streams there are in text mode.
// ReleaseProgram lets the system forget a waited-for program: on Windows its
// id, held until then, may name another process afterwards. RunProcesses
// lists the processes not yet ended, as (pid, command line; on Windows
// program name): on POSIX those whose environment holds `mark` ("NAME=value",
// inherited by every child), on Windows `root` and its descendants (a process
// keeps its parent's id after the parent ended).
std::vector<std::pair<int, std::string>> RunProcesses(int root, const std::string& mark);

void SetEnv(const std::string& name, const std::optional<std::string>& value) {
#ifdef _WIN32
  // An empty value removes the variable on Windows.
  _putenv_s(name.c_str(), value ? value->c_str() : "");
#else
  if (value)
    setenv(name.c_str(), value->c_str(), 1);
  else
    unsetenv(name.c_str());
#endif
}

namespace {

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

}  // namespace

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
std::string ReadFile(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

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

#ifdef _WIN32

namespace {

std::wstring Wide(const std::string& text) { return fs::u8path(text).wstring(); }
std::string Narrow(const std::wstring& text) { return fs::path(text).u8string(); }

// One argument as the C runtime splits a command line again: in quotes, with
// the backslashes before a quote (or the closing one) doubled.
std::wstring Quoted(const std::wstring& arg) {
  std::wstring quoted = L"\"";
  std::size_t slashes = 0;
  for (const wchar_t c : arg) {
    if (c == L'\\') {
      ++slashes;
      continue;
    }
    quoted.append(c == L'"' ? 2 * slashes + 1 : slashes, L'\\');
    quoted += c;
    slashes = 0;
  }
  return quoted.append(2 * slashes, L'\\') + L"\"";
}

HANDLE OpenInheritable(const std::string& path, DWORD access, DWORD disposition) {
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, TRUE};
  const HANDLE file = CreateFileW(Wide(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  &attributes, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot open " + path);
  return file;
}

}  // namespace

Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  std::wstring environment, command;
  for (const auto& [name, text] : Environment(options)) environment += Wide(text) + L'\0';
  environment += L'\0';
  for (const std::string& arg : argv) command += (command.empty() ? L"" : L" ") + Quoted(Wide(arg));
  HANDLE streams[] = {OpenInheritable("NUL", GENERIC_READ, OPEN_EXISTING),
                      OpenInheritable(outFile, GENERIC_WRITE, CREATE_ALWAYS),
                      OpenInheritable(errFile, GENERIC_WRITE, CREATE_ALWAYS)};
  // The program inherits its three streams and nothing else of this process.
  SIZE_T size = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
  std::vector<char> list(size);
  STARTUPINFOEXW startup = {};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = streams[0];
  startup.StartupInfo.hStdOutput = streams[1];
  startup.StartupInfo.hStdError = streams[2];
  startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list.data());
  InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size);
  UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, streams,
                            sizeof streams, nullptr, nullptr);
  const std::wstring cwd = Wide(options.cwd);
  PROCESS_INFORMATION process = {};
  const bool created = CreateProcessW(
      fs::u8path(argv.at(0)).make_preferred().c_str(), &command[0], nullptr, nullptr, TRUE,
      CREATE_UNICODE_ENVIRONMENT | CREATE_NEW_PROCESS_GROUP | EXTENDED_STARTUPINFO_PRESENT,
      &environment[0], cwd.empty() ? nullptr : cwd.c_str(), &startup.StartupInfo, &process);
  DeleteProcThreadAttributeList(startup.lpAttributeList);
  for (HANDLE handle : streams) CloseHandle(handle);
  if (!created) throw std::runtime_error("cannot start " + argv[0]);
  CloseHandle(process.hThread);
  return {static_cast<int>(process.dwProcessId), process.hProcess};
}

RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const HANDLE process = started.process;
  if (WaitForSingleObject(process, static_cast<DWORD>(timeoutSeconds * 1000)) == WAIT_TIMEOUT) {
    result.timedOut = true;
    for (const auto& [pid, name] : RunProcesses(started.pid, "")) KillProcess(pid);
    WaitForSingleObject(process, INFINITE);
  }
  DWORD code = 0;
  GetExitCodeProcess(process, &code);
  result.exitCode = static_cast<int>(code);
  result.out = WithoutCarriageReturns(ReadIfAny(outFile));
  result.err = WithoutCarriageReturns(ReadIfAny(errFile));
  return result;
}

void ReleaseProgram(Started& started) {
  if (started.process) CloseHandle(started.process);
  started.process = nullptr;
}

std::vector<std::pair<int, std::string>> RunProcesses(int root, const std::string&) {
  std::vector<std::pair<int, std::string>> found;
  std::vector<std::pair<DWORD, DWORD>> parents;  // (pid, parent pid)
  std::map<DWORD, std::string> names;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry = {};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot, &entry); more;
       more = Process32NextW(snapshot, &entry)) {
    parents.emplace_back(entry.th32ProcessID, entry.th32ParentProcessID);
    names[entry.th32ProcessID] = Narrow(entry.szExeFile);
  }
  CloseHandle(snapshot);
  // The root's descendants are found after it has ended too.
  std::vector<DWORD> tree = {static_cast<DWORD>(root)};
  for (std::size_t i = 0; i < tree.size(); ++i)
    for (const auto& [pid, parent] : parents)
      if (parent == tree[i] && pid != tree[i]) tree.push_back(pid);
  for (DWORD pid : tree)
    if (names.count(pid)) found.emplace_back(static_cast<int>(pid), names[pid]);
  return found;
}

bool SendSignal(int pid, int signal) {
  const HANDLE process =
      signal == SIGKILL ? OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid)) : nullptr;
  const bool sent = process && TerminateProcess(process, 128 + SIGKILL);
  if (process) CloseHandle(process);
  return sent;
}

#else

namespace {}  // namespace

Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  const std::map<std::string, std::string> variables = Environment(options);
  std::vector<char*> args, env;
  for (const auto& a : options.wrapper) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& [name, text] : variables) env.push_back(const_cast<char*>(text.c_str()));
  args.push_back(nullptr);
  env.push_back(nullptr);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  Started started;
  started.pid = fork();
  if (started.pid < 0) throw std::runtime_error("fork failed");
  if (started.pid == 0) {
    // Only async-signal-safe calls from here on.
    setpgid(0, 0);
    if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(open(outFile.c_str(), flags, 0600), 1) != 1 ||
        dup2(open(errFile.c_str(), flags, 0600), 2) != 2 ||
        (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0))
      _exit(126);
    execve(args[0], args.data(), env.data());
    _exit(127);
  }
  setpgid(started.pid, started.pid);
  return started;
}

RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  int status = 0;
  for (pid_t done;
       (done = waitpid(started.pid, &status, WNOHANG)) == 0 || (done < 0 && errno == EINTR);) {
    // Past the time-out the group is killed and the next round reaps it.
    if (std::chrono::steady_clock::now() >= deadline && !result.timedOut) {
      result.timedOut = true;
      kill(-started.pid, SIGKILL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = ReadIfAny(outFile);
  result.err = ReadIfAny(errFile);
  return result;
}

std::vector<std::pair<int, std::string>> RunProcesses(int, const std::string& mark) {
  std::vector<std::pair<int, std::string>> found;
  DIR* proc = opendir("/proc");
  while (const dirent* entry = readdir(proc)) {
    const std::string base = "/proc/" + std::string(entry->d_name);
    // Every entry of /proc/<pid>/environ ends in a NUL byte.
    if (('\0' + ReadIfAny(base + "/environ")).find('\0' + mark + '\0') == std::string::npos)
      continue;
    const std::string stat = ReadIfAny(base + "/stat");  // "pid (comm) state ..."
    if (stat.compare(stat.rfind(')') + 1, 3, " Z ") == 0) continue;
    std::string command = ReadIfAny(base + "/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    found.emplace_back(std::atoi(entry->d_name), command);
  }
  closedir(proc);
  return found;
}

void ReleaseProgram(Started&) {}

bool SendSignal(int pid, int signal) { return kill(pid, signal) == 0; }

#endif

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

namespace {

const char kMarkVariable[] = "VEL_FAULT_RUN";
const char kDate[] = "Sat Nov 21 10:02:11 2026";

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

}  // namespace veltest
