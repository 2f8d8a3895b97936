#include "core/Pipe.h"

#include <windows.h>

#include <algorithm>

#include "core/SystemCalls.h"

namespace {

// What the system holds for a reader before a writing child has to wait; a
// polling loop drains it every few milliseconds.
constexpr DWORD kPipeBufferBytes = 1 << 16;

HANDLE Handle(VeltPipeHandle handle) { return reinterpret_cast<HANDLE>(handle); }

// The bytes waiting in the pipe; a pipe whose writers are all gone has none.
DWORD Waiting(HANDLE pipe, int& error) {
  DWORD waiting = 0;
  error = 0;
  if (!PeekNamedPipe(pipe, nullptr, 0, nullptr, &waiting, nullptr)) {
    const DWORD code = GetLastError();
    if (code != ERROR_BROKEN_PIPE) error = static_cast<int>(code);
    return 0;
  }
  return waiting;
}

}  // namespace

bool velt_system::ClosePipeEnd(VeltPipeHandle handle) { return CloseHandle(Handle(handle)) != 0; }

bool CPipe::CreatePipe() {
  Close();
  // Neither end is inheritable: process creation hands the write end to one
  // child explicitly.
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, FALSE};
  HANDLE ends[2];
  if (!::CreatePipe(&ends[0], &ends[1], &attributes, kPipeBufferBytes)) return false;
  handles_[0] = reinterpret_cast<VeltPipeHandle>(ends[0]);
  handles_[1] = reinterpret_cast<VeltPipeHandle>(ends[1]);
  return true;
}

int CPipeCommunicator::Read(char* buffer, int size, int& count, bool consume, int, bool) {
  count = 0;
  if (handle_ == kVeltNullPipeHandle) return ERROR_INVALID_HANDLE;
  HANDLE pipe = Handle(handle_);
  int error = 0;
  if (!consume) {
    count = static_cast<int>(Waiting(pipe, error));
    return error;
  }
  if (size <= 0) return 0;
  // An anonymous pipe cannot be read without waiting, so only what the
  // system reports as waiting is read.
  const DWORD waiting = Waiting(pipe, error);
  if (error != 0 || waiting == 0) return error;
  DWORD got = 0;
  if (!ReadFile(pipe, buffer, std::min<DWORD>(waiting, static_cast<DWORD>(size)), &got, nullptr)) {
    const DWORD code = GetLastError();
    return code == ERROR_BROKEN_PIPE ? 0 : static_cast<int>(code);
  }
  count = static_cast<int>(got);
  return 0;
}
