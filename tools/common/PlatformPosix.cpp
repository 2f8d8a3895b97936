#include "tools/common/Platform.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace veltools {

int ProcessId() { return static_cast<int>(::getpid()); }

void UseBinaryStandardStreams() {}

void SleepMilliseconds(std::uint64_t milliseconds) {
  timespec left{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

std::tm LocalTime(std::time_t time) {
  std::tm local{};
  localtime_r(&time, &local);
  return local;
}

std::tm UniversalTime(std::time_t time) {
  std::tm universal{};
  gmtime_r(&time, &universal);
  return universal;
}

bool SeekTo(std::FILE* file, std::uint64_t offset) {
  return ::fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

void DieBySignal(int signal) {
  ::signal(signal, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  sigprocmask(SIG_UNBLOCK, &only, nullptr);
  ::kill(::getpid(), signal);
}

int StartSleeper(double seconds, bool keepOutput) {
  const pid_t pid = ::fork();
  if (pid != 0) return static_cast<int>(pid);
  // The sleeper stays in the process group, so ending the group ends it.
  if (!keepOutput) {
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) {
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
      ::close(null);
    }
  }
  SleepMilliseconds(static_cast<std::uint64_t>(seconds * 1000));
  ::_exit(0);
}

bool RunAsSleeper(int, char**) { return false; }

bool MapFile(const std::string& path, const char*& data, std::size_t& size) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  void* mapped = MAP_FAILED;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
    mapped = ::mmap(nullptr, static_cast<std::size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  }
  ::close(fd);
  if (mapped == MAP_FAILED) return false;
  size = static_cast<std::size_t>(st.st_size);
  ::madvise(mapped, size, MADV_SEQUENTIAL);
  data = static_cast<const char*>(mapped);
  return true;
}

void UnmapFile(const char* data, std::size_t size) { ::munmap(const_cast<char*>(data), size); }

}  // namespace veltools
