#include "tests/support/TestSupport.h"

#ifndef _WIN32
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
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

// Through the command interpreter, with the standard streams in files: the
// environment and the current directory are this process's own for the time
// of the run, which the suites' one-test-at-a-time order allows. A time-out
// is not enforced here; the test runner's own limit ends a run that hangs.
RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  const TempDir streams;
  std::string command = "\"";
  for (const std::string& arg : argv) {
    std::string quoted = "\"";
    for (const char c : arg) quoted += c == '/' && &arg == &argv.front() ? '\\' : c;
    command += quoted + "\" ";
  }
  command += "<NUL >\"" + streams / "out" + "\" 2>\"" + streams / "err" + "\"\"";
  std::vector<std::unique_ptr<ScopedEnv>> env;
  for (const auto& [name, value] : options.env)
    env.push_back(std::make_unique<ScopedEnv>(name, value));
  const fs::path before = fs::current_path();
  if (!options.cwd.empty()) fs::current_path(options.cwd);
  RunResult result;
  result.exitCode = std::system(command.c_str());
  fs::current_path(before);
  result.out = ReadFile(streams / "out");
  result.err = ReadFile(streams / "err");
  return result;
}

#else

RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    setpgid(0, 0);
    const int devNull = open("/dev/null", O_RDONLY);
    dup2(devNull, 0);
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    for (const auto& [name, value] : options.env) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  setpgid(pid, pid);
  close(outPipe[1]);
  close(errPipe[1]);

  RunResult result;
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(static_cast<long>(options.timeoutSeconds * 1000));
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  char buffer[65536];
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      result.timedOut = true;
      kill(-pid, SIGKILL);
      break;
    }
    const int ready = poll(fds, 2, static_cast<int>(std::min<long>(left, 1000)));
    if (ready < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  for (auto& f : fds)
    if (f.fd >= 0) close(f.fd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

#endif

}  // namespace veltest
