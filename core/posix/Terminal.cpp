#include "core/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

bool StandardErrorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

int StandardErrorColumns() {
  winsize size{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  return 80;
}
