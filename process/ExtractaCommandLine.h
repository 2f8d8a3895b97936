#pragma once
// The extracta command line: which program runs, and the arguments it gets.
// Pure text work (apart from reading one environment variable), so that the
// exact arguments can be checked without starting anything.

#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"

// "extracta.exe", or the whole value of VELTAR_EXTRACTA_PATHOVERRIDE when set
// (no check that it exists). Resolved anew for every child.
AString extractaExecutableName();

// The path wrapped in double quotes, escaped so that the child's runtime
// splits it back into the path as it is.
AString quotedPath(const LongFileName& file);

// "-k", "-c" (with generatorOption), "-m", then the quoted design file,
// control file and output files, in this order.
std::vector<AString> buildExtractaArguments(const LongFileName& first, const LongFileName& second,
                                            bool generatorOption,
                                            const std::vector<LongFileName>& files);
