// What the pipes share on every system: closing, and the reader a polling
// loop calls.

#include "core/Pipe.h"

#include "core/SystemCalls.h"
#include "core/VelAssert.h"
#include "core/VelDebug.h"

CPipe::~CPipe() { Close(); }

void CPipe::Close() {
  for (VeltPipeHandle& handle : handles_) {
    // An end that fails to close is gone all the same; the cause is traced.
    if (handle != kVeltNullPipeHandle && !velt_system::ClosePipeEnd(handle))
      VelDebug(1, L"*CPipe: cannot close a pipe end: %s\n",
               AString(velt_system::LastErrorText()).wstr().c_str());
    handle = kVeltNullPipeHandle;
  }
}

int drainPipe(VeltPipeHandle readEnd, AString& output) {
  CPipeCommunicator communicator(readEnd);
  char smallBuffer[1];
  char buffer[14096];
  int count = 0;
  if (communicator.Read(smallBuffer, 1, count, false, 0, false) != 0) return 1;
  while (count != 0) {
    int receivedSize = 0;
    if (communicator.Read(buffer, sizeof buffer, receivedSize, true, 0, true) != 0) return 2;
    VEL_ASSERT_REPORT("Norvik/PipeUtil", 51, receivedSize > 0, "receivedSize > 0");
    if (receivedSize > 0) output += AString(buffer, static_cast<std::size_t>(receivedSize));
    count = 0;
    if (communicator.Read(smallBuffer, 1, count, false, 0, false) != 0) return 1;
  }
  return 0;
}
