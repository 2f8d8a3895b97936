#pragma once
// What the process tests, and the child they start, do differently per system.

#include <cstdint>
#include <string>

namespace veltest {

// Writes all of `bytes` to a pipe's write end (a VeltPipeHandle).
bool WriteToPipe(std::intptr_t pipe, const std::string& bytes);

// The null device opened without close-on-exec, as a careless library might
// leave it; -1 where handles are not inherited that way.
int OpenStrayDescriptor();
void CloseStrayDescriptor(int descriptor);

// Lets the owner execute the file; false where the system has no such mode.
bool MakeExecutable(const std::string& path);

// The program's next copy_file_range calls fail with `error`; 0: they work.
void SetKernelCopyError(int error);

// For the test child: its standard input and open descriptors as it records
// them, and standard output switched to bytes as they are.
std::string ChildStreams();
void UseBinaryStandardOutput();

#ifdef _WIN32
// One argument as the C runtime splits a command line again: in quotes, with
// the backslashes before a quote (or the closing one) doubled.
std::wstring QuotedForCommandLine(const std::wstring& argument);
#endif

// For the test child standing in for a launcher: runs the program argv[0]
// (a full path) with the arguments after it, as they are, and returns its exit
// code (on POSIX it takes this process's place); -1 when it cannot start.
int RunCommand(char** argv);

}  // namespace veltest
