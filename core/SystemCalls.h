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

// The system's text for the error the last failed file call left (errno; on
// Windows GetLastError()).
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

// A new file beside `path` (narrow text), open for writing: its name in
// `temporary`, its handle in `handle`. False when none can be created.
bool CreateBeside(const std::string& path, std::string& temporary, std::intptr_t& handle);

// Writes all of the bytes and has the system put them on the disk; the file
// gets the permissions a newly created file gets from the user. False on the
// first step that fails.
bool WriteDurably(std::intptr_t handle, const void* data, std::size_t size);

// Closes a file that CreateBeside opened; false when the system reports a
// failed write only now.
bool CloseFile(std::intptr_t handle);

// Renames `from` to `to`, replacing a file there in one step.
bool MoveIntoPlace(const std::string& from, const std::string& to);

// Removes a file; false when it could not be removed.
bool RemoveFile(const std::string& path);

}  // namespace velt_system
