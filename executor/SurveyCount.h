#pragma once
// The connectivity survey counted as it is read: record by record through
// the view file reader's own field list, keeping only a count per net, so
// that the program's memory follows the number of nets and not the size of
// the design (a large design's survey lists tens of millions of records).

#include <cstdint>
#include <string>

#include "executor/ConnectivitySplit.h"

// Reads the survey at `path` (narrow text) into `counts` and returns how many
// records it holds. Fails as reading the whole table and then counting it
// would: a text that is no view file with the reader's message, then a survey
// without a NET_NAME column, then the first record without the field.
// Whatever was counted before a failure is to be thrown away.
uint64_t CountSurvey(const std::string& path, NetRecordCounts& counts);
