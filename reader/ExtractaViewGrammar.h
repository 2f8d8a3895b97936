#pragma once
// Reading the text view files that extracta writes into an ExtractaViewData
// table. A view file is an "A!" header record, a "J!" record and any number of
// "S!" records; fields are separated by "!", records end in CR LF, and every
// byte of a field is kept as written.
//
// The grammar itself (ExtractaViewGrammar, a Boost.Spirit Qi grammar) lives in
// ExtractaViewGrammar.cpp, so that callers do not compile Spirit.

#include <string>

#include "reader/ExtractaViewData.h"

// Reads the file at `path` (narrow text, as handed to the file system) in
// binary and fills `data` with its header, J record and S records. Throws
// ExtractaParserException when the file cannot be opened or read, when the
// text is not a view file, or when `data` already holds rows. Whatever was
// stored in `data` before a failure stays there.
void readViewFile(const std::string& path, ExtractaViewData& data);

// Parses a whole view file held in memory, [first, last), into `data`. `name`
// (the file's path for readViewFile) begins the failure messages.
void parseViewText(const char* first, const char* last, const std::string& name,
                   ExtractaViewData& data);
