#pragma once
// Running the built VelExtracta as a user would, on a sample design, with
// extracta-sim standing in for extracta.

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace e2e {

// A small sample design, made once per test program.
const std::string& SampleDesign();

// Runs VelExtracta with the arguments. extracta-sim is the extractor, the
// debug variable is unset and no fault is injected, unless `options.env` says
// otherwise.
veltest::RunResult RunVelExtracta(const std::vector<std::string>& args,
                                  veltest::RunOptions options = {});

// Runs any program found on PATH.
veltest::RunResult RunTool(const std::vector<std::string>& argv);

// The entries of a directory named "extract" followed by a run number.
std::vector<std::string> WorkingDirs(const std::string& directory);

// Entry names of an archive as Python's zipfile reads them, after its own
// integrity test; empty with a failed test when the archive is damaged.
std::vector<std::string> ArchiveNames(const std::string& archive);

// The file name part of an entry or path.
std::string Leaf(const std::string& path);

// True when the text is one outcome line: label, "0x" and hexadecimal digits,
// line feed.
bool IsPointerLine(const std::string& text, const std::string& label);

// An extractor that runs extracta-sim and then leaves notes.TXT in its
// directory (the working directory), as a site's wrapper script might.
std::string NotesWritingExtracta(const veltest::TempDir& dir);

}  // namespace e2e
