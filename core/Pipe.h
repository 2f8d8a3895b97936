#pragma once
// Anonymous pipes through which a child's printed output reaches its parent,
// and the reader that collects it from a polling loop without ever blocking.

#include <cstdint>

#include "core/AString.h"

// One end of a pipe: the system's descriptor or handle, carried as an integer
// wide enough for either. kVeltNullPipeHandle marks none.
using VeltPipeHandle = std::intptr_t;
constexpr VeltPipeHandle kVeltNullPipeHandle = -1;

// An anonymous pipe: the first handle is the read end, the second the write
// end. Neither end is inherited by a child by accident: a child holds the
// write end only where its creator puts it on its standard streams. Reads
// from the read end never wait. Both ends close with the object.
class CPipe {
 public:
  CPipe() = default;
  ~CPipe();
  CPipe(const CPipe&) = delete;
  CPipe& operator=(const CPipe&) = delete;

  // Opens the pipe (closing an earlier one); false when the system refuses.
  bool CreatePipe();

  VeltPipeHandle ReadHandle() const { return handles_[0]; }
  VeltPipeHandle WriteHandle() const { return handles_[1]; }

 private:
  void Close();

  VeltPipeHandle handles_[2] = {kVeltNullPipeHandle, kVeltNullPipeHandle};
};

// Reads from a pipe's read end, which it borrows (it closes nothing).
class CPipeCommunicator {
 public:
  explicit CPipeCommunicator(VeltPipeHandle readHandle) : handle_(readHandle) {}

  // Returns 0 on success, else the system's error code. Never waits.
  //   consume false: the availability query. count = the bytes waiting in the
  //     pipe; nothing is read and the buffer is left alone.
  //   consume true: reads at most `size` bytes of what is waiting into the
  //     buffer; count = the bytes read (0 when nothing came, or the writers
  //     closed the pipe).
  // The last two parameters (a wait in milliseconds, and whether a partial
  // read may return) keep the call's established shape; every caller reads
  // without waiting and takes what has come, which is all a read does.
  int Read(char* buffer, int size, int& count, bool consume, int waitMilliseconds,
           bool acceptPartial);

 private:
  VeltPipeHandle handle_;
};

// Appends to `output` everything waiting in the pipe now, reading in pieces of
// at most 14096 bytes and never waiting for more: safe to call from a polling
// loop while a child still holds the write end. Returns 0, 1 when the
// availability query failed, 2 when a read failed.
int drainPipe(VeltPipeHandle readEnd, AString& output);
