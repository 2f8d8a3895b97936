#pragma once
// Interrupts: a request from the user or the system to stop (SIGINT, SIGTERM
// and SIGHUP; on Windows Ctrl-C, Ctrl-Break and the console closing) ends
// every child tree this program started and leaves a request that the
// program's waits turn into a failure.
//
// Children run in process groups of their own, so a Ctrl-C at the terminal
// reaches only this program; without these handlers the children would run on
// after it. The handler ends every registered child tree at once and records
// the interrupt as a signal number (Ctrl-C: SIGINT, Ctrl-Break: SIGBREAK, the
// console closing: SIGTERM). Every polling wait on children checks the
// request and throws ExtractaParserException("interrupted by signal N"), so
// the caller's normal failure path drops its generators and working directory.
// A second interrupt while the first is still pending ends the program at
// once, as if no handler were installed.
//
// How the run driver uses it:
//   - call InstallInterruptHandlers() once at start, before any child starts;
//   - check InterruptRequested() after the views were created and before
//     anything is packed or moved: an interrupted run delivers nothing and
//     exits non-zero.

#include <string>

// Installs the handlers. Safe to call twice.
void InstallInterruptHandlers();

// True once an interrupt arrived (until ClearInterruptRequest).
bool InterruptRequested();

// The signal of the pending interrupt; 0 when none.
int InterruptSignal();

// Throws ExtractaParserException("interrupted by signal N") when an interrupt
// is pending; otherwise does nothing.
void ThrowIfInterrupted();

// The text ThrowIfInterrupted throws for a signal.
std::string InterruptMessage(int signal);

// Forgets a pending interrupt (for tests, and for a program that goes on after
// handling one).
void ClearInterruptRequest();
