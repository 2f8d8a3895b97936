#pragma once
// The archive file the zip writer writes into. It is written beside its
// destination (beside a link's final target, so that a link stays a link)
// under a name of its own, through a large buffer (libzip hands over a few
// kilobytes at a time: for an archive of hundreds of megabytes, a hundred
// thousand writes), and renamed onto the destination only when complete. The
// watchdog removes it should the program die before; an interrupt ends the
// writing within a buffer's time, and the file is removed.

#include <zip.h>

#include <string>

// A source for zip_open_from_source that writes a new archive at `path`
// (narrow text), or null with `error` set.
zip_source_t* CreateBufferedArchiveSource(const std::string& path, zip_error_t* error);
