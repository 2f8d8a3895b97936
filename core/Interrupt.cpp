#include "core/Interrupt.h"

#include <string>

#include "core/ExtractaParserException.h"
#include "core/InterruptState.h"

namespace velt_interrupt {
std::atomic<int> pendingSignal{0};
}  // namespace velt_interrupt

using velt_interrupt::pendingSignal;

bool InterruptRequested() { return pendingSignal.load() != 0; }

int InterruptSignal() { return pendingSignal.load(); }

std::string InterruptMessage(int signal) {
  return "interrupted by signal " + std::to_string(signal);
}

void ThrowIfInterrupted() {
  const int signal = pendingSignal.load();
  if (signal != 0) throw ExtractaParserException(InterruptMessage(signal));
}

void ClearInterruptRequest() {
  pendingSignal.store(0);
  velt_interrupt::ForgetWakeUps();
}
