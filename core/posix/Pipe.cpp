#include "core/Pipe.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "core/SystemCalls.h"

bool velt_system::ClosePipeEnd(VeltPipeHandle handle) {
  return close(static_cast<int>(handle)) == 0;
}

bool CPipe::CreatePipe() {
  Close();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  handles_[0] = ends[0];
  handles_[1] = ends[1];
  // Reads only take what the availability query reported, but a reader that
  // asks for more must still not hang the polling loop.
  const int flags = fcntl(ends[0], F_GETFL);
  if (flags != -1 && fcntl(ends[0], F_SETFL, flags | O_NONBLOCK) == 0) return true;
  const int error = errno;
  Close();
  errno = error;
  return false;
}

int CPipeCommunicator::Read(char* buffer, int size, int& count, bool consume, int, bool) {
  count = 0;
  if (handle_ == kVeltNullPipeHandle) return EBADF;
  const int fd = static_cast<int>(handle_);
  if (!consume) {
    int waiting = 0;
    if (ioctl(fd, FIONREAD, &waiting) != 0) return errno;
    count = waiting;
    return 0;
  }
  if (size <= 0) return 0;
  for (;;) {
    const ssize_t got = read(fd, buffer, static_cast<size_t>(size));
    if (got >= 0) {
      count = static_cast<int>(got);  // 0: every writer closed the pipe
      return 0;
    }
    if (errno == EINTR) continue;
    return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : errno;
  }
}
