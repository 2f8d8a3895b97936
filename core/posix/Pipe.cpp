#include "core/Pipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

CPipe::~CPipe() { Close(); }

void CPipe::Close() {
  for (VeltPipeHandle& handle : handles_) {
    if (handle != kVeltNullPipeHandle) close(static_cast<int>(handle));
    handle = kVeltNullPipeHandle;
  }
}

bool CPipe::CreatePipe() {
  Close();
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  // Reads only take what the availability query reported, but a reader that
  // asks for more must still not hang the polling loop.
  fcntl(ends[0], F_SETFL, fcntl(ends[0], F_GETFL) | O_NONBLOCK);
  handles_[0] = ends[0];
  handles_[1] = ends[1];
  return true;
}

namespace {

// Waits until the pipe has data or its writers are gone; false when the time
// ran out. Negative milliseconds: without limit.
bool WaitReadable(int fd, int milliseconds, int& error) {
  pollfd entry = {fd, POLLIN, 0};
  for (;;) {
    const int ready = poll(&entry, 1, milliseconds);
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) {
      error = errno;
      return false;
    }
  }
}

}  // namespace

int CPipeCommunicator::Read(char* buffer, int size, int& count, bool consume, int waitMilliseconds,
                            bool acceptPartial) {
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

  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(waitMilliseconds);
  while (count < size) {
    const ssize_t got = read(fd, buffer + count, static_cast<size_t>(size - count));
    if (got > 0) {
      count += static_cast<int>(got);
      if (acceptPartial) return 0;
      continue;
    }
    if (got == 0) return 0;  // every writer closed the pipe
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return errno;
    // Nothing waiting: wait for more only as long as the caller allows.
    int left = -1;
    if (waitMilliseconds >= 0) {
      const auto remaining =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (remaining <= 0) return 0;
      left = static_cast<int>(remaining);
    }
    int error = 0;
    if (!WaitReadable(fd, left, error)) return error;
  }
  return 0;
}
