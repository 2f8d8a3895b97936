#pragma once
// The program a name stands for, found as the system finds programs: a name
// with a "/" relative to the current directory, any other along PATH (empty
// entries are the current directory; no PATH: /bin and /usr/bin). A name
// ending in ".exe" that is not found is tried without it.

#include <string>

namespace velt_posix {

// 0 and the program's absolute path in `found`; ENOENT when nothing of that
// name is there, EACCES when only files that are no program we may run are.
int FindProgram(const std::string& name, std::string& found);

}  // namespace velt_posix
