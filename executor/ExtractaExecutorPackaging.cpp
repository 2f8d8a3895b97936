// ExtractaExecutor: packing the working directory into the VLX archive, or
// moving its files into an output directory, and copying added files into it.
// Packaging works from the directory's listing, not from the list of produced
// views: whatever the run left there under the filter is delivered.

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/File.h"
#include "core/Interrupt.h"
#include "core/PathError.h"
#include "core/VelAssert.h"
#include "core/VelDebug.h"
#include "core/ZipArchive.h"
#include "executor/BackgroundPacker.h"
#include "executor/ConnectivityMerge.h"
#include "executor/ExtractaExecutor.h"

#define VEL_ASSERT_SOURCE "ExtractaExecutor"

namespace fs = std::filesystem;

namespace {

// The extension runs from the last dot of the leaf, dot included, so a leaf
// that is all extension (".txt") has one; "." and ".." have none.
std::string Extension(const fs::path& entry) {
  const std::string leaf = entry.filename().u8string();
  const size_t dot = leaf.rfind('.');
  if (dot == std::string::npos || leaf == "." || leaf == "..") return std::string();
  return leaf.substr(dot);
}

// An empty filter passes everything, subdirectories included; otherwise the
// extension (dot included) must equal the filter exactly, case included.
bool PassesFilter(const fs::path& entry, const AString& filterExtension) {
  return filterExtension.empty() || AString(Extension(entry)).Match(filterExtension);
}

bool Exists(const fs::file_status& status) { return fs::exists(status); }

// Removes the view files packed ahead on a thread of its own while the
// archive is written: the zip writer takes their entries from the compressed
// data and does not read them again, and removing a large design's views
// takes about as long as writing its archive. The working directory goes
// after packing anyway, succeeded or not; one that is kept
// (VELTAR_EXTRACTA_DEBUG) keeps them.
class RemovalAlongside {
 public:
  explicit RemovalAlongside(std::vector<fs::path> files) : files_(std::move(files)) {
    if (files_.empty() || std::getenv("VELTAR_EXTRACTA_DEBUG")) return;
    thread_ = std::thread([this] {
      for (const fs::path& file : files_) {
        std::error_code ignored;  // whatever stays goes with the directory
        fs::remove(file, ignored);
      }
    });
  }
  ~RemovalAlongside() {
    if (thread_.joinable()) thread_.join();
  }
  RemovalAlongside(const RemovalAlongside&) = delete;
  RemovalAlongside& operator=(const RemovalAlongside&) = delete;

 private:
  const std::vector<fs::path> files_;
  std::thread thread_;
};

// The files an output directory was given, each with the file it replaced
// (renamed aside), so that an interrupt can take them back.
class MovedViews {
 public:
  struct Move {
    fs::path from, to, aside;  // aside: empty when nothing was replaced
  };
  void push_back(const Move& move) { moves_.push_back(move); }

  // Puts every file back where it came from, the last first, and what it
  // replaced back in its place; false, for the caller to return.
  bool undo() {
    for (auto move = moves_.rbegin(); move != moves_.rend(); ++move) {
      std::error_code error;
      if (!fs::exists(fs::symlink_status(move->from, error)))
        fs::rename(move->to, move->from, error);
      if (!error && !move->aside.empty()) fs::rename(move->aside, move->to, error);
      if (error)
        VelDebug(1, L"moveActiveViews: cannot put %s back: %s\n",
                 AString(move->to.u8string()).c_str(), AString(error.message()).c_str());
    }
    moves_.clear();
    VelDebug(1, L"moveActiveViews: interrupted, nothing delivered\n");
    return false;
  }

 private:
  std::vector<Move> moves_;
};

// The reason of the exception being handled, for the trace line of a failure
// whose own message is fixed.
AString CurrentFailure() {
  try {
    throw;
  } catch (const std::exception& e) {
    return AString(e.what());
  } catch (...) {
    return AString("unknown failure");
  }
}

// Copies a file to a name that must not exist yet; the system's reason on
// failure (the standard library's copy would say only "input/output error"
// for a full disk).
std::error_code CopyNew(const fs::path& source, const fs::path& target) {
  if (fs::exists(target)) return std::make_error_code(std::errc::file_exists);
  VeltInputFile in;
  VeltOutputFile out;
  std::uint64_t copied = 0;
  const bool done = in.Open(AString(source.u8string())) && out.Create(AString(target.u8string())) &&
                    out.CopyFrom(in, copied) && out.Close();
  const int code = in.Error() ? in.Error() : out.Error();
  return done ? std::error_code() : std::error_code(code, std::system_category());
}

}  // namespace

bool ExtractaExecutor::addFilesToWorkingDir(const std::vector<AString>& files) {
  if (!workingDir.IsInitialized() || !LFN_IsExistingDirectory(workingDir)) return false;
  const fs::path workingpath = fs::u8path(VEL_ANSI(workingDir.FilePath()));
  VEL_ASSERT(fs::is_directory(workingpath));
  for (const AString& file : files) {
    const fs::path source = fs::u8path(VEL_ANSI(file));
    // A name that is already there (a view file, say) is not overwritten: the
    // copy fails, and so does a directory, which is not a file to copy. Either
    // ends the run, with the file and the reason in the failure.
    std::error_code error;
    const fs::file_status status = fs::status(source, error);
    if (fs::status_known(status) && !fs::exists(status)) continue;
    if (fs::is_directory(status)) error = std::make_error_code(std::errc::is_a_directory);
    if (!error) error = CopyNew(source, workingpath / source.filename());
    if (error) throw PathError("cannot add a file to the working directory", source, error);
  }
  return true;
}

// The packer could not make the combined file's entry (a piece it could not
// read, or one rewritten after it was followed), so the zip writer reads the
// file: its bodies are written now.
void ExtractaExecutor::writeOutPlacedCombined() {
  VelDebug(1, L"zipActiveViews: the combined connectivity file written out in full\n");
  ConnectivityMerge merge(placedCombined);
  for (const std::string& piece : placedPieces) merge.add(AString(piece));
}

bool ExtractaExecutor::zipActiveViews(const AString& outputPath, const AString& filterExtension) {
  const fs::path outpath = fs::u8path(VEL_ANSI(outputPath));
  VEL_ASSERT(!fs::is_directory(outpath));

  std::optional<RunStepScope> step(std::in_place, reports, RunStep::kPacking);
  CZipArchive archive;
  try {
    archive.Open(outpath.u8string(), CZipArchive::kCreate, 0);
  } catch (...) {
    VelDebug(1, L"zipActiveViews: %s\n", CurrentFailure().c_str());
    VEL_ASSERT(!"open archive failed");
    return false;
  }

  try {
    // An interrupt while the last views are deflated packs nothing.
    if (packer && !packer->finish()) throw CZipException("interrupted");
    if (!placedPieces.empty() && !packer->holds(VEL_ANSI(placedCombined))) writeOutPlacedCombined();
    const fs::path workingpath = fs::u8path(VEL_ANSI(workingDir.FilePath()));
    std::vector<fs::path> packedAhead;
    if (Exists(fs::status(workingpath))) {
      for (fs::directory_iterator it(workingpath), end; it != end; ++it) {
        if (!PassesFilter(it->path(), filterExtension)) continue;
        if (packer && packer->addTo(archive, it->path().u8string(), true)) {
          packedAhead.push_back(it->path());
          continue;
        }
        archive.AddNewFile(it->path().u8string(), CZipArchive::kDefaultLevel, true, 7, 65536);
      }
    }
    // The zip writer reads and compresses the files while it closes, so a
    // file that cannot be read or an archive that cannot be written (a full
    // disk) fails here and counts as a failure to pack.
    const RemovalAlongside removal(std::move(packedAhead));
    step.emplace(reports, RunStep::kDelivery);
    archive.Close(0, false);
  } catch (...) {
    VelDebug(1, L"zipActiveViews: %s\n", CurrentFailure().c_str());
    VEL_ASSERT(!"ExtractaExecutor::zipActiveViews, error with boost::filesystem");
    return false;
  }
  return true;
}

bool ExtractaExecutor::moveActiveViews(const AString& outputPath, const AString& filterExtension) {
  const fs::path outpath = fs::u8path(VEL_ANSI(outputPath));
  VEL_ASSERT(fs::is_directory(outpath));

  // Every file is renamed into the output directory: the working directory
  // lies in it, so each file arrives whole or not at all. A file of the same
  // name there is first renamed aside into the working directory, which goes
  // after packaging as the old file would have; an interrupt before the last
  // file is in place puts everything back, so that the run delivers nothing
  // and what was there stays.
  MovedViews moved;
  const RunStepScope step(reports, RunStep::kDelivery);
  try {
    const fs::path workingpath = fs::u8path(VEL_ANSI(workingDir.FilePath()));
    if (!Exists(fs::status(workingpath))) return true;
    std::vector<fs::path> entries;
    for (fs::directory_iterator it(workingpath), end; it != end; ++it)
      if (PassesFilter(it->path(), filterExtension)) entries.push_back(it->path());
    const fs::path replaced = workingpath / ".replaced";
    for (const fs::path& entry : entries) {
      if (InterruptRequested()) return moved.undo();
      const fs::path target = outpath / entry.filename();
      fs::path aside;
      const fs::file_status status = fs::symlink_status(target);
      if (fs::is_directory(status)) {
        // A directory is only ever removed when empty, as it always was.
        fs::remove(target);
      } else if (Exists(status)) {
        fs::create_directory(replaced);
        aside = replaced / entry.filename();
        fs::rename(target, aside);
      }
      moved.push_back({entry, target, aside});
      fs::rename(entry, target);
    }
    if (InterruptRequested()) return moved.undo();
    // Delivered: what the views replaced goes now, as it always did.
    std::error_code ignored;
    fs::remove_all(replaced, ignored);
  } catch (const fs::filesystem_error& e) {
    // Files moved before the failure stay where they are; the output directory
    // then holds part of the views, which the failure line tells the user.
    VelDebug(1, L"moveActiveViews: %s\n", AString(e.what()).c_str());
    VEL_ASSERT(!"ExtractaExecutor::moveActiveViews, error with boost::filesystem");
    return false;
  }
  return true;
}
