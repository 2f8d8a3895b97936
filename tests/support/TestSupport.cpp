#include "tests/support/TestSupport.h"

#ifndef _WIN32
#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#ifndef _WIN32
extern char** environ;
#endif

namespace veltest {

namespace fs = std::filesystem;

namespace {

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

}  // namespace

TempDir::TempDir() {
  const fs::path base = fs::temp_directory_path();
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const fs::path candidate = base / ("veltest-" + std::to_string(random()));
    if (fs::create_directory(candidate)) {
      path_ = candidate.generic_string();
      return;
    }
  }
  throw std::runtime_error("no fresh temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave read-only directories behind; make them removable first.
  for (fs::recursive_directory_iterator it(path_, ec), end; !ec && it != end; it.increment(ec)) {
    if (fs::is_directory(it->symlink_status()))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) old_ = old;
  SetEnv(name_, value);
}

ScopedEnv::~ScopedEnv() { SetEnv(name_, old_); }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out) throw std::runtime_error("cannot write " + path);
}

bool PathExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(path, ec));
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(path), end; it != end; ++it)
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string BinPath(const std::string& program) {
#ifdef _WIN32
  return std::string(VEL_BIN_DIR) + "/" + program + ".exe";
#else
  return std::string(VEL_BIN_DIR) + "/" + program;
#endif
}

#ifdef _WIN32

// Through the command interpreter, with the standard streams in the files: the
// environment and the current directory are this process's own for the time
// of the run, which the suites' one-test-at-a-time order allows, so the run
// ends before StartProgram returns. A time-out is not enforced here; the test
// runner's own limit ends a run that hangs.
Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  std::string command = "\"";
  for (const std::string& arg : argv) {
    std::string quoted = "\"";
    for (const char c : arg) quoted += c == '/' && &arg == &argv.front() ? '\\' : c;
    command += quoted + "\" ";
  }
  command += "<NUL >\"" + outFile + "\" 2>\"" + errFile + "\"\"";
  std::vector<std::unique_ptr<ScopedEnv>> env;
  for (const auto& [name, value] : options.env)
    env.push_back(std::make_unique<ScopedEnv>(name, value));
  const fs::path before = fs::current_path();
  if (!options.cwd.empty()) fs::current_path(options.cwd);
  Started started;
  started.exitCode = std::system(command.c_str());
  fs::current_path(before);
  return started;
}

RunResult WaitProgram(Started& started, double, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  result.exitCode = started.exitCode;
  result.out = PathExists(outFile) ? ReadFile(outFile) : "";
  result.err = PathExists(errFile) ? ReadFile(errFile) : "";
  return result;
}

#else

namespace {

// What the terminal received since the last look (its master side does not block).
void ReadTerminal(int terminal, std::string& shown) {
  char buffer[4096];
  for (ssize_t got; (got = read(terminal, buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<std::size_t>(got));
}

}  // namespace

Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = std::min(text.find('='), text.size());
    if (text.rfind("EXTRACTA_SIM_", 0) != 0) variables[text.substr(0, equals)] = text;
  }
  for (const auto& [name, value] : options.env) {
    if (value)
      variables[name] = name + "=" + *value;
    else
      variables.erase(name);
  }
  std::vector<char*> args, env;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& [name, text] : variables) env.push_back(const_cast<char*>(text.c_str()));
  args.push_back(nullptr);
  env.push_back(nullptr);
  const bool switchUser = options.unprivileged && geteuid() == 0;
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  Started started;
  int terminalSide = -1;
  if (options.terminalColumns > 0) {
    termios modes{};
    cfmakeraw(&modes);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(options.terminalColumns);
    if (openpty(&started.terminal, &terminalSide, nullptr, &modes, &size) != 0)
      throw std::runtime_error("openpty failed");
    fcntl(started.terminal, F_SETFD, FD_CLOEXEC);
    fcntl(started.terminal, F_SETFL, O_NONBLOCK);
    fcntl(terminalSide, F_SETFD, FD_CLOEXEC);
  }
  started.pid = fork();
  if (started.pid < 0) throw std::runtime_error("fork failed");
  if (started.pid == 0) {
    // Only async-signal-safe calls from here on.
    setpgid(0, 0);
    if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(options.outputOnTerminal ? terminalSide : open(outFile.c_str(), flags, 0600), 1) !=
            1 ||
        dup2(terminalSide >= 0 ? terminalSide : open(errFile.c_str(), flags, 0600), 2) != 2)
      _exit(126);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    if (options.fileSizeLimit > 0) {
      rlimit limit;
      getrlimit(RLIMIT_FSIZE, &limit);
      limit.rlim_cur = static_cast<rlim_t>(options.fileSizeLimit);
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(126);
    }
    // The user and group "nobody" on Debian.
    if (switchUser && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
      _exit(126);
    execve(args[0], args.data(), env.data());
    _exit(127);
  }
  setpgid(started.pid, started.pid);
  if (terminalSide >= 0) close(terminalSide);
  return started;
}

RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  std::string shown;
  int status = 0;
  for (pid_t done;
       (done = waitpid(started.pid, &status, WNOHANG)) == 0 || (done < 0 && errno == EINTR);) {
    // Past the time-out the group is killed and the next round reaps it.
    if (std::chrono::steady_clock::now() >= deadline && !result.timedOut) {
      result.timedOut = true;
      kill(-started.pid, SIGKILL);
    }
    // A full terminal would hold the program up.
    if (started.terminal >= 0) ReadTerminal(started.terminal, shown);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = PathExists(outFile) ? ReadFile(outFile) : "";
  result.err = PathExists(errFile) ? ReadFile(errFile) : "";
  if (started.terminal >= 0) {
    ReadTerminal(started.terminal, shown);
    close(started.terminal);
    started.terminal = -1;
    result.err = shown;
  }
  return result;
}

#endif

RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  const TempDir streams;
  Started started = StartProgram(argv, options, streams / "out", streams / "err");
  return WaitProgram(started, options.timeoutSeconds, streams / "out", streams / "err");
}

bool PollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace veltest
