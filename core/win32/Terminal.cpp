#include "core/Terminal.h"

#include <io.h>
#include <windows.h>

#include <cstdio>

bool StandardErrorIsTerminal() {
  if (!_isatty(_fileno(stderr))) return false;
  const HANDLE console = GetStdHandle(STD_ERROR_HANDLE);
  DWORD mode = 0;
  if (!GetConsoleMode(console, &mode)) return false;
  // "\r" works on any console; the erase sequence needs virtual terminal
  // processing (Windows 10 1511 and later).
  return (mode & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0 ||
         SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

int StandardErrorColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info)) {
    const int columns = info.srWindow.Right - info.srWindow.Left + 1;
    if (columns > 0) return columns;
  }
  return 80;
}
