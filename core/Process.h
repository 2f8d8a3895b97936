#pragma once
// Child processes: start a program, ask whether it still runs, end it together
// with everything it started.
//
// A program is started from an argument array as if from a command line: the
// arguments after the program name are joined by single blanks and split
// again by the rules of the Windows C runtime, so an argument that carries its
// own double quotes ("a b/c.mcm") reaches the child as one argument without
// them (a b/c.mcm), and arguments are never escaped on the way. The program
// name itself is taken as given, blanks included.
//
// A name without a directory part is looked up as the system looks up
// programs (PATH); a name with one is taken relative to the caller's current
// directory. Where programs carry no ".exe", a name ending in ".exe" that is
// not found is tried without it, so "extracta.exe" finds "extracta". A
// program that is not there gives kVeltErrorNotFound (on Windows a path
// through a directory that is not there gives the system's own code for it).
//
// Children started in a process group of their own are remembered until their
// group is known to be gone, so that an interrupt of this program can end them
// (core/Interrupt.h), and ending a tree leaves nothing of it behind, not even
// a finished process waiting to be reaped. Where the system allows, a child
// tree also ends when this program itself is killed (core/Watchdog.h).
//
// On Linux a child is killed when the thread that created it ends, so that a
// VelExtracta killed outright (SIGKILL, the out-of-memory killer) leaves no
// extractor running. Children must therefore be created from a thread that
// outlives them: VelExtracta creates every child from its main thread. That
// thread does nothing slow while children run (the merge and the packing
// have threads of their own, which never create a process), so a slot that
// frees is filled within one look at the children, and the rule costs no
// time.

#include <string>
#include <vector>

#include "core/AString.h"
#include "core/Pipe.h"

// A started child; null for none. Pointer-sized and opaque.
using VeltProcessHandle = void*;

// The exit code reported while a child still runs.
constexpr int kVeltStillActive = 259;

// creationFlags of a child that started a task elsewhere through a farm
// engine's launcher (srun, blaunch, qrsh): ending it first sends it `signal`,
// so that it ends its task through the engine, and gives it
// kVeltEndRequestMilliseconds before its process group is killed. It gets
// the same signal when this program dies, and so does its group from an
// interrupt. Only where kVeltChildrenAskedToEnd holds; elsewhere the flag is
// refused.
constexpr unsigned kVeltEndRequested = 0x100;
constexpr unsigned VeltEndRequestFlags(int signal) {
  return kVeltEndRequested | static_cast<unsigned>(signal);
}
constexpr int kVeltEndRequestMilliseconds = 1000;
// True where a child can be asked to end by a signal (POSIX). Windows ends a
// child tree through its job object only.
extern const bool kVeltChildrenAskedToEnd;

// System error codes VeltCreateProcess returns for its own checks (the
// values are the system's own, so they are not the same on every system).
extern const int kVeltErrorNotFound;         // no such program (2 everywhere)
extern const int kVeltErrorBadDirectory;     // the working directory is no directory
extern const int kVeltErrorInvalidArgument;  // an argument outside the contract

// Starts a child and returns 0, or the system's error code.
//   applicationName  program to run; empty: argv[0] names it
//   argv, argc       argv[0] the program name as the child sees it, then the
//                    arguments (see above)
//   processHandle    receives the child's handle (null on failure)
//   workingDirectory the child's current directory; empty: the caller's
//   environment      "NAME=value" entries ending in null; null: the caller's
//   inputPath        file on the child's standard input; null: the null
//                    device
//   outputHandle     where standard output goes; kVeltNullPipeHandle: the
//                    caller's standard output
//   creationFlags    0, or VeltEndRequestFlags(signal) (see above); anything
//                    else gives kVeltErrorInvalidArgument
//   inheritHandles   false: the child gets its three standard streams and no
//                    other handle of the caller; true: the caller's handles
//                    marked inheritable reach the child too
//   errorToOutput    true: standard error goes where standard output goes;
//                    false: it stays the caller's
//   newProcessGroup  true: the child leads a process group of its own, which
//                    VeltTerminateProcessTree and interrupts end as a whole
//   processId        receives the child's process id; may be null
int VeltCreateProcess(const AString& applicationName, const AString* argv, int argc,
                      VeltProcessHandle& processHandle, const AString& workingDirectory,
                      const char* const* environment, const char* inputPath,
                      VeltPipeHandle outputHandle, unsigned creationFlags, bool inheritHandles,
                      bool errorToOutput, bool newProcessGroup, int* processId);

// Never blocks. Returns zero on failure (a null handle, or a child that was
// reaped behind the handle's back); otherwise sets exitCode to
// kVeltStillActive while the child runs, else to its exit status (for a child
// ended by a signal, 128 + the signal number). The code of an ended child is
// kept for later queries.
int VeltGetProcessExitCode(VeltProcessHandle handle, int& exitCode);

// Ends the child and every process it started (grandchildren included) at
// once, and waits until they are gone. On a child that ended by itself it
// still ends whatever it left running. Zero for a null handle.
int VeltTerminateProcessTree(VeltProcessHandle handle);

// Releases the handle of a child that has ended (its exit code was read, or
// it was terminated). A child still running keeps its handle: false.
bool VeltCloseProcessHandle(VeltProcessHandle handle);

// The child's process id; 0 for a null handle.
int VeltProcessId(VeltProcessHandle handle);

// Sleeps until one of the children ends, one of the pipes has data waiting,
// an interrupt arrives (core/Interrupt.h) or the time runs out; returns at
// once when one of these is the case already. A polling loop calls it between
// passes to sleep through quiet stretches instead of waking every
// millisecond. Null handles and children already reaped are left out. Where a
// child's end cannot be watched, the wait lasts at most 1 millisecond.
void VeltWaitForChildActivity(const std::vector<VeltProcessHandle>& children,
                              const std::vector<VeltPipeHandle>& pipes, int timeoutMilliseconds);

// The system's text for an error code, at most 78 characters (what a buffer
// of 79 holds with its terminator), without a trailing line end.
std::string VeltFormatSystemMessage(int errorCode);

// The program a name stands for, found as VeltCreateProcess finds it: 0 and
// its full path in `path`, or the system's error code (kVeltErrorNotFound
// when there is none).
int VeltFindProgram(const AString& name, AString& path);

// Splits a command line as the Windows C runtime splits the arguments after
// the program name: blanks and tabs separate; double quotes group and are
// removed; 2n backslashes before a quote give n backslashes and the quote
// groups, 2n+1 give n backslashes and a literal quote; other backslashes are
// literal; two quotes inside a quoted part give one literal quote.
std::vector<std::string> VeltSplitCommandLine(const std::string& commandLine);

// The argument as VeltSplitCommandLine reads it back whole: as it is when it
// holds no blank, tab or double quote and is not empty (unless `always`),
// else in double quotes, a quote in it escaped and the backslashes before a
// quote (or before the closing one) doubled.
std::string VeltQuoteArgument(const std::string& argument, bool always = false);
