// The launcher and the environment on POSIX systems.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/Internal.h"

namespace veltest {

void SetEnv(const std::string& name, const std::optional<std::string>& value) {
  if (value)
    setenv(name.c_str(), value->c_str(), 1);
  else
    unsetenv(name.c_str());
}

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

}  // namespace veltest
