#pragma once
// The extracta control file: view blocks written from view definitions, the
// whole file for a view set, and the names of the view files that go with the
// blocks. Every line ends in CR LF on disk, on every platform.

#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"
#include "views/ExtractaViewDef.h"
#include "views/ViewTypes.h"

// The lines joined by "\n\t" (a line feed and one tab).
std::string JoinLines(const std::vector<std::string>& lines);

// The text of one view block with "\n" line ends, before the translation to
// CR LF that WriteViewBlock applies.
std::string FormatViewBlock(const ExtractaViewDef& def);

// Writes one view block. Stream errors are left in the stream's state.
void WriteViewBlock(const ExtractaViewDef& def, std::ostream& out);

// Writes the blocks of every view of the set, in ascending type order, with the
// nets as selecting filters. False, and nothing written, when the stream has
// no open file or is bad.
bool WriteControlFile(std::ofstream& out, const ViewSet& views, const std::vector<AString>& nets);

// The view file name: type name, suffix, ".txt" (conn + "nets" = connnets.txt).
AString MakeViewFileName(ViewType type, const AString& suffix);

// One (type, directory + view file name) per view of the set, in the order in
// which WriteControlFile writes their blocks.
void CollectViewFiles(const ViewSet& views, const LongFileName& directory,
                      std::vector<ActiveView>& out);
