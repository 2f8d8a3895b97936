#pragma once
// The option scan of VelExtracta's command line: everything before the last
// two arguments (the design file and the output path) is tested against the
// options, the program's own name included.

#include <vector>

#include "core/AString.h"

struct CommandLine {
  bool enoughArguments = false;  // a design file and an output path were given
  bool zip = false;              // pack into one archive instead of moving
  bool standardViews = true;     // cleared by the cell option
  std::vector<AString> nets;     // from every nets option, in order
  std::vector<AString> adds;     // from every add option, in order
};

// Options match whole arguments, ignoring case, in a slash and a dash form:
// z (zip), cell, n NET,NET... (nets), add FILE,FILE... (add). A value is not
// skipped: it is scanned again as an option itself, and an option in the last
// scanned place takes the design file as its value. Unknown arguments are
// ignored.
CommandLine ScanCommandLine(int argc, const char* const* argv);
