// vel-refuse-calls ENOSYS|EPERM COMMAND [ARGUMENTS...]
//
// Runs COMMAND with the system calls newer than Linux 3.10 that the programs
// may make, directly or through the C library, refused with the chosen error:
// what an old kernel answers (ENOSYS) or what a container's seccomp filter
// answers (EPERM). Refused: pidfd_open, close_range (closefrom before exec),
// copy_file_range, statx, and the C library's getrandom (malloc's start) and
// rseq (thread registration). The filter is inherited by every process COMMAND
// starts, so a whole test run sees the same refusals.
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
#include <string>

int main(int argc, char** argv) {
  const std::string name = argc >= 3 ? argv[1] : "";
  const int error = name == "ENOSYS" ? ENOSYS : name == "EPERM" ? EPERM : 0;
  // Another architecture's call numbers mean other calls: those pass.
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 9),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 6, 0),       // 5.3
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 5, 0),      // 5.9
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_copy_file_range, 4, 0),  // 4.5
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_statx, 3, 0),            // 4.11
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getrandom, 2, 0),        // 3.17
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_rseq, 1, 0),             // 4.18
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
  };
  sock_fprog filter{sizeof program / sizeof program[0], program};
  // The check that pidfd_open is refused proves the filter answers as asked.
  if (!error || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0 ||
      syscall(SYS_pidfd_open, getpid(), 0) != -1 || errno != error) {
    std::fprintf(stderr, "usage: vel-refuse-calls ENOSYS|EPERM COMMAND [ARGUMENTS...]%s%s\n",
                 error ? ": no filter in place: " : "", error ? std::strerror(errno) : "");
    return 1;
  }
  execvp(argv[2], argv + 2);
  std::fprintf(stderr, "vel-refuse-calls: cannot run %s: %s\n", argv[2], std::strerror(errno));
  return 1;
}
