#pragma once
// What the core files written once for every system ask of core/posix and
// core/win32: the bare system calls behind process creation, the pipes' end,
// the system's message texts and a file put in place whole. The checks, the trimming and
// the order of the steps live in the common files.

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/Pipe.h"
#include "core/Process.h"

namespace velt_system {

// The system's whole text for an error code, line ends and all.
std::string ErrorText(int errorCode);

// The error the last failed file call left (errno; on Windows
// GetLastError()), and its text.
int LastError();
std::string LastErrorText();

// VeltCreateProcess once its arguments are checked: the same parameters, the
// flags read as the signal that asks the child to end (0: none), the same
// results.
int StartProcess(const AString& applicationName, const AString* argv, int argc,
                 VeltProcessHandle& processHandle, const AString& workingDirectory,
                 const char* const* environment, const char* inputPath, VeltPipeHandle outputHandle,
                 bool inheritHandles, bool errorToOutput, bool newProcessGroup, int endSignal,
                 int* processId);

// Closes one end of a pipe; false when the system reports a failure.
bool ClosePipeEnd(VeltPipeHandle handle);

// Renames `from` to `to`, replacing a file there in one step.
bool MoveIntoPlace(const std::string& from, const std::string& to);

// Removes a file; false when it could not be removed.
bool RemoveFile(const std::string& path);

}  // namespace velt_system
