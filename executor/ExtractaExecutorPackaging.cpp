// ExtractaExecutor: packing the working directory into the VLX archive, or
// moving its files into an output directory, and copying added files into it.
// Packaging works from the directory's listing, not from the list of produced
// views: whatever the run left there under the filter is delivered.

#include <boost/filesystem.hpp>

#include "core/VelAssert.h"
#include "core/ZipArchive.h"
#include "executor/BackgroundPacker.h"
#include "executor/ExtractaExecutor.h"

#define VEL_ASSERT_SOURCE "ExtractaExecutor"

namespace fs = boost::filesystem;

namespace {

// An empty filter passes everything, subdirectories included; otherwise the
// extension (dot included) must equal the filter exactly, case included.
bool PassesFilter(const fs::path& entry, const AString& filterExtension) {
  return filterExtension.empty() || AString(entry.extension().string()).Match(filterExtension);
}

bool Exists(const fs::file_status& status) {
  return status.type() != fs::status_error && status.type() != fs::file_not_found;
}

}  // namespace

bool ExtractaExecutor::addFilesToWorkingDir(const std::vector<AString>& files) {
  if (!workingDir.IsInitialized() || !LFN_IsExistingDirectory(workingDir)) return false;
  const fs::path workingpath(VEL_ANSI(workingDir.FilePath()));
  VEL_ASSERT(fs::is_directory(workingpath));
  for (const AString& file : files) {
    const fs::path source(VEL_ANSI(file));
    if (!Exists(fs::status(source))) continue;
    // A name that is already there (a view file, say) is not overwritten: the
    // copy throws and the run ends.
    fs::copy_file(source, workingpath / source.filename(), fs::copy_options::none);
  }
  return true;
}

bool ExtractaExecutor::zipActiveViews(const AString& outputPath, const AString& filterExtension) {
  const fs::path outpath(VEL_ANSI(outputPath));
  VEL_ASSERT(!fs::is_directory(outpath));

  CZipArchive archive;
  try {
    archive.Open(outpath.string(), CZipArchive::kCreate, 0);
  } catch (...) {
    VEL_ASSERT(!"open archive failed");
    return false;
  }

  try {
    // An interrupt while the last views are deflated packs nothing.
    if (packer && !packer->finish()) throw CZipException("interrupted");
    const fs::path workingpath(VEL_ANSI(workingDir.FilePath()));
    if (Exists(fs::status(workingpath))) {
      for (fs::directory_iterator it(workingpath), end; it != end; ++it) {
        if (!PassesFilter(it->path(), filterExtension)) continue;
        if (packer && packer->addTo(archive, it->path().string(), true)) continue;
        archive.AddNewFile(it->path().string(), CZipArchive::kDefaultLevel, true, 7, 65536);
      }
    }
    // The zip writer reads and compresses the files while it closes, so a
    // file that cannot be read or an archive that cannot be written (a full
    // disk) fails here and counts as a failure to pack.
    archive.Close(0, false);
  } catch (...) {
    VEL_ASSERT(!"ExtractaExecutor::zipActiveViews, error with boost::filesystem");
    return false;
  }
  return true;
}

bool ExtractaExecutor::moveActiveViews(const AString& outputPath, const AString& filterExtension) {
  const fs::path outpath(VEL_ANSI(outputPath));
  VEL_ASSERT(fs::is_directory(outpath));

  try {
    const fs::path workingpath(VEL_ANSI(workingDir.FilePath()));
    if (!Exists(fs::status(workingpath))) return true;
    for (fs::directory_iterator it(workingpath), end; it != end; ++it) {
      if (!PassesFilter(it->path(), filterExtension)) continue;
      const fs::path target = outpath / it->path().filename();
      if (Exists(fs::status(target))) fs::remove(target);
      fs::rename(it->path(), target);
    }
  } catch (const fs::filesystem_error&) {
    // Files moved before the failure stay where they are; the output directory
    // then holds part of the views, which the failure line tells the user.
    VEL_ASSERT(!"ExtractaExecutor::moveActiveViews, error with boost::filesystem");
    return false;
  }
  return true;
}
