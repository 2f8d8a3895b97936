#pragma once
// A plain hand-written view file reader: one loop over the bytes, no parser
// library. It fills the table through the same operations and in the same
// order as the grammar (header, J record, then all rows at once), fails at the
// same places with the same messages, and so leaves the same table behind. The
// benchmark measures the grammar against it; the fuzz target checks the two
// against each other on every input.

#include <string>

#include "reader/ExtractaViewData.h"

void plainParseViewText(const char* first, const char* last, const std::string& name,
                        ExtractaViewData& data);

// Reads the whole file as readViewFile does and parses it with the loop above.
void plainReadViewFile(const std::string& path, ExtractaViewData& data);
