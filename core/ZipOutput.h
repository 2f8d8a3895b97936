#pragma once
// The archive file the zip writer writes into, through a large buffer of its
// own. libzip's file writer hands the system a few kilobytes at a time: for
// an archive of hundreds of megabytes, a hundred thousand writes, all of them
// after the last view is finished. Everything else about the file stays
// libzip's: the temporary file beside the archive, its rename into place on
// success, its removal on failure, its permissions.

#include <zip.h>

#include <string>

// A source for zip_open_from_source over the archive at `path` (narrow text),
// or null with `error` set.
zip_source_t* CreateBufferedArchiveSource(const std::string& path, zip_error_t* error);
