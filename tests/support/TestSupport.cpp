#include "tests/support/TestSupport.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <boost/filesystem.hpp>

extern char** environ;

namespace veltest {

namespace fs = boost::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/veltest-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() {
  boost::system::error_code ec;
  // Tests may leave read-only directories behind; make them removable first.
  for (fs::recursive_directory_iterator it(path_, ec), end; !ec && it != end; it.increment(ec)) {
    if (fs::is_directory(it->symlink_status())) chmod(it->path().c_str(), 0700);
  }
  chmod(path_.c_str(), 0700);
  fs::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) old_ = old;
  if (value)
    setenv(name_.c_str(), value->c_str(), 1);
  else
    unsetenv(name_.c_str());
}

ScopedEnv::~ScopedEnv() {
  if (old_)
    setenv(name_.c_str(), old_->c_str(), 1);
  else
    unsetenv(name_.c_str());
}

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
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(path), end; it != end; ++it)
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string BinPath(const std::string& program) { return std::string(VEL_BIN_DIR) + "/" + program; }

int StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
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
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    // Only async-signal-safe calls from here on.
    setpgid(0, 0);
    if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(open(outFile.c_str(), flags, 0600), 1) != 1 ||
        dup2(open(errFile.c_str(), flags, 0600), 2) != 2)
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
  setpgid(pid, pid);
  return pid;
}

RunResult WaitProgram(int pid, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  int status = 0;
  for (pid_t done; (done = waitpid(pid, &status, WNOHANG)) == 0 || (done < 0 && errno == EINTR);) {
    // Past the time-out the group is killed and the next round reaps it.
    if (std::chrono::steady_clock::now() >= deadline && !result.timedOut) {
      result.timedOut = true;
      kill(-pid, SIGKILL);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = PathExists(outFile) ? ReadFile(outFile) : "";
  result.err = PathExists(errFile) ? ReadFile(errFile) : "";
  return result;
}

RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  const TempDir streams;
  const int pid = StartProgram(argv, options, streams / "out", streams / "err");
  return WaitProgram(pid, options.timeoutSeconds, streams / "out", streams / "err");
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
