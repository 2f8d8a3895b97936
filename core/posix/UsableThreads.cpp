#include "core/UsableThreads.h"

#ifdef __linux__
#include <sched.h>
#endif

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

#ifdef __linux__

// The processors of the affinity mask; 0 when it cannot be read. The set
// grows until it holds every processor the kernel knows of.
unsigned AffinityProcessors() {
  for (int size = 1024; size <= (1 << 20); size *= 2) {
    cpu_set_t* set = CPU_ALLOC(size);
    if (!set) return 0;
    const std::size_t bytes = CPU_ALLOC_SIZE(size);
    const bool read = sched_getaffinity(0, bytes, set) == 0;
    const int error = errno;
    const unsigned count = read ? static_cast<unsigned>(CPU_COUNT_S(bytes, set)) : 0;
    CPU_FREE(set);
    if (read || error != EINVAL) return count;
  }
  return 0;
}

std::string FileText(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Every control group on the way from this process's own to the root of its
// hierarchy may cap the CPU time: the tightest cap counts.
unsigned UnderCgroupQuotas(unsigned usable) {
  std::istringstream membership(FileText("/proc/self/cgroup"));
  std::string line;
  while (std::getline(membership, line)) {
    // "ID:CONTROLLERS:PATH"; version 2 has no controllers ("0::/a/b").
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
    std::string path = line.substr(second + 1);
    if (controllers == ",,") {
      for (;;) {
        usable = UsableThreads(usable, FileText("/sys/fs/cgroup" + path + "/cpu.max"));
        if (path.empty() || path == "/") break;
        path.erase(path.rfind('/'));
      }
    } else if (controllers.find(",cpu,") != std::string::npos) {
      // Inside a container the hierarchy's root is the container's own group.
      for (const char* mount : {"/sys/fs/cgroup/cpu,cpuacct", "/sys/fs/cgroup/cpu"}) {
        for (const std::string& group : {mount + path, std::string(mount)}) {
          usable = UsableThreads(usable, "", FileText(group + "/cpu.cfs_quota_us"),
                                 FileText(group + "/cpu.cfs_period_us"));
        }
      }
    }
  }
  return usable;
}

#endif

}  // namespace

unsigned VeltUsableThreads() {
  unsigned usable = std::thread::hardware_concurrency();
#ifdef __linux__
  const unsigned affinity = AffinityProcessors();
  if (affinity > 0) usable = affinity;
  usable = UnderCgroupQuotas(usable);
#endif
  return usable > 0 ? usable : 1;
}
