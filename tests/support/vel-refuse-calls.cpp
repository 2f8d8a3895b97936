// vel-refuse-calls ENOSYS|EPERM COMMAND [ARGUMENTS...]
//
// Runs COMMAND with the system calls newer than Linux 3.10 that the programs
// use, directly or through the C library, refused with the chosen error: what
// an old kernel answers (ENOSYS) or what a container's seccomp filter answers
// (EPERM). The filter is inherited by every process COMMAND starts, so a
// whole test run sees the same refusals.
//
// clone3 is always answered with ENOSYS: the C library creates threads and
// spawns processes through clone3 and falls back to clone only on ENOSYS,
// which is why container runtimes answer clone3 that way whatever they answer
// for other calls. Ends with 1 when the filter cannot be installed or the
// command cannot be run.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

// The calls refused with the chosen error.
constexpr unsigned kRefused[] = {
    SYS_pidfd_open,       // 5.3: watching a child's end
    SYS_close_range,      // 5.9: closefrom() before exec
    SYS_copy_file_range,  // 4.5: copying a file inside the kernel
    SYS_statx,            // 4.11: file status
};

sock_filter Statement(unsigned short code, unsigned k) { return BPF_STMT(code, k); }
sock_filter Jump(unsigned short code, unsigned k, unsigned char yes, unsigned char no) {
  return BPF_JUMP(code, k, yes, no);
}

std::vector<sock_filter> Filter(int error) {
  std::vector<sock_filter> program;
  // Another architecture's call numbers mean other calls: let them through.
  program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)));
  program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0));
  program.push_back(Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
  program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 0, 1));
  program.push_back(Statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS));
  for (const unsigned call : kRefused) {
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1));
    program.push_back(Statement(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)));
  }
  program.push_back(Statement(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return program;
}

}  // namespace

int main(int argc, char** argv) {
  int error = 0;
  if (argc >= 3 && std::strcmp(argv[1], "ENOSYS") == 0) error = ENOSYS;
  if (argc >= 3 && std::strcmp(argv[1], "EPERM") == 0) error = EPERM;
  if (!error) {
    std::fprintf(stderr, "usage: vel-refuse-calls ENOSYS|EPERM COMMAND [ARGUMENTS...]\n");
    return 1;
  }
  std::vector<sock_filter> program = Filter(error);
  sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) {
    std::fprintf(stderr, "vel-refuse-calls: cannot install the filter: %s\n", std::strerror(errno));
    return 1;
  }
  // The filter answers as asked, or the run below would prove nothing.
  if (syscall(SYS_pidfd_open, getpid(), 0) != -1 || errno != error) {
    std::fprintf(stderr, "vel-refuse-calls: pidfd_open was not refused\n");
    return 1;
  }
  execvp(argv[2], argv + 2);
  std::fprintf(stderr, "vel-refuse-calls: cannot run %s: %s\n", argv[2], std::strerror(errno));
  return 1;
}
